// The unmodified shared library, through its public calls only, against
// virtual Bluetooth focusers served as org.bluez on a private bus. The
// library's own manager and BlueZ central carry every exchange.
#include "ZOR_focuser.h"
#include "home_sandbox.h"
#include "private_bluez.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr int kFirst = ZOR_BLE_ID_BASE;
constexpr char kGarage[] = "C0:FF:EE:00:00:01";
constexpr char kShed[] = "C0:FF:EE:00:00:02";

// What the library reports through the two callbacks, from its own thread.
struct Reported {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<bool> links;
    std::vector<int> pairings;

    // Waits (bounded, so that a missing report fails instead of hanging)
    // for `count` connection states.
    std::vector<bool> linksOnceThereAre(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, 10s, [&] { return links.size() >= count; });
        return links;
    }
    size_t linkCount()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return links.size();
    }
};
Reported g_reported;

void onLink(bool connected)
{
    std::lock_guard<std::mutex> lock(g_reported.mutex);
    g_reported.links.push_back(connected);
    g_reported.changed.notify_all();
}

void onPairing(ZOR_ERROR_CODE code)
{
    std::lock_guard<std::mutex> lock(g_reported.mutex);
    g_reported.pairings.push_back(code);
}

// Virtual focusers on a bus of this test's own, which the library's manager
// (made on the first Bluetooth call) then uses as the system bus.
class EndToEnd : public ::testing::Test {
protected:
    explicit EndToEnd(const std::string &devices = "pro@382/name=Garage/pos=1000/battery=77,pro@382/name=Shed/pos=2000")
        : bluez(devices)
    {
        zor_test::sandboxHome();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bluez.address().c_str(), 1);
    }

    std::vector<std::string> scan()
    {
        BLE_DEVICE_INFO found[8]{};
        int count = 0;
        EXPECT_EQ(ZORBLEScan(300, found, 8, &count), ZOR_SUCCESS);
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i)
            names.push_back(found[i].Name);
        return names;
    }

    // Scans, then connects and pairs `name`, which must get ID `expected`,
    // with both callbacks registered.
    void connectAndPair(const char *name, int expected)
    {
        scan();
        int id = -1;
        ASSERT_EQ(ZORBLEConnect(name, "", &id), ZOR_SUCCESS) << name;
        ASSERT_EQ(id, expected);
        ASSERT_EQ(ZORBLERegConnStateCallback(id, onLink), ZOR_SUCCESS);
        ASSERT_EQ(ZORBLERegPairStateCallback(id, onPairing), ZOR_SUCCESS);
        ASSERT_EQ(ZORBLEPair(id), ZOR_SUCCESS) << name;
    }

    template <typename T>
    T simState(const char *device, const std::string &name)
    {
        return bluez.state(device).at(name).get<T>();
    }

    PrivateBluez bluez;
};

// Every control call on ID 50: each setter's value read back by its getter
// (or from the simulator where there is no getter), each query's answer.
struct Control {
    const char *name;
    std::function<int()> set; // may be empty
    std::function<int(int &)> get; // may be empty: the setter's result is all there is to see
    int expected;
};

// A getter of a flag on ID 50, as a Control's getter.
std::function<int(int &)> asInt(ZOR_ERROR_CODE (*get)(int, bool *))
{
    return [get](int &value) {
        bool on = false;
        const int result = get(kFirst, &on);
        value = on;
        return result;
    };
}

std::vector<Control> controls(PrivateBluez &bluez)
{
    const auto sim = [&bluez](const char *key) {
        return [&bluez, key](int &value) {
            value = bluez.state(kGarage).at(key).get<int32_t>();
            return ZOR_SUCCESS;
        };
    };
    return {
        {"move", [] { return ZORMove(kFirst, 1100); },
         [](int &v) -> int {
             bool moving = true, byHand = true;
             for (int polls = 0; moving && polls < 100; ++polls)
                 if (ZORIsMoving(kFirst, &moving, &byHand) != ZOR_SUCCESS)
                     return -1;
             return ZORGetPosition(kFirst, &v);
         },
         1100},
        {"stop", [] { return ZORStop(kFirst); }, sim("Position"), 1100},
        {"reset position", [] { return ZORResetPostion(kFirst, 4321); }, [](int &v) { return ZORGetPosition(kFirst, &v); },
         4321},
        {"beep", [] { return ZORSetBeep(kFirst, true); },
         asInt(ZORGetBeep),
         1},
        {"reverse", [] { return ZORSetReverse(kFirst, true); },
         asInt(ZORGetReverse),
         1},
        {"backlash", [] { return ZORSetBacklash(kFirst, 77); }, [](int &v) { return ZORGetBacklash(kFirst, &v); }, 77},
        {"max step", [] { return ZORSetMaxStep(kFirst, 500000); }, [](int &v) { return ZORGetMaxStep(kFirst, &v); },
         500000},
        {"max force", [] { return ZORSetMaxForce(kFirst, 9); }, [](int &v) { return ZORGetMaxForce(kFirst, &v); }, 9},
        {"LED", [] { return ZORSetLedState(kFirst, false); },
         asInt(ZORGetLedState),
         0},
        {"alias", [] { return ZORSetID(kFirst, ZOR_ID{{'S', 'c', 'o', 'p', 'e'}}); }, nullptr, 0},
        {"shipping mode", [] { return ZORSetShippingMode(kFirst); }, nullptr, 0},
        {"step range", nullptr, [](int &v) { return ZORStepRange(kFirst, &v); }, 600000},
        {"speed (not carried from 336 on)", nullptr, [](int &v) { return ZORGetSpeed(kFirst, &v); }, 0},
        {"temperature", nullptr,
         [](int &v) {
             float t = 0;
             const int r = ZORGetTemp(kFirst, &t);
             v = static_cast<int>(t + 0.5f);
             return r;
         },
         20},
        {"firmware", nullptr,
         [](int &v) {
             unsigned char major = 0, minor = 0, build = 0;
             const int r = ZORGetFirmwareVersion(kFirst, &major, &minor, &build);
             v = major * 100 + minor * 10 + build;
             return r;
         },
         382},
        {"type", nullptr,
         [](int &v) {
             ZOR_TYPE type{};
             const int r = ZORGetType(kFirst, &type);
             v = std::string(type.Type) == "ZOR Pro";
             return r;
         },
         1},
        {"serial", nullptr,
         [](int &v) {
             ZOR_SN sn{};
             const int r = ZORGetSerialNumber(kFirst, &sn);
             v = std::any_of(std::begin(sn.id), std::end(sn.id), [](unsigned char b) { return b != 0; });
             return r;
         },
         1},
        {"battery", nullptr,
         [](int &v) {
             ZOR_BATTERY_INFO battery{};
             const int r = ZORGetBatteryInfo(kFirst, &battery);
             v = battery.battery_percentage;
             return r;
         },
         77},
        {"error code", nullptr,
         [](int &v) {
             ZOR_ERROR_MSG message{};
             const int r = ZORGetErrorCode(kFirst, &message);
             v = std::string(message.MotorErrorCode) + message.BatteryErrorCode == "E0E0";
             return r;
         },
         1},
        {"power-off reason", nullptr, [](int &v) { return ZORGetReason(kFirst, &v); }, 0},
        {"controls", nullptr,
         [](int &v) -> int {
             ZOR_CONTROL_CAPS caps{};
             if (ZORGetNumOfControls(kFirst, &v) != ZOR_SUCCESS)
                 return -1;
             return ZORGetControlCaps(kFirst, v - 1, &caps);
         },
         8},
    };
}

TEST_F(EndToEnd, ScanPairEveryCallUpdateAndTwoFocusersInTurn)
{
    EXPECT_EQ(scan(), (std::vector<std::string>{"Garage", "Shed"}));
    connectAndPair("Garage", kFirst);
    // A fresh link reports the new connection before the pairing.
    EXPECT_EQ(g_reported.pairings, (std::vector<int>{ZOR_ERROR_BLE_NEW_CONNECTION, ZOR_SUCCESS}));
    EXPECT_FALSE(simState<std::string>(kGarage, "PairedHost").empty());

    for (const Control &c : controls(bluez)) {
        if (c.set) {
            EXPECT_EQ(c.set(), ZOR_SUCCESS) << c.name;
        }
        int value = -1;
        if (c.get) {
            EXPECT_EQ(c.get(value), ZOR_SUCCESS) << c.name;
            EXPECT_EQ(value, c.expected) << c.name;
        }
    }
    char name[] = "Attic";
    EXPECT_EQ(ZORSetBLEName(kFirst, name), ZOR_SUCCESS);
    EXPECT_EQ(simState<std::string>(kGarage, "Name"), "Attic");

    ZOR_ALL_INFO all{};
    ASSERT_EQ(ZORBLEgetAllInfo(kFirst, &all), ZOR_SUCCESS);
    EXPECT_EQ(all.Position, 4321);
    EXPECT_EQ(all.Backlash, 77);
    EXPECT_EQ(all.MaxStep, 500000);
    EXPECT_EQ(all.Beep, 1);
    EXPECT_EQ(all.Reverse, 1);
    EXPECT_EQ(all.IsMoving, 0);
    EXPECT_EQ(all.Battery.battery_percentage, 77);

    // The second focuser takes the one link; the first's connection ends.
    connectAndPair("Shed", kFirst + 1);
    EXPECT_FALSE(simState<bool>(kGarage, "Connected"));
    int position = 0;
    EXPECT_EQ(ZORGetPosition(kFirst + 1, &position), ZOR_SUCCESS);
    EXPECT_EQ(position, 2000);

    // A firmware image, chunk by chunk; the focuser restarts after the last.
    const int imageSize = 1000;
    ASSERT_EQ(ZORBLEStartUpdate(kFirst + 1, imageSize), ZOR_SUCCESS);
    for (int sent = 0; sent < imageSize;) {
        ZOR_BLE_FILE_BUF chunk{};
        chunk.Length = std::min<int>(sizeof chunk.Data, imageSize - sent);
        std::memset(chunk.Data, sent / 480 + 1, sizeof chunk.Data);
        ASSERT_EQ(ZORBLEWriteUpdateFile(kFirst + 1, chunk), ZOR_SUCCESS) << "at " << sent;
        sent += chunk.Length;
    }
    EXPECT_EQ(simState<uint32_t>(kShed, "InstalledImageBytes"), static_cast<uint32_t>(imageSize));
    // The second connect ended the first's session (its callback heard of
    // it), and the restart ends the second's link.
    EXPECT_EQ(g_reported.linksOnceThereAre(2), (std::vector<bool>{false, false}));

    EXPECT_EQ(ZORBLEDisconnect(kFirst + 1), ZOR_SUCCESS);
    EXPECT_EQ(ZORBLEDisconnect(kFirst), ZOR_SUCCESS);
    EXPECT_EQ(ZORGetPosition(kFirst, &position), ZOR_ERROR_BLE_NOT_CONNECTED);
}

TEST_F(EndToEnd, ASilentFocuserTimesOutWhereTheCallReportsTheExchange)
{
    connectAndPair("Garage", kFirst);
    int position = 0;
    ASSERT_EQ(ZORGetPosition(kFirst, &position), ZOR_SUCCESS);

    bluez.control("SetFault", std::string(kGarage), std::string("silent"));
    unsigned char major = 0, minor = 0, build = 0;
    EXPECT_EQ(ZORGetFirmwareVersion(kFirst, &major, &minor, &build), ZOR_ERROR_BLE_TIMEOUT);
    // A status getter does not report a failed exchange: it answers from the
    // last good status record.
    position = -1;
    EXPECT_EQ(ZORGetPosition(kFirst, &position), ZOR_SUCCESS);
    EXPECT_EQ(position, 1000);
}

// Each way a link can end without being asked to, while a move runs and a
// client thread polls it; the connection-state callback hears of each.
TEST_F(EndToEnd, LostLinksReachTheCallbackWithoutStallingACallInFlight)
{
    struct Loss {
        const char *name;
        const char *focuser; // one each: the first keeps moving after its link is lost
        std::function<void(PrivateBluez &)> cause;
    };
    const Loss losses[] = {
        {"dropped link", "Garage", [](PrivateBluez &b) { b.control("DropLink", std::string(kGarage)); }},
        {"radio off", "Shed", [](PrivateBluez &b) { b.control("SetPowered", false); }},
    };
    size_t expectedReports = 0;
    for (const Loss &loss : losses) {
        connectAndPair(loss.focuser, kFirst);
        ASSERT_EQ(ZORMove(kFirst, 30000), ZOR_SUCCESS) << loss.name;
        // A status poll answers from the last record once the link is gone,
        // so the poller stops at the report.
        std::thread poller([reports = expectedReports] {
            bool moving = false, byHand = false;
            while (ZORIsMoving(kFirst, &moving, &byHand) == ZOR_SUCCESS && g_reported.linkCount() == reports)
                ;
        });
        std::this_thread::sleep_for(100ms);
        loss.cause(bluez);
        ++expectedReports;
        EXPECT_EQ(g_reported.linksOnceThereAre(expectedReports), std::vector<bool>(expectedReports, false))
            << loss.name;
        poller.join();
        EXPECT_EQ(ZORBLEDisconnect(kFirst), ZOR_SUCCESS) << loss.name;
    }
}

TEST_F(EndToEnd, BluezLeavingTheBusMakesCallsFailWithoutHanging)
{
    connectAndPair("Garage", kFirst);
    bluez.control("ReleaseBluez");
    EXPECT_EQ(g_reported.linksOnceThereAre(1), std::vector<bool>{false});
    int position = 0;
    unsigned char major = 0, minor = 0, build = 0;
    EXPECT_EQ(ZORGetFirmwareVersion(kFirst, &major, &minor, &build), ZOR_ERROR_BLE_NOT_CONNECTED);
    EXPECT_EQ(ZORBLEDisconnect(kFirst), ZOR_SUCCESS);
    int id = -1;
    EXPECT_EQ(ZORBLEConnect("Garage", "", &id), ZOR_ERROR_BLE_CONNECT_FAILED);
    BLE_DEVICE_INFO found[2]{};
    int count = -1;
    EXPECT_EQ(ZORBLEScan(200, found, 2, &count), ZOR_ERROR_BLE_UNAVAILABLE);
    EXPECT_EQ(ZORGetPosition(kFirst, &position), ZOR_ERROR_BLE_NOT_CONNECTED);
}

} // namespace
