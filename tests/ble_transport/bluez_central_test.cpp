// The BlueZ central under the manager, against a minimal org.bluez on a
// private dbus-daemon.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/linux/bluez_central.h"

#include "fake_bluez.h"
#include "log_lines.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace {

using zor_test::Bytes;
using zor_test::FakeBluez;
using zor_test::PrivateBus;
using namespace std::chrono_literals;

std::unique_ptr<BluetoothLEManager> bluezManager()
{
    return std::make_unique<BluetoothLEManager>(std::make_unique<BluezCentral>());
}

TEST(BluezCentral, WithoutBluezOrWithoutABusThereIsNoBluetooth)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.started());
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

TEST(BluezCentral, ADeviceVanishingMidConnectFailsTheAttemptAtOnce)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.started());
    FakeBluez fake;
    fake.vanishOnConnect();
    zor_test::LogLines log;
    auto manager = bluezManager();
    std::vector<IBluetoothLEManager::DeviceInfo> devices;
    manager->ScanForDevices(200, devices);
    EXPECT_FALSE(manager->ConnectToDevice("ZOR-50", ""));
    EXPECT_EQ(log.messages("BluetoothLEManagerLinux", "ConnectToDevice").back(), "ConnectToDevice ZOR-50 failed");
}

TEST(BluezCentral, ConnectsExchangesAndTellsEachWayTheLinkEnds)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.started());
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
        {"dropped", [](auto &m, auto &, Record) { m.SendData({0xDD}, 3, 0); }, {true, false}, true},
        {"radio off", [](auto &m, auto &, Record) { m.SendData({0xFF}, 3, 0); }, {true, false}, false},
        {"org.bluez gone", [](auto &, auto &fake, Record) { fake.reset(); }, {true, false}, false},
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
        // A lost link while a request waits, as when a move is stopped: the
        // event thread's own wait must not hold it up.
        const Record record = [&](bool state) {
            if (!state)
                manager->WaitForDataAndProcess();
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
