// The BlueZ central under the manager, against the virtual Bluetooth
// focuser's org.bluez on a private dbus-daemon.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/linux/bluez_central.h"

#include "ble_frames.h"
#include "log_lines.h"
#include "private_bluez.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<unsigned char>;

constexpr char kFocuser[] = "C0:FF:EE:00:00:01";

// Virtual focusers on a bus of their own, which the next central takes for
// the system bus.
struct Bluez : PrivateBluez {
    explicit Bluez(const std::string &devices = "pro@382/name=Garage/rssi=-42") : PrivateBluez(devices)
    {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address().c_str(), 1);
    }
};

std::unique_ptr<BluetoothLEManager> bluezManager()
{
    return std::make_unique<BluetoothLEManager>(std::make_unique<BluezCentral>());
}

TEST(BluezCentral, WithoutBluezOrWithoutABusThereIsNoBluetooth)
{
    Bluez bluez;
    bluez.control("ReleaseBluez");
    for (bool anyBus : {true, false}) {
        if (!anyBus)
            setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        auto manager = bluezManager();
        EXPECT_FALSE(manager->IsBluetoothLESupported());
        std::vector<IBluetoothLEManager::DeviceInfo> devices;
        manager->ScanForDevices(300, devices);
        EXPECT_TRUE(devices.empty());
        EXPECT_FALSE(manager->ConnectToDevice("Garage", ""));
    }
}

// Connected, then gone before its services resolve: the attempt fails at
// once rather than waiting for its time-out.
TEST(BluezCentral, ADeviceVanishingMidConnectEndsTheAttemptAtOnce)
{
    Bluez bluez;
    bluez.control("SetFault", std::string(kFocuser), std::string("vanish"));
    zor_test::LogLines log;
    auto manager = bluezManager();
    std::vector<IBluetoothLEManager::DeviceInfo> devices;
    manager->ScanForDevices(200, devices);
    EXPECT_FALSE(manager->ConnectToDevice("Garage", ""));
    EXPECT_EQ(log.messages("BluetoothLEManagerLinux", "connect").back(), "ConnectToDevice Garage failed");
}

TEST(BluezCentral, ConnectsExchangesAndTellsEachWayTheLinkEnds)
{
    using Record = std::function<void(bool)>;
    struct Case {
        const char *name;
        std::function<void(BluetoothLEManager &, PrivateBluez &, Record)> end;
        std::vector<bool> states;
        bool supportedAfter;
    };
    const Case cases[] = {
        // The callback is back before the disconnect event comes: it must not hear of it.
        {"requested",
         [](BluetoothLEManager &m, auto &, Record record) {
             m.DisconnectFromDevice();
             m.ConnectStateCallbackFunc(record);
         },
         {true},
         true},
        {"dropped", [](auto &, auto &b, Record) { b.control("DropLink", std::string(kFocuser)); }, {true, false}, true},
        // The radio going off first disconnects the device, as BlueZ does:
        // the link is lost once.
        {"radio off", [](auto &, auto &b, Record) { b.control("SetPowered", false); }, {true, false}, false},
        {"org.bluez gone", [](auto &, auto &b, Record) { b.control("ReleaseBluez"); }, {true, false}, false},
    };
    for (const Case &c : cases) {
        Bluez bluez;
        auto manager = bluezManager();
        std::vector<IBluetoothLEManager::DeviceInfo> devices;
        manager->ScanForDevices(200, devices);
        ASSERT_EQ(devices.size(), 1u) << c.name;
        EXPECT_EQ(devices[0].address, kFocuser);
        EXPECT_EQ(devices[0].bluetoothAddress, 0xC0FFEE000001);
        EXPECT_EQ(devices[0].rssi, -42);
        std::string host;
        manager->GetLocalBluetoothMacAddress(host);
        EXPECT_EQ(host, "00:1a:7d:da:71:13");

        std::mutex mutex;
        std::vector<bool> states;
        // A lost link while a request waits, as when a move is stopped: the
        // event thread's own wait must not hold it up.
        const Record record = [&](bool state) {
            if (!state)
                manager->WaitForDataAndProcess();
            std::lock_guard<std::mutex> lock(mutex);
            states.push_back(state);
        };
        manager->ConnectStateCallbackFunc(record);
        ASSERT_TRUE(manager->ConnectToDevice("Garage", "")) << c.name;
        manager->setIsRead(true);
        ASSERT_TRUE(manager->SendData(requestFrame(7, BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x04}), 3, 0));
        ASSERT_TRUE(manager->WaitForDataAndProcess()) << c.name;
        Bytes answer;
        manager->GetReceivedData(answer);
        ASSERT_GE(answer.size(), 8u);
        EXPECT_EQ(answer[2], 7); // the request's sequence
        EXPECT_EQ(Bytes(answer.begin() + 5, answer.begin() + 8), (Bytes{3, 8, 2}));

        c.end(*manager, bluez, record);
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(manager->IsBluetoothLESupported(), c.supportedAfter) << c.name;
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(states, c.states) << c.name;
    }
}

} // namespace
