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
    int stopConnects = 0;

    void start(Listener &listener) override { m_listener = &listener; }
    bool isPoweredOn() override { return true; }
    int startScanning() override { return 0; }
    void stopScanning() override {}
    void getDiscoveredPeripherals(std::vector<DeviceInfo> &devices) override
    {
        devices.insert(devices.end(), discovered.begin(), discovered.end());
    }
    int startConnect(const std::string &name) override
    {
        if (throwOnConnect)
            throw std::runtime_error("platform failure");
        return name == "ZOR" ? startResult : -1;
    }
    void stopConnect() override { ++stopConnects; }
    bool isConnectSuccess() override { return connectSuccess; }
    void sendMessage(const Bytes &) override {}
    void getLocalMacAddress(std::string &) override {}
    void waitForEvents(std::chrono::milliseconds) override
    {
        ++waits;
        auto [first, last] = events.equal_range(waits);
        for (auto event = first; event != last; ++event)
            event->second(*m_listener);
        events.erase(first, last);
    }
    void sleepFor(std::chrono::milliseconds) override {}
    bool isEventThread() const override { return eventThread; }

private:
    Listener *m_listener = nullptr;
};

const Event stateReported = [](BleCentral::Listener &l) { l.onCentralManagerUpdateState(); };
const Event connectCompleted = [](BleCentral::Listener &l) { l.onPeripheralConnectCompleted(); };
const Event linkLost = [](BleCentral::Listener &l) { l.onPeripheralDisconnect(); };
Event notified(Bytes data)
{
    return [data](BleCentral::Listener &l) { l.onPeripheralNotified(data); };
}

class ManagerTest : public ::testing::Test {
protected:
    // The central reports its state in the third cycle of construction.
    void SetUp() override
    {
        auto owned = std::make_unique<ScriptedCentral>();
        central = owned.get();
        central->events.emplace(3, stateReported);
        manager = std::make_unique<BluetoothLEManager>(std::move(owned));
        EXPECT_EQ(central->waits, 3);
        central->waits = 0;
        central->events.clear();
    }
    // Schedules an event relative to the waits made so far.
    void inCycle(int cycle, Event event)
    {
        central->events.emplace(central->waits + cycle, std::move(event));
    }
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
    const std::pair<uint32_t, int> cases[] = {{0, 0}, {99, 0}, {250, 2}};
    for (const auto &[durationMs, cycles] : cases) {
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
    constexpr int kThrows = 1;
    struct Case {
        int completesIn; // 0: never
        int startResult;
        bool success;
        bool connects;
        int waits;
        const char *lastLine;
    };
    // Each connect takes the manager lock: one left held would block the next.
    const Case cases[] = {
        {100, 0, true, true, 100, "ConnectToDevice ZOR success"},
        {0, kThrows, true, false, 0, "ConnectToDevice caught exception!"},
        {101, 0, true, false, 100, "Connect To Device timeout after 10 seconds"},
        {4, 0, false, false, 4, "ConnectToDevice ZOR failed"},
        {0, -1, true, false, 0, "ConnectToDevice: ZOR"},
    };
    manager->ConnectStateCallbackFunc(recordState);
    for (const Case &c : cases) {
        central->waits = 0;
        central->events.clear();
        central->startResult = c.startResult;
        central->throwOnConnect = c.startResult == kThrows;
        central->connectSuccess = c.success;
        if (c.completesIn)
            inCycle(c.completesIn, connectCompleted);
        callbackStates.clear();
        EXPECT_EQ(manager->ConnectToDevice("ZOR", ""), c.connects) << c.completesIn;
        EXPECT_EQ(central->waits, c.waits) << c.completesIn;
        EXPECT_EQ(callbackStates, c.connects ? std::vector<bool>{true} : std::vector<bool>{});
        EXPECT_EQ(lines("ConnectToDevice").back(), c.lastLine);
    }
}

TEST_F(ManagerTest, DataWaitTakesNotificationsUpToTheLastTwoCycles)
{
    struct Case {
        int arrivesIn;
        unsigned char copies; // the last one is kept
        bool reading;
        bool firstWait;
        int firstWaits;
        bool nextWaitAtOnce; // else the next wait times out
    };
    const Case cases[] = {
        {1, 1, true, true, 1, false},     {1, 2, true, true, 1, false},     {498, 1, true, true, 498, false},
        {499, 1, true, false, 499, true}, {500, 1, true, false, 500, true}, {1, 1, false, false, 500, false},
    };
    for (const Case &c : cases) {
        manager->setIsRead(c.reading);
        central->waits = 0;
        central->events.clear();
        const unsigned char tag = static_cast<unsigned char>(c.arrivesIn);
        for (unsigned char copy = 1; copy <= c.copies; ++copy)
            inCycle(c.arrivesIn, notified({copy, tag}));
        EXPECT_EQ(manager->WaitForDataAndProcess(), c.firstWait) << c.arrivesIn;
        EXPECT_EQ(central->waits, c.firstWaits) << c.arrivesIn;
        central->waits = 0;
        EXPECT_EQ(manager->WaitForDataAndProcess(), c.nextWaitAtOnce) << c.arrivesIn;
        EXPECT_EQ(central->waits, c.nextWaitAtOnce ? 0 : 500) << c.arrivesIn;
        Bytes received;
        manager->GetReceivedData(received);
        if (c.reading) {
            EXPECT_EQ(received, (Bytes{c.copies, tag}));
        }
    }
    EXPECT_EQ(lines("WaitForDataAndProcess").back(), "===== Debug: Data waiting timed out after 1 seconds.");
}

TEST_F(ManagerTest, LinkLossReachesTheCallbackUntilADisconnectEmptiesIt)
{
    manager->ConnectStateCallbackFunc(recordState);
    inCycle(1, linkLost);
    manager->WaitForDataAndProcess();
    EXPECT_EQ(callbackStates, std::vector<bool>{false});

    manager->DisconnectFromDevice(); // not connected: still empties the callback
    EXPECT_EQ(central->stopConnects, 1);
    inCycle(1, linkLost);
    manager->WaitForDataAndProcess();
    EXPECT_EQ(callbackStates, std::vector<bool>{false});
    const std::vector<std::string> expected = {"Peripheral disconnected", "Disconnect callback, state: false",
                                               "Peripheral disconnected",
                                               "s_connectStatusCallback is NULL, ignore"};
    EXPECT_EQ(lines("onPeripheralDisconnect"), expected);
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

} // namespace
