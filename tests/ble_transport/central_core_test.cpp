// The manager and the shared central logic over a plain fake platform
// central whose events come on a thread of its own, as a platform's do.
// Limits the cases do not reach are an hour long: a wait that did not wake
// on its event would run into the test's time-out.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/host_address.h"

#include "log_lines.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<unsigned char>;
using Calls = std::vector<std::string>;
using ble::PlatformEvents;

const std::string kService = "7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5"; // as BlueZ writes it

// A peripheral "/p1" named "ZOR" (and others as set), whose connection
// sequence runs to its end unless told otherwise, and whose characteristic
// answers each write with what `responder` gives.
class FakePlatform final : public ble::PlatformCentral {
public:
    std::vector<ble::Advertisement> advertised{{"/p0", "", "", 0, 0}, {"/p1", "ZOR", "AA", 1, -40}};
    std::vector<ble::GattCharacteristic> characteristics{{"/c1", "c1", true, true}, {"/c2", "c2", true, true}};
    bool subscriptionTurnsOn = true;
    std::function<std::vector<Bytes>(const Bytes &)> responder = [](const Bytes &data) {
        return std::vector<Bytes>{data};
    };

    ~FakePlatform() override
    {
        post(nullptr);
        m_thread.join();
    }

    // Runs `event` on the event thread.
    void post(std::function<void(PlatformEvents &)> event)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(std::move(event));
        m_wake.notify_one();
    }
    Calls calls()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    void start(PlatformEvents &events) override
    {
        m_events = &events;
        m_thread = std::thread([this] { run(); });
        post([](PlatformEvents &e) { e.onRadioState(ble::RadioState::PoweredOn); });
    }
    void startScan() override
    {
        record("scan");
        for (const ble::Advertisement &seen : advertised)
            post([seen](PlatformEvents &e) { e.onDiscovered(seen); });
    }
    void stopScan() override
    {
        // Answered late: the scan must not end before.
        post([this](PlatformEvents &e) {
            std::this_thread::sleep_for(20ms);
            record("scan stopped");
            e.onScanStopped();
        });
    }
    void connect(const std::string &p) override
    {
        record("connect " + p);
        post([p](PlatformEvents &e) { e.onConnected(p); });
    }
    void disconnect(const std::string &p) override
    {
        record("disconnect " + p);
        post([this, p](PlatformEvents &e) {
            e.onDisconnected(p, std::nullopt);
            record("disconnect answered");
            e.onDisconnectAnswered(p);
        });
    }
    void discoverServices(const std::string &p) override
    {
        post([p](PlatformEvents &e) { e.onServicesDiscovered(p, {{"/s0", "180a"}, {"/s1", kService}}, {}); });
    }
    void discoverCharacteristics(const std::string &p, const std::string &s) override
    {
        record("characteristics " + s);
        post([this, p](PlatformEvents &e) { e.onCharacteristicsDiscovered(p, characteristics, {}); });
    }
    void subscribe(const std::string &p, const std::string &c) override
    {
        record("subscribe " + c);
        post([this, p, c](PlatformEvents &e) { e.onNotificationState(p, c, subscriptionTurnsOn, {}); });
    }
    void write(const std::string &p, const std::string &c, const Bytes &data) override
    {
        record("write " + c);
        post([this, p, c, data](PlatformEvents &e) {
            e.onWritten({});
            for (const Bytes &answer : responder(data))
                e.onValue(p, c, answer, {});
        });
    }
    std::optional<std::string> hostAddress() override { return std::string("00:11:22:33:44:55"); }

private:
    void record(const std::string &call)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(call);
    }
    void run()
    {
        for (;;) {
            std::function<void(PlatformEvents &)> event;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_wake.wait(lock, [this] { return !m_queue.empty(); });
                event = std::move(m_queue.front());
                m_queue.pop_front();
            }
            if (!event)
                return;
            event(*m_events);
        }
    }

    PlatformEvents *m_events = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void(PlatformEvents &)>> m_queue;
    Calls m_calls;
    std::thread m_thread;
};

// The connection states a callback heard, from the event thread.
class States {
public:
    std::function<void(bool)> callback()
    {
        return [this](bool up) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_states.push_back(up);
            m_changed.notify_all();
        };
    }
    // What was heard once there are `count` states (or after 10 s).
    std::vector<bool> once(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, 10s, [&] { return m_states.size() >= count; });
        return m_states;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<bool> m_states;
};

BleWaitLimits hourLong()
{
    BleWaitLimits limits;
    limits.connect = limits.data = limits.settle = limits.answer = std::chrono::hours(1);
    limits.settle = 0ms;
    return limits;
}

struct Central {
    explicit Central(BleWaitLimits limits = hourLong(), std::function<void(FakePlatform &)> setUp = {})
    {
        auto owned = std::make_unique<FakePlatform>();
        platform = owned.get();
        if (setUp)
            setUp(*platform);
        manager = std::make_unique<BluetoothLEManager>(std::move(owned), limits);
    }
    bool connect(const std::string &name = "ZOR")
    {
        std::vector<IBluetoothLEManager::DeviceInfo> found;
        manager->ScanForDevices(0, found);
        return manager->ConnectToDevice(name, "");
    }
    // Sends one request and returns what answered it, or nothing.
    std::optional<Bytes> exchange(const Bytes &request)
    {
        manager->setIsRead(true);
        if (!manager->SendData(request, 3, 0) || !manager->WaitForDataAndProcess())
            return std::nullopt;
        Bytes answer;
        manager->GetReceivedData(answer);
        return answer;
    }
    FakePlatform *platform;
    std::unique_ptr<BluetoothLEManager> manager;
};

TEST(Central, ScanListsNamedPeripheralsAppendingAndEndsOnlyOnceDiscoveryHasStopped)
{
    Central central;
    std::vector<IBluetoothLEManager::DeviceInfo> found(1);
    central.manager->ScanForDevices(30, found);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].name, "ZOR");
    EXPECT_EQ(found[1].rssi, -40);
    EXPECT_EQ(central.platform->calls(), (Calls{"scan", "scan stopped"}));
}

TEST(Central, ConnectRunsTheSequenceOnTheLastWritableCharacteristicAndAnswersWakeTheWait)
{
    Central central;
    EXPECT_FALSE(central.connect("nobody"));
    ASSERT_TRUE(central.connect());
    EXPECT_EQ(central.platform->calls(),
              (Calls{"scan", "scan stopped", "scan", "scan stopped", "connect /p1", "characteristics /s1",
                     "subscribe /c1", "subscribe /c2"}));
    EXPECT_EQ(central.exchange({1, 2, 3}), (Bytes{1, 2, 3}));
    EXPECT_EQ(central.platform->calls().back(), "write /c2");

    // Two answers to one request: one wait takes them, the buffer holds the second.
    central.platform->responder = [](const Bytes &) { return std::vector<Bytes>{{7}, {8}}; };
    EXPECT_EQ(central.exchange({4}), (Bytes{8}));
    std::string address;
    central.manager->GetLocalBluetoothMacAddress(address);
    EXPECT_EQ(address, "00:11:22:33:44:55");
}

TEST(Central, AnswersThatComeTooLateOrWhileNotReadingAreNotTaken)
{
    BleWaitLimits limits = hourLong();
    limits.data = limits.lateData = 100ms; // every arrival counts as late
    Central central(limits);
    ASSERT_TRUE(central.connect());
    central.platform->responder = [](const Bytes &) { return std::vector<Bytes>{}; };
    central.manager->setIsRead(true);
    ASSERT_TRUE(central.manager->SendData({1}, 3, 0));
    std::thread answer([&] {
        std::this_thread::sleep_for(20ms);
        central.platform->post([](PlatformEvents &e) { e.onValue("/p1", "/c2", {9}, {}); });
    });
    EXPECT_FALSE(central.manager->WaitForDataAndProcess());
    answer.join();
    // The late answer is left for the next wait.
    EXPECT_TRUE(central.manager->WaitForDataAndProcess());

    central.manager->setIsRead(false);
    EXPECT_TRUE(central.manager->SendData({2}, 3, 0));
    EXPECT_FALSE(central.manager->WaitForDataAndProcess());
}

TEST(Central, ALostLinkWakesTheWaitsOnItAndLaterSendsFailAtOnce)
{
    Central central;
    ASSERT_TRUE(central.connect());
    States states;
    central.manager->ConnectStateCallbackFunc(states.callback());
    central.platform->responder = [](const Bytes &) { return std::vector<Bytes>{}; }; // never answers

    central.manager->setIsRead(true);
    ASSERT_TRUE(central.manager->SendData({1}, 3, 0));
    central.platform->post([](PlatformEvents &e) { e.onDisconnected("/p1", std::string("Connection lost")); });
    EXPECT_FALSE(central.manager->WaitForDataAndProcess());
    const size_t writes = central.platform->calls().size();
    EXPECT_FALSE(central.manager->SendData({2}, 3, 0));
    EXPECT_EQ(central.platform->calls().size(), writes);
    EXPECT_EQ(states.once(1), std::vector<bool>{false});

    // A disconnect that was asked for is no lost link: the callback hears nothing.
    ASSERT_TRUE(central.connect());
    central.manager->ConnectStateCallbackFunc(states.callback());
    central.manager->DisconnectFromDevice();
    EXPECT_EQ(central.platform->calls().back(), "disconnect answered");
    EXPECT_EQ(states.once(1), std::vector<bool>{false});
}

TEST(Central, ASecondConnectEndsTheSessionThatHadTheLink)
{
    Central central;
    ASSERT_TRUE(central.connect());
    States first;
    central.manager->ConnectStateCallbackFunc(first.callback());
    ASSERT_TRUE(central.connect());
    EXPECT_EQ(first.once(1), std::vector<bool>{false});
    EXPECT_EQ(central.exchange({5}), (Bytes{5}));
}

TEST(Central, AConnectEndsAtOnceWhenTheLinkOrTheRadioGoesAndAtItsLimitOtherwise)
{
    BleWaitLimits limits = hourLong();
    limits.connect = 100ms;
    {
        Central central(limits, [](FakePlatform &p) { p.subscriptionTurnsOn = false; });
        zor_test::LogLines log;
        EXPECT_FALSE(central.connect());
        EXPECT_EQ(log.messages("BluetoothLEManagerLinux", "connect").back(),
                  "Connect To Device timeout after 10 seconds");
    }
    for (ble::RadioState radio : {ble::RadioState::PoweredOff, ble::RadioState::Unsupported}) {
        Central central(hourLong(), [](FakePlatform &p) { p.subscriptionTurnsOn = false; });
        std::thread fault([&] {
            std::this_thread::sleep_for(50ms);
            central.platform->post([radio](PlatformEvents &e) { e.onRadioState(radio); });
        });
        EXPECT_FALSE(central.connect());
        fault.join();
        EXPECT_FALSE(central.manager->IsBluetoothLESupported());
    }
    {
        Central central(hourLong(), [](FakePlatform &p) { p.subscriptionTurnsOn = false; });
        std::thread fault([&] {
            std::this_thread::sleep_for(50ms);
            central.platform->post([](PlatformEvents &e) { e.onDisconnected("/p1", std::string("gone")); });
        });
        EXPECT_FALSE(central.connect());
        fault.join();
    }
}

TEST(Central, CallsFromTheEventThreadNeverWaitForIt)
{
    Central central;
    ASSERT_TRUE(central.connect());
    std::promise<std::pair<bool, bool>> outcome;
    central.manager->ConnectStateCallbackFunc([&](bool) {
        // A client's callback calling back in: nothing can arrive meanwhile.
        outcome.set_value({central.manager->WaitForDataAndProcess(), central.manager->ConnectToDevice("ZOR", "")});
    });
    central.platform->post([](PlatformEvents &e) { e.onDisconnected("/p1", std::string("lost")); });
    EXPECT_EQ(outcome.get_future().get(), std::make_pair(false, false));
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
