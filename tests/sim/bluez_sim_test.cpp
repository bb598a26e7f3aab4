// The fake org.bluez on a private bus, seen by a bare D-Bus client the way
// the BlueZ central uses it.
#include "ble_frames.h"
#include "private_bluez.h"

#include <sdbus-c++/sdbus-c++.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>

namespace {

using namespace std::chrono_literals;
using Properties = std::map<std::string, sdbus::Variant>;
using Interfaces = std::map<std::string, Properties>;

constexpr char kBluez[] = "org.bluez";
constexpr char kObjectManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kPropertiesIface[] = "org.freedesktop.DBus.Properties";
constexpr char kAdapter[] = "org.bluez.Adapter1";
constexpr char kDevice[] = "org.bluez.Device1";
constexpr char kService[] = "org.bluez.GattService1";
constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";

// Serves the client's connection on this thread until `done` holds.
bool pumpUntil(sdbus::IConnection &bus, const std::function<bool()> &done)
{
    const auto end = std::chrono::steady_clock::now() + 5s;
    for (;;) {
        while (bus.processPendingRequest())
            ;
        if (done())
            return true;
        if (std::chrono::steady_clock::now() > end)
            return false;
        const sdbus::IConnection::PollData data = bus.getEventLoopPollData();
        pollfd p{data.fd, data.events, 0};
        poll(&p, 1, 20);
    }
}

// A proxy that keeps the latest value of every property it is told changed.
struct Watched {
    Watched(sdbus::IConnection &bus, const std::string &path) : proxy(sdbus::createProxy(bus, kBluez, path))
    {
        proxy->uponSignal("PropertiesChanged")
            .onInterface(kPropertiesIface)
            .call([this](const std::string &, const Properties &changed, const std::vector<std::string> &) {
                for (const auto &[name, value] : changed)
                    seen[name] = value;
            });
        proxy->finishRegistration();
    }
    bool is(const std::string &name, bool value) const
    {
        auto it = seen.find(name);
        return it != seen.end() && it->second.get<bool>() == value;
    }

    std::unique_ptr<sdbus::IProxy> proxy;
    Properties seen;
};

TEST(VirtualBluez, DiscoveryConnectionNotificationsAndALostLink)
{
    PrivateBluez bluez("pro@382/name=Garage/rssi=-55,pro/name=Shed");
    ASSERT_FALSE(bluez.address().empty());
    auto bus = sdbus::createSessionBusConnectionWithAddress(bluez.address());

    std::map<sdbus::ObjectPath, Interfaces> added;
    auto root = sdbus::createProxy(*bus, kBluez, "/");
    root->uponSignal("InterfacesAdded")
        .onInterface(kObjectManager)
        .call([&added](const sdbus::ObjectPath &path, const Interfaces &interfaces) { added[path] = interfaces; });
    root->finishRegistration();
    auto adapter = sdbus::createProxy(*bus, kBluez, "/org/bluez/hci0");
    EXPECT_EQ(adapter->getProperty("Address").onInterface(kAdapter).get<std::string>(), "00:1A:7D:DA:71:13");

    // Both focusers appear during discovery, with name, address and RSSI.
    adapter->callMethod("SetDiscoveryFilter").onInterface(kAdapter).withArguments(Properties{{"Transport", "le"}});
    adapter->callMethod("StartDiscovery").onInterface(kAdapter);
    ASSERT_TRUE(pumpUntil(*bus, [&] { return added.size() == 2; }));
    adapter->callMethod("StopDiscovery").onInterface(kAdapter);
    std::string devicePath;
    for (auto &[path, interfaces] : added)
        if (interfaces[kDevice]["Name"].get<std::string>() == "Garage") {
            devicePath = path;
            EXPECT_EQ(interfaces[kDevice]["Address"].get<std::string>(), "C0:FF:EE:00:00:01");
            EXPECT_EQ(interfaces[kDevice]["RSSI"].get<int16_t>(), -55);
        }
    ASSERT_EQ(devicePath, "/org/bluez/hci0/dev_C0_FF_EE_00_00_01");

    Watched device(*bus, devicePath);
    device.proxy->callMethod("Connect").onInterface(kDevice);
    ASSERT_TRUE(pumpUntil(*bus, [&] { return device.is("ServicesResolved", true); }));
    EXPECT_TRUE(device.is("Connected", true));

    // The service and its write-and-notify characteristic, as BlueZ lists them.
    std::map<sdbus::ObjectPath, Interfaces> objects;
    root->callMethod("GetManagedObjects").onInterface(kObjectManager).storeResultsTo(objects);
    std::string characteristicPath;
    for (auto &[path, interfaces] : objects)
        if (interfaces.count(kCharacteristic)) {
            const std::string service = interfaces[kCharacteristic]["Service"].get<sdbus::ObjectPath>();
            EXPECT_EQ(objects[service][kService]["UUID"].get<std::string>(), "7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5");
            EXPECT_EQ(objects[service][kService]["Device"].get<sdbus::ObjectPath>(), devicePath);
            EXPECT_EQ(interfaces[kCharacteristic]["Flags"].get<std::vector<std::string>>(),
                      (std::vector<std::string>{"write", "notify"}));
            characteristicPath = path;
        }
    ASSERT_FALSE(characteristicPath.empty());

    Watched characteristic(*bus, characteristicPath);
    characteristic.proxy->callMethod("StartNotify").onInterface(kCharacteristic);
    ASSERT_TRUE(pumpUntil(*bus, [&] { return characteristic.is("Notifying", true); }));

    // A device frame is answered by a Value change carrying the firmware's reply.
    const Properties request{{"type", "request"}};
    characteristic.proxy->callMethod("WriteValue")
        .onInterface(kCharacteristic)
        .withArguments(requestFrame(42, BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x04}), request);
    ASSERT_TRUE(pumpUntil(*bus, [&] { return characteristic.seen.count("Value") != 0; }));
    BLEProtocol::Bytes answer = characteristic.seen["Value"].get<std::vector<uint8_t>>();
    ASSERT_GE(answer.size(), 9u);
    EXPECT_EQ(answer[2], 42);
    EXPECT_EQ(BLEProtocol::Bytes(answer.begin() + 5, answer.begin() + 8), (BLEProtocol::Bytes{3, 8, 2}));
    EXPECT_EQ(BLEProtocol::decodeResponse(answer), 0);

    // A link dropped on request reads as Connected turning false.
    bluez.control("SetFault", std::string("Garage"), std::string("drop"));
    characteristic.proxy->callMethod("WriteValue")
        .onInterface(kCharacteristic)
        .withArguments(requestFrame(43, BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x03}), request);
    ASSERT_TRUE(pumpUntil(*bus, [&] { return device.is("Connected", false); }));
    EXPECT_TRUE(device.is("ServicesResolved", false));
}

} // namespace
