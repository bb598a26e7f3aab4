// The BlueZ central under the manager, against a minimal org.bluez on a
// private dbus-daemon: one adapter, one focuser that appears on discovery and
// answers each write by notifying the bytes reversed. Writing DD drops the
// link, FF switches the radio off.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/linux/bluez_central.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using Bytes = std::vector<unsigned char>;
using namespace std::chrono_literals;
const char *A = "org.bluez.Adapter1", *D = "org.bluez.Device1", *S = "org.bluez.GattService1",
           *C = "org.bluez.GattCharacteristic1";
const std::string kDev = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01";

// A dbus-daemon of its own, made the system bus of this process.
class PrivateBus {
public:
    PrivateBus()
    {
        FILE *out = popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
        char address[512] = {0};
        if (out && std::fscanf(out, "%511s %d", address, &m_pid) == 2)
            setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
        if (out)
            pclose(out);
        EXPECT_GT(m_pid, 0) << "no dbus-daemon";
    }
    ~PrivateBus()
    {
        if (m_pid > 0)
            kill(m_pid, SIGTERM);
    }

private:
    int m_pid = 0;
};

class FakeBluez {
public:
    FakeBluez() : m_bus(sdbus::createSystemBusConnection("org.bluez"))
    {
        m_root = object("/");
        m_root->addObjectManager();
        m_root->finishRegistration();
        m_adapter = object("/org/bluez/hci0");
        m_adapter->registerProperty("Address").onInterface(A).withGetter([] { return std::string("00:1A:7D:DA:71:13"); });
        m_adapter->registerProperty("Powered").onInterface(A).withGetter([this] { return m_powered; });
        m_adapter->registerMethod("SetDiscoveryFilter").onInterface(A).implementedAs([](std::map<std::string, sdbus::Variant>) {});
        m_adapter->registerMethod("StopDiscovery").onInterface(A).implementedAs([] {});
        m_adapter->registerMethod("StartDiscovery").onInterface(A).implementedAs([this] { addDevice(); });
        m_adapter->finishRegistration();
        m_bus->enterEventLoopAsync();
    }
    ~FakeBluez() { m_bus->leaveEventLoop(); }

private:
    std::unique_ptr<sdbus::IObject> object(const std::string &path) { return sdbus::createObject(*m_bus, path); }
    void changed(sdbus::IObject &target, const char *interface, const std::vector<std::string> &names)
    {
        target.emitPropertiesChangedSignal(interface, names);
    }
    void addDevice()
    {
        if (m_device)
            return;
        m_device = object(kDev);
        m_device->registerProperty("Name").onInterface(D).withGetter([] { return std::string("ZOR-50"); });
        m_device->registerProperty("Address").onInterface(D).withGetter([] { return std::string("AA:BB:CC:DD:EE:01"); });
        m_device->registerProperty("Adapter").onInterface(D).withGetter([] { return sdbus::ObjectPath("/org/bluez/hci0"); });
        m_device->registerProperty("RSSI").onInterface(D).withGetter([] { return int16_t(-42); });
        m_device->registerProperty("Connected").onInterface(D).withGetter([this] { return m_connected; });
        m_device->registerProperty("ServicesResolved").onInterface(D).withGetter([this] { return m_connected; });
        m_device->registerMethod("Connect").onInterface(D).implementedAs([this] { setConnected(true); });
        m_device->registerMethod("Disconnect").onInterface(D).implementedAs([this] { setConnected(false); });
        m_device->finishRegistration();
        m_device->emitInterfacesAddedSignal();
    }
    void setConnected(bool connected)
    {
        if (!m_service)
            addGatt();
        m_connected = connected;
        changed(*m_device, D, {"Connected", "ServicesResolved"});
    }
    void addGatt()
    {
        m_service = object(kDev + "/service000a");
        m_service->registerProperty("UUID").onInterface(S).withGetter([] { return std::string("7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5"); });
        m_service->registerProperty("Device").onInterface(S).withGetter([] { return sdbus::ObjectPath(kDev); });
        m_service->finishRegistration();
        m_service->emitInterfacesAddedSignal();
        m_characteristic = object(kDev + "/service000a/char000b");
        sdbus::IObject &c = *m_characteristic;
        c.registerProperty("UUID").onInterface(C).withGetter([] { return std::string("7c3e0002-91b2-4d5a-8e61-2f04c3a9d7b5"); });
        c.registerProperty("Service").onInterface(C).withGetter([] { return sdbus::ObjectPath(kDev + "/service000a"); });
        c.registerProperty("Flags").onInterface(C).withGetter([] { return std::vector<std::string>{"write", "notify"}; });
        c.registerProperty("Notifying").onInterface(C).withGetter([this] { return m_notifying; });
        c.registerProperty("Value").onInterface(C).withGetter([this] { return m_value; });
        c.registerMethod("StartNotify").onInterface(C).implementedAs([this] {
            m_notifying = true;
            changed(*m_characteristic, C, {"Notifying"});
        });
        c.registerMethod("WriteValue").onInterface(C).implementedAs([this](Bytes value, std::map<std::string, sdbus::Variant>) {
            onWrite(std::move(value));
        });
        c.finishRegistration();
        c.emitInterfacesAddedSignal();
    }
    void onWrite(Bytes value)
    {
        if (value == Bytes{0xDD}) {
            setConnected(false);
        } else if (value == Bytes{0xFF}) {
            m_powered = false;
            changed(*m_adapter, A, {"Powered"});
        } else {
            m_value.assign(value.rbegin(), value.rend());
            changed(*m_characteristic, C, {"Value"});
        }
    }

    std::unique_ptr<sdbus::IConnection> m_bus;
    std::unique_ptr<sdbus::IObject> m_root, m_adapter, m_device, m_service, m_characteristic;
    bool m_powered = true, m_connected = false, m_notifying = false;
    Bytes m_value;
};

std::unique_ptr<BluetoothLEManager> bluezManager()
{
    return std::make_unique<BluetoothLEManager>(std::make_unique<BluezCentral>());
}

TEST(BluezCentral, WithoutBluezOrWithoutABusThereIsNoBluetooth)
{
    PrivateBus bus;
    for (bool anyBus : {true, false}) {
        if (!anyBus)
            setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        auto manager = bluezManager();
        EXPECT_FALSE(manager->IsBluetoothLESupported());
        std::vector<IBluetoothLEManager::DeviceInfo> devices;
        manager->ScanForDevices(300, devices);
        EXPECT_TRUE(devices.empty());
        EXPECT_FALSE(manager->ConnectToDevice("ZOR-50", ""));
    }
}

TEST(BluezCentral, ConnectsExchangesAndTellsEachWayTheLinkEnds)
{
    PrivateBus bus;
    using Record = std::function<void(bool)>;
    struct Case {
        const char *name;
        std::function<void(BluetoothLEManager &, std::unique_ptr<FakeBluez> &, Record)> end;
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
        {"dropped", [](BluetoothLEManager &m, auto &, Record) { m.SendData({0xDD}, 3, 0); }, {true, false}, true},
        {"radio off", [](BluetoothLEManager &m, auto &, Record) { m.SendData({0xFF}, 3, 0); }, {true, false}, false},
        {"org.bluez gone", [](BluetoothLEManager &, auto &fake, Record) { fake.reset(); }, {true, false}, false},
    };
    for (const Case &c : cases) {
        auto fake = std::make_unique<FakeBluez>();
        auto manager = bluezManager();
        std::vector<IBluetoothLEManager::DeviceInfo> devices;
        manager->ScanForDevices(200, devices);
        ASSERT_EQ(devices.size(), 1u) << c.name;
        EXPECT_EQ(devices[0].address, "AA:BB:CC:DD:EE:01");
        EXPECT_EQ(devices[0].bluetoothAddress, 0xAABBCCDDEE01);
        EXPECT_EQ(devices[0].rssi, -42);
        std::string host;
        manager->GetLocalBluetoothMacAddress(host);
        EXPECT_EQ(host, "00:1a:7d:da:71:13");

        std::mutex mutex;
        std::vector<bool> states;
        const Record record = [&](bool state) {
            std::lock_guard<std::mutex> lock(mutex);
            states.push_back(state);
        };
        manager->ConnectStateCallbackFunc(record);
        ASSERT_TRUE(manager->ConnectToDevice("ZOR-50", "")) << c.name;
        manager->setIsRead(true);
        ASSERT_TRUE(manager->SendData({1, 2, 3}, 3, 0));
        ASSERT_TRUE(manager->WaitForDataAndProcess()) << c.name;
        Bytes answer;
        manager->GetReceivedData(answer);
        EXPECT_EQ(answer, (Bytes{3, 2, 1}));

        c.end(*manager, fake, record);
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(manager->IsBluetoothLESupported(), c.supportedAfter) << c.name;
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(states, c.states) << c.name;
    }
}

} // namespace
