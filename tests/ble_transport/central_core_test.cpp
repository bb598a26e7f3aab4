// The shared central logic on scripted platform events: what it asks of the
// platform and what reaches the manager.
#include "ble_transport/central_core.h"

#include "log_lines.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Bytes = std::vector<unsigned char>;
using Calls = std::vector<std::string>;

class RecordingPlatform : public CentralCore, public BleCentral::Listener {
public:
    Calls calls; // platform hooks, in order
    Calls events; // what reached the listener

    void onCentralManagerUpdateState() override { events.push_back("state"); }
    void onPeripheralConnectCompleted() override
    {
        events.push_back(isConnectSuccess() ? "completed" : "failed");
    }
    void onPeripheralDisconnect() override { events.push_back("lost"); }
    void onPeripheralNotified(const Bytes &data) override
    {
        events.push_back("value " + std::to_string(data.size()));
    }

protected:
    void platformStart() override { onRadioState(RadioState::PoweredOn); }
    void platformStartScan() override { record("scan"); }
    void platformStopScan() override { record("stop scan"); }
    void platformConnect(const std::string &p) override { record("connect", p); }
    void platformCancelConnect(const std::string &p) override { record("cancel", p); }
    void platformDiscoverServices(const std::string &p) override { record("services", p); }
    void platformDiscoverCharacteristics(const std::string &p, const std::string &s) override
    {
        record("characteristics", p, s);
    }
    void platformSubscribe(const std::string &p, const std::string &c) override { record("subscribe", p, c); }
    void platformWrite(const std::string &p, const std::string &c, const Bytes &) override
    {
        record("write", p, c);
    }
    std::optional<std::string> platformHostAddress() override { return std::nullopt; }
    void settle(std::chrono::milliseconds pause) override { record("settle", std::to_string(pause.count())); }

private:
    template <typename... Parts>
    void record(const std::string &first, const Parts &...rest)
    {
        calls.push_back(first);
        ((calls.back() += " " + rest), ...);
    }
};

const std::string kService = "7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5"; // as BlueZ writes it
const CentralCore::GattCharacteristic kWriteNotify{"/p1/c1", "c1", true, true};

class CentralCoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        central.start(central);
        central.events.clear();
        central.onDiscovered({"/p1", "ZOR", "aa", 1, -40});
        central.onDiscovered({"/p2", "ZOR", "bb", 2, -50});
        central.onDiscovered({"/p3", "", "cc", 3, -60});
    }
    // Runs a connection to /p1 up to its subscription.
    void connectUpToSubscription(const std::vector<CentralCore::GattCharacteristic> &characteristics)
    {
        ASSERT_EQ(central.startConnect("ZOR"), 0);
        central.onConnected("/p1");
        central.onServicesDiscovered("/p1", {{"/p1/s0", "180a"}, {"/p1/s1", kService}}, std::nullopt);
        central.onCharacteristicsDiscovered("/p1", characteristics, std::nullopt);
    }
    void connect()
    {
        connectUpToSubscription({kWriteNotify});
        central.onNotificationState("/p1", "/p1/c1", true, std::nullopt);
    }
    std::vector<std::string> centralLines(const char *function) const
    {
        return log.messages("LinuxBlueZCentral", function);
    }

    zor_test::LogLines log;
    RecordingPlatform central;
};

TEST_F(CentralCoreTest, ListsNamedPeripheralsConnectsToTheFirstOfANameAndKeepsItOverAScan)
{
    std::vector<IBluetoothLEManager::DeviceInfo> devices;
    central.getDiscoveredPeripherals(devices);
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].uuid, "/p1");
    EXPECT_EQ(devices[1].address, "bb");
    EXPECT_EQ(devices[1].rssi, -50);
    EXPECT_EQ(central.startConnect(""), -1);
    EXPECT_EQ(central.startConnect("zor"), -1);

    connect(); // the first of the two named ZOR
    EXPECT_EQ(central.calls.front(), "connect /p1");
    EXPECT_EQ(central.startScanning(), 0);
    devices.clear();
    central.getDiscoveredPeripherals(devices);
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].uuid, "/p1");

    central.onRadioState(RadioState::Unsupported);
    EXPECT_EQ(central.startScanning(), -1);
    EXPECT_EQ(std::count(central.calls.begin(), central.calls.end(), "scan"), 1);
}

TEST_F(CentralCoreTest, ConnectionSequenceSubscribesTheLastWritableCharacteristicAndCompletesOnce)
{
    connectUpToSubscription({kWriteNotify, {"/p1/c2", "c2", true, false}, {"/p1/c3", "c3", false, true}});
    central.onNotificationState("/p1", "/p1/c1", true, std::nullopt);
    central.onNotificationState("/p1", "/p1/c1", true, std::nullopt);
    EXPECT_EQ(central.calls, (Calls{"connect /p1", "services /p1", "characteristics /p1 /p1/s1",
                                    "subscribe /p1 /p1/c1", "settle 1000", "settle 1000"}));
    EXPECT_EQ(central.events, Calls{"completed"});

    central.sendMessage({1, 2});
    EXPECT_EQ(central.calls.back(), "write /p1 /p1/c2");
    central.onValue("/p1", "/p1/c1", {1}, std::nullopt);
    central.onValue("/p1", "/p1/c2", {1, 2, 3}, std::nullopt);
    central.onValue("/p1", "/p1/c2", {1}, std::string("read failed"));
    EXPECT_EQ(central.events, (Calls{"completed", "value 3"}));
    EXPECT_EQ(centralLines("onValue"), Calls{"NOT found writable characteristic, ignore"});
}

TEST_F(CentralCoreTest, NotifyOnlyCharacteristicIsNeverSubscribed)
{
    connectUpToSubscription({{"/p1/c3", "c3", false, true}});
    EXPECT_EQ(central.calls.back(), "characteristics /p1 /p1/s1");
    EXPECT_TRUE(central.events.empty());
    central.sendMessage({1});
    EXPECT_EQ(centralLines("sendMessage"), Calls{"Error, NOT found writable characteristic"});
}

TEST_F(CentralCoreTest, AnErrorOnTheWayCompletesTheAttemptWithFailureOnce)
{
    const std::string error = "Operation failed";
    const std::vector<std::function<void(CentralCore &)>> failures = {
        [&](CentralCore &c) { c.onConnectFailed("/p1", error); },
        [&](CentralCore &c) { c.onServicesDiscovered("/p1", {{"/p1/s1", kService}}, error); },
        [&](CentralCore &c) { c.onCharacteristicsDiscovered("/p1", {}, error); },
        [&](CentralCore &c) { c.onNotificationState("/p1", "/p1/c1", false, error); },
    };
    for (const auto &fail : failures) {
        central.events.clear();
        ASSERT_EQ(central.startConnect("ZOR"), 0);
        fail(central);
        fail(central);
        central.onConnectFailed("/p2", error); // not the chosen peripheral
        EXPECT_EQ(central.events, Calls{"failed"});
    }
}

TEST_F(CentralCoreTest, OnlyLostLinksAndRadioOffReachTheManagerAndScanningRestarts)
{
    struct Case {
        const char *name;
        std::function<void(CentralCore &)> disconnect;
        Calls events;
        Calls calls;
    };
    const Case cases[] = {
        {"requested", [](CentralCore &c) { c.onDisconnected("/p1", std::nullopt); }, {}, {"scan"}},
        {"lost", [](CentralCore &c) { c.onDisconnected("/p1", std::string("lost")); }, {"lost"}, {"scan"}},
        {"radio off", [](CentralCore &c) { c.onRadioState(RadioState::PoweredOff); }, {"state", "lost"}, {}},
    };
    for (const Case &c : cases) {
        central.onDiscovered({"/p1", "ZOR", "aa", 1, -40});
        connect();
        central.calls.clear();
        central.events.clear();
        c.disconnect(central);
        central.onDisconnected("/p1", std::string("late report")); // already gone: ignored
        central.sendMessage({1}); // no current peripheral any more
        EXPECT_EQ(central.events, c.events) << c.name;
        EXPECT_EQ(central.calls, c.calls) << c.name;
        EXPECT_FALSE(central.isConnectSuccess()) << c.name;
        central.onRadioState(RadioState::PoweredOn);
    }
}

TEST(HostAddress, NamedInterfaceOrFirstNonLoopback)
{
    const std::vector<HostInterface> interfaces = {
        {"lo", {0, 0, 0, 0, 0, 0}, true},
        {"tun0", {}, false},
        {"eth0", {0x00, 0x1A, 0x2b, 0xff, 0x04, 0x05}, false},
        {"en0", {0xA0, 0xB1, 0xC2, 0xD3, 0xE4, 0xF5}, false},
    };
    EXPECT_EQ(interfaceAddress(interfaces, "en0"), "a0:b1:c2:d3:e4:f5");
    EXPECT_EQ(interfaceAddress(interfaces, "wlan0"), std::nullopt);
    EXPECT_EQ(interfaceAddress(interfaces, "tun0"), std::nullopt);
    EXPECT_EQ(firstNonLoopbackAddress(interfaces), "00:1a:2b:ff:04:05");
    EXPECT_EQ(firstNonLoopbackAddress({interfaces[0], interfaces[1]}), std::nullopt);
}

} // namespace
