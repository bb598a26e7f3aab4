// The focuser service over virtual focusers: retargets, losing and regaining
// a link with backoff, compensation yielding to a client's move, the
// maximum's limits, and snapshots read while the worker publishes.
#include "focuser_service.h"

#include "home_sandbox.h"
#include "sim/sim_control.h"

#ifdef ZOR_BLUEZ_SIM_PROGRAM
#include "private_bluez.h"
#endif

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

using namespace zorservice;
using namespace std::chrono_literals;

namespace {

// Waits (up to a generous limit, never a measure of speed) until `holds`
// is true of the focuser's snapshot; the last snapshot seen.
template <typename Condition>
Snapshot waitFor(Focuser &focuser, Condition holds, std::chrono::seconds limit = 30s)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    Snapshot s = focuser.snapshot();
    while (!holds(s) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(10ms);
        s = focuser.snapshot();
    }
    EXPECT_TRUE(holds(s)) << "position " << s.position << ", moving " << s.moving << ", link "
                          << static_cast<int>(s.link) << ", last error " << s.lastErrorText;
    return s;
}

// Runs a command and returns its code.
template <typename Command> int result(Command command)
{
    std::promise<int> code;
    command([&](int c) { code.set_value(c); });
    return code.get_future().get();
}

class ServiceTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        // Each test process keeps its own locks of the focusers it holds.
        setenv("XDG_RUNTIME_DIR", zor_test::sandboxHome().c_str(), 1);
        zorsim::reset();
        zorsim::DeviceConfig config;
        config.position = 1000;
        config.stepsPerSecond = 4000;
        zorsim::addDevice(config);
    }

    // The catalogue's first focuser, connected.
    std::shared_ptr<Focuser> connectFirst()
    {
        EXPECT_EQ(result([&](Done d) { service.rescanUsb(d); }), 0);
        const auto entries = service.catalogue();
        EXPECT_EQ(entries.size(), 1u);
        auto focuser = service.focuser(entries.at(0).key);
        EXPECT_EQ(result([&](Done d) { focuser->connect(d); }), 0) << focuser->snapshot().lastErrorText;
        return focuser;
    }

    Service service{"service-test"};
};

TEST(ServiceTexts, ResultTextsAndReconnectDelays)
{
    EXPECT_EQ(resultText(5), "ZOR_ERROR_MOVING (5): the focuser is moving");
    EXPECT_EQ(resultText(kBelowPosition).rfind("below the position (1003)", 0), 0u);
    EXPECT_NE(resultText(777).find("does not know"), std::string::npos);
    const std::pair<int, int> delays[] = {{0, 1}, {1, 2}, {2, 5}, {3, 10}, {4, 30}, {9, 30}};
    for (auto [attempt, seconds] : delays)
        EXPECT_EQ(reconnectDelay(attempt).count(), seconds) << "attempt " << attempt;
}

TEST_F(ServiceTest, CatalogueKeysAndConnectedSnapshot)
{
    auto focuser = connectFirst();
    const Snapshot s = focuser->snapshot();
    EXPECT_EQ(focuser->key(), "usb:" + s.identity.serial);
    EXPECT_EQ(s.link, Link::Connected);
    EXPECT_EQ(s.position, 1000);
    EXPECT_EQ(s.stepRange, 600000);
    EXPECT_EQ(s.maxStep, zorsim::state(0).maxStep);
    ASSERT_TRUE(s.temperature);
    EXPECT_NEAR(*s.temperature, 20.0, 0.1);
    EXPECT_EQ(service.focuser(focuser->key()), focuser) << "one object per key";
    EXPECT_EQ(result([&](Done d) { service.focuser("usb:0000")->connect(d); }), kNotFound);
}

TEST_F(ServiceTest, ANewTargetWhileMovingStopsThenMoves)
{
    auto focuser = connectFirst();
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(200000, d); }), 0);
    waitFor(*focuser, [](const Snapshot &s) { return s.moving && s.position > 3000; });
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(2000, d); }), 0);
    const Snapshot s = waitFor(*focuser, [](const Snapshot &s) { return !s.moving && s.position == 2000; });
    EXPECT_EQ(s.target, 2000);
    EXPECT_EQ(s.lastError, 0) << s.lastErrorText;
    EXPECT_EQ(zorsim::state(0).position, 2000);
    // Relative moves count from the position.
    EXPECT_EQ(result([&](Done d) { focuser->moveBy(-500, d); }), 0);
    waitFor(*focuser, [](const Snapshot &s) { return !s.moving && s.position == 1500; });
}

TEST_F(ServiceTest, MaximumStaysWithinTheRangeAndAboveThePosition)
{
    auto focuser = connectFirst();
    const struct {
        int maximum;
        int code;
    } cases[] = {{999, kBelowPosition}, {0, kOutOfRange}, {600001, kOutOfRange}, {50000, 0}, {600000, 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(result([&](Done d) { focuser->setMaxStep(c.maximum, d); }), c.code) << c.maximum;
        if (c.code == 0)
            EXPECT_EQ(focuser->snapshot().maxStep, c.maximum);
        else
            EXPECT_EQ(focuser->snapshot().lastError, c.code);
    }
    EXPECT_EQ(zorsim::state(0).maxStep, 600000);
}

TEST_F(ServiceTest, ALostLinkIsRegainedWithBackoff)
{
    auto focuser = connectFirst();
    zorsim::unplug(0);
    Snapshot s = waitFor(*focuser, [](const Snapshot &s) { return s.link == Link::Lost; });
    EXPECT_FALSE(s.moving);
    EXPECT_NE(s.lastError, 0);
    EXPECT_EQ(s.nextReconnect, 1s);
    s = waitFor(*focuser, [](const Snapshot &s) { return s.reconnectAttempts >= 2; });
    EXPECT_EQ(s.nextReconnect, reconnectDelay(s.reconnectAttempts));
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(5000, d); }), kNotConnected);
    zorsim::plug(0);
    s = waitFor(*focuser, [](const Snapshot &s) { return s.link == Link::Connected; });
    EXPECT_EQ(s.lastError, 0);
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(5000, d); }), 0);
    waitFor(*focuser, [](const Snapshot &s) { return !s.moving && s.position == 5000; });
}

TEST_F(ServiceTest, CompensationActsAtRestAndYieldsToAClientsMove)
{
    auto focuser = connectFirst();
    zorsim::setStepsPerSecond(0, 500);
    CompensationSettings settings;
    settings.enabled = true;
    settings.stepsPerDegree = 100;
    settings.threshold = 1;
    settings.settle = 0s;
    EXPECT_EQ(result([&](Done d) { focuser->setCompensation(settings, d); }), 0);
    waitFor(*focuser, [](const Snapshot &s) { return s.compensationReference.has_value(); });

    // 10 °C colder: 1000 steps in, a move of compensation's.
    zorsim::setTemperature(0, 30);
    waitFor(*focuser, [](const Snapshot &s) { return s.compensating && s.moving; });
    // The client's move takes over, and compensation starts again from there.
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(1200, d); }), 0);
    Snapshot s = waitFor(*focuser, [](const Snapshot &s) { return !s.moving && s.compensationReference; });
    EXPECT_EQ(s.position, 1200);
    EXPECT_FALSE(s.compensating);
    EXPECT_NEAR(*s.compensationReference, 30, 0.1);

    // While a client's moves settle (an autofocus run), compensation waits.
    settings.settle = 1h;
    EXPECT_EQ(result([&](Done d) { focuser->setCompensation(settings, d); }), 0);
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(1300, d); }), 0);
    waitFor(*focuser, [](const Snapshot &s) { return !s.moving && s.position == 1300; });
    zorsim::setTemperature(0, 40);
    waitFor(*focuser, [](const Snapshot &s) { return s.temperature && *s.temperature > 39.9; });
    std::this_thread::sleep_for(300ms); // a poll at the new temperature
    EXPECT_EQ(zorsim::state(0).target, 1300);
    EXPECT_FALSE(focuser->snapshot().compensationReference);
}

// Readers see whole snapshots in order while the worker publishes moves,
// retargets and a lost link (the thread sanitizer checks the sharing).
TEST_F(ServiceTest, SnapshotsStayWholeWhileTheWorkerPublishes)
{
    auto focuser = connectFirst();
    std::atomic<int> notified{0};
    focuser->setListener([&] { ++notified; });
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    std::atomic<int> faults{0};
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            std::uint64_t last = 0;
            while (!done) {
                const Snapshot s = focuser->snapshot();
                if (s.sequence < last || (s.compensating && !s.moving) ||
                    (s.link != Link::Connected && s.moving))
                    ++faults;
                last = s.sequence;
            }
        });
    for (int target : {40000, 8000, 30000, 3000}) {
        focuser->moveTo(target);
        std::this_thread::sleep_for(50ms);
    }
    waitFor(*focuser, [](const Snapshot &s) { return !s.moving && s.position == 3000; });
    zorsim::unplug(0);
    waitFor(*focuser, [](const Snapshot &s) { return s.link == Link::Lost; });
    zorsim::plug(0);
    waitFor(*focuser, [](const Snapshot &s) { return s.link == Link::Connected; });
    done = true;
    for (auto &t : readers)
        t.join();
    focuser->setListener({});
    EXPECT_EQ(faults, 0);
    EXPECT_GT(notified, 5);
}

#ifdef ZOR_BLUEZ_SIM_PROGRAM
// A Bluetooth link dropped during a move shows at once (from the library's
// connection-state callback) and is regained while the focuser advertises.
TEST_F(ServiceTest, ADroppedBluetoothLinkIsShownAndRegained)
{
    PrivateBluez bluez("pro@382/name=Garage/battery=77");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bluez.address().c_str(), 1);
    EXPECT_EQ(result([&](Done d) { service.scanBluetooth(2s, d); }), 0);
    const auto entries = service.catalogue();
    ASSERT_TRUE(std::any_of(entries.begin(), entries.end(), [](const CatalogueEntry &e) {
        return e.key == "ble:Garage" && e.transport == Transport::Bluetooth;
    }));
    auto focuser = service.focuser("ble:Garage");
    ASSERT_EQ(result([&](Done d) { focuser->connect(d); }), 0) << focuser->snapshot().lastErrorText;
    EXPECT_EQ(focuser->snapshot().battery, 77);
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(90000, d); }), 0);
    waitFor(*focuser, [](const Snapshot &s) { return s.moving; });
    bluez.control("DropLink", std::string("Garage"));
    Snapshot s = waitFor(*focuser, [](const Snapshot &s) { return s.link == Link::Lost; });
    EXPECT_FALSE(s.moving);
    s = waitFor(
        *focuser, [](const Snapshot &s) { return s.link == Link::Connected; }, 60s);
    EXPECT_EQ(result([&](Done d) { focuser->moveTo(s.position + 100, d); }), 0);
}
#endif

} // namespace
