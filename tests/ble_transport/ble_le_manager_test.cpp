// The manager's cycles in virtual time, over a central whose events are
// scripted by the cycle (the n-th event wait) in which they arrive.
#include "ble_transport/ble_le_manager.h"

#include "log_lines.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <stdexcept>

namespace {

using Bytes = std::vector<unsigned char>;
using Event = std::function<void(BleCentral::Listener &)>;

class ScriptedCentral : public BleCentral {
public:
    std::multimap<int, Event> events; // by the wait (1, 2, ...) that lets them run
    int startResult = 0;
    bool throwOnConnect = false;
    bool connectSuccess = true;
    std::vector<DeviceInfo> discovered;
    int waits = 0;
    bool eventThread = false;
    std::vector<std::string> calls;

    void start(Listener &listener) override { m_listener = &listener; }
    bool isPoweredOn() override { return true; }
    int startScanning() override
    {
        calls.push_back("startScanning");
        return 0;
    }
    void stopScanning() override { calls.push_back("stopScanning"); }
    void getDiscoveredPeripherals(std::vector<DeviceInfo> &devices) override
    {
        devices.insert(devices.end(), discovered.begin(), discovered.end());
    }
    int startConnect(const std::string &name) override
    {
        if (throwOnConnect)
            throw std::runtime_error("platform failure");
        calls.push_back("startConnect " + name);
        return startResult;
    }
    void stopConnect() override { calls.push_back("stopConnect"); }
    bool isConnectSuccess() override { return connectSuccess; }
    void sendMessage(const Bytes &) override { calls.push_back("sendMessage"); }
    void getLocalMacAddress(std::string &) override {}
    void waitForEvents(std::chrono::milliseconds) override
    {
        ++waits;
        auto [first, last] = events.equal_range(waits);
        for (auto event = first; event != last; ++event)
            event->second(*m_listener);
    }
    void sleepFor(std::chrono::milliseconds) override {}
    bool isEventThread() const override { return eventThread; }

private:
    Listener *m_listener = nullptr;
};

Event stateReported() { return [](BleCentral::Listener &l) { l.onCentralManagerUpdateState(); }; }
Event connectCompleted() { return [](BleCentral::Listener &l) { l.onPeripheralConnectCompleted(); }; }
Event notified(Bytes data) { return [data](BleCentral::Listener &l) { l.onPeripheralNotified(data); }; }
Event linkLost() { return [](BleCentral::Listener &l) { l.onPeripheralDisconnect(); }; }

class ManagerTest : public ::testing::Test {
protected:
    // The central reports its state in the third cycle of construction.
    void SetUp() override
    {
        auto owned = std::make_unique<ScriptedCentral>();
        central = owned.get();
        central->events.emplace(3, stateReported());
        manager = std::make_unique<BluetoothLEManager>(std::move(owned));
        EXPECT_EQ(central->waits, 3);
        central->waits = 0;
        central->events.clear();
    }
    // Schedules an event relative to the waits made so far.
    void inCycle(int cycle, Event event) { central->events.emplace(central->waits + cycle, std::move(event)); }
    std::vector<std::string> lines(const char *function) const
    {
        return log.messages("BluetoothLEManagerLinux", function);
    }

    zor_test::LogLines log;
    ScriptedCentral *central = nullptr;
    std::unique_ptr<BluetoothLEManager> manager;
    std::vector<bool> callbackStates;
    std::function<void(bool)> recordState = [this](bool state) { callbackStates.push_back(state); };
};

TEST_F(ManagerTest, ScanRunsOneCycleForEveryWholeTenthOfASecondAndAppends)
{
    for (const auto &[durationMs, cycles] : std::vector<std::pair<uint32_t, int>>{{0, 0}, {99, 0}, {250, 2}}) {
        central->waits = 0;
        central->discovered = {{"ZOR-1", "aa:bb", "/dev1", -40, 1}};
        std::vector<IBluetoothLEManager::DeviceInfo> devices{{"kept", "", "", 0, 0}};
        manager->ScanForDevices(durationMs, devices);
        EXPECT_EQ(central->waits, cycles) << durationMs;
        ASSERT_EQ(devices.size(), 2u);
        EXPECT_EQ(devices[0].name, "kept");
        EXPECT_EQ(devices[1].name, "ZOR-1");
    }
    EXPECT_EQ(lines("ScanForDevices").back(), "stopScanning");
    EXPECT_EQ(lines("ScanForDevices").front(), "Scanning for devices: duration = 0ms (0.00 sec)");
}

TEST_F(ManagerTest, ConnectWaitsAtMostOneHundredCycles)
{
    struct Case {
        int completesIn; // 0: never
        int startResult;
        bool success;
        bool connects;
        int waits;
        const char *lastLine;
    };
    const Case cases[] = {
        {100, 0, true, true, 100, "ConnectToDevice ZOR success"},
        {101, 0, true, false, 100, "Connect To Device timeout after 10 seconds"},
        {4, 0, false, false, 4, "ConnectToDevice ZOR failed"},
        {0, -1, true, false, 0, "ConnectToDevice: ZOR"},
    };
    manager->ConnectStateCallbackFunc(recordState);
    for (const Case &c : cases) {
        central->waits = 0;
        central->events.clear();
        central->startResult = c.startResult;
        central->connectSuccess = c.success;
        if (c.completesIn)
            inCycle(c.completesIn, connectCompleted());
        callbackStates.clear();
        EXPECT_EQ(manager->ConnectToDevice("ZOR", ""), c.connects) << c.completesIn;
        EXPECT_EQ(central->waits, c.waits) << c.completesIn;
        EXPECT_EQ(callbackStates, c.connects ? std::vector<bool>{true} : std::vector<bool>{});
        EXPECT_EQ(lines("ConnectToDevice").back(), c.lastLine);
    }
}

TEST_F(ManagerTest, AnExceptionInConnectIsCaughtAndReleasesTheLock)
{
    central->throwOnConnect = true;
    EXPECT_FALSE(manager->ConnectToDevice("ZOR", "ignored"));
    EXPECT_EQ(lines("ConnectToDevice").back(), "ConnectToDevice caught exception!");
    manager->setIsRead(true); // would block on a lock left held
}

TEST_F(ManagerTest, DataWaitTakesNotificationsUpToTheLastTwoCycles)
{
    struct Case {
        int arrivesIn;
        bool reading;
        bool firstWait;
        int firstWaits;
        bool nextWaitAtOnce;
    };
    const Case cases[] = {
        {1, true, true, 1, false},
        {498, true, true, 498, false},
        {499, true, false, 499, true},
        {500, true, false, 500, true},
        {1, false, false, 500, false},
    };
    for (const Case &c : cases) {
        manager->setIsRead(c.reading);
        central->waits = 0;
        central->events.clear();
        inCycle(c.arrivesIn, notified({0x01, static_cast<unsigned char>(c.arrivesIn)}));
        EXPECT_EQ(manager->WaitForDataAndProcess(), c.firstWait) << c.arrivesIn;
        EXPECT_EQ(central->waits, c.firstWaits) << c.arrivesIn;
        central->waits = 0;
        if (c.nextWaitAtOnce) {
            EXPECT_TRUE(manager->WaitForDataAndProcess());
            EXPECT_EQ(central->waits, 0);
        }
        Bytes received;
        manager->GetReceivedData(received);
        if (c.reading) {
            EXPECT_EQ(received, (Bytes{0x01, static_cast<unsigned char>(c.arrivesIn)}));
        }
    }
    EXPECT_EQ(lines("WaitForDataAndProcess").back(), "===== Debug: Data waiting timed out after 1 seconds.");
}

TEST_F(ManagerTest, TwoNotificationsBeforeAWaitLeaveOnlyTheSecond)
{
    manager->setIsRead(true);
    inCycle(1, notified({1}));
    inCycle(1, notified({2}));
    std::vector<IBluetoothLEManager::DeviceInfo> devices;
    manager->ScanForDevices(100, devices); // one cycle, in which both arrive
    EXPECT_TRUE(manager->WaitForDataAndProcess());
    EXPECT_FALSE(manager->WaitForDataAndProcess());
    Bytes received{9, 9, 9};
    manager->GetReceivedData(received);
    EXPECT_EQ(received, Bytes{2});
}

TEST_F(ManagerTest, LinkLossReachesTheCallbackUntilADisconnectEmptiesIt)
{
    manager->ConnectStateCallbackFunc(recordState);
    inCycle(1, linkLost());
    manager->WaitForDataAndProcess();
    EXPECT_EQ(callbackStates, std::vector<bool>{false});

    manager->DisconnectFromDevice(); // not connected: still empties the callback
    EXPECT_EQ(central->calls.back(), "stopConnect");
    inCycle(1, linkLost());
    manager->WaitForDataAndProcess();
    EXPECT_EQ(callbackStates, std::vector<bool>{false});
    EXPECT_EQ(lines("onPeripheralDisconnect"),
              (std::vector<std::string>{"Peripheral disconnected", "Disconnect callback, state: false",
                                        "Peripheral disconnected", "s_connectStatusCallback is NULL, ignore"}));
}

TEST_F(ManagerTest, OnTheEventThreadWaitsEndAtOnce)
{
    central->eventThread = true;
    manager->setIsRead(true);
    EXPECT_FALSE(manager->ConnectToDevice("ZOR", ""));
    EXPECT_FALSE(manager->WaitForDataAndProcess());
    EXPECT_EQ(central->waits, 0);
    EXPECT_EQ(lines("WaitForDataAndProcess").back(), "===== Debug: Data waiting timed out after 1 seconds.");
}

TEST_F(ManagerTest, SendReportsSuccessWhateverTheWriteDoes)
{
    EXPECT_TRUE(manager->SendData({1, 2, 3}, 3, 0));
    EXPECT_EQ(central->calls, std::vector<std::string>{"sendMessage"});
}

} // namespace
