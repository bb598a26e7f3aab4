// The control calls: ID checks, the closed-device answer, and that each call
// reaches the device operation it names.
#include "api_fixture.h"

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Call = std::pair<std::string, std::function<ZOR_ERROR_CODE(int)>>;

// Every control call of the interface, with harmless arguments.
std::vector<Call> everyControlCall()
{
    static bool b;
    static int i;
    static float f;
    static unsigned char uc[3];
    static ZOR_SN sn;
    static ZOR_TYPE type;
    static ZOR_BATTERY_INFO battery;
    static ZOR_CONTROL_CAPS caps;
    static ZOR_ERROR_MSG msg;
    static char name[16] = "focus";
    static unsigned char cmd[16] = {3, 0x7e, 0x5a, 2, 3};
    return {
        {"ZORMove", [](int id) { return ZORMove(id, 100); }},
        {"ZORStop", [](int id) { return ZORStop(id); }},
        {"ZORIsMoving", [](int id) { return ZORIsMoving(id, &b, &b); }},
        {"ZORGetPosition", [](int id) { return ZORGetPosition(id, &i); }},
        {"ZORResetPostion", [](int id) { return ZORResetPostion(id, 10); }},
        {"ZORGetTemp", [](int id) { return ZORGetTemp(id, &f); }},
        {"ZORSetBeep", [](int id) { return ZORSetBeep(id, true); }},
        {"ZORGetBeep", [](int id) { return ZORGetBeep(id, &b); }},
        {"ZORSetMaxStep", [](int id) { return ZORSetMaxStep(id, 5000); }},
        {"ZORGetMaxStep", [](int id) { return ZORGetMaxStep(id, &i); }},
        {"ZORStepRange", [](int id) { return ZORStepRange(id, &i); }},
        {"ZORSetBacklash", [](int id) { return ZORSetBacklash(id, 5); }},
        {"ZORGetBacklash", [](int id) { return ZORGetBacklash(id, &i); }},
        {"ZORSetReverse", [](int id) { return ZORSetReverse(id, true); }},
        {"ZORGetReverse", [](int id) { return ZORGetReverse(id, &b); }},
        {"ZORSetMaxForce", [](int id) { return ZORSetMaxForce(id, 3); }},
        {"ZORGetMaxForce", [](int id) { return ZORGetMaxForce(id, &i); }},
        {"ZORGetSpeed", [](int id) { return ZORGetSpeed(id, &i); }},
        {"ZORSetSpeed", [](int id) { return ZORSetSpeed(id, 2000); }},
        {"ZORGetFirmwareVersion", [](int id) { return ZORGetFirmwareVersion(id, &uc[0], &uc[1], &uc[2]); }},
        {"ZORGetSerialNumber", [](int id) { return ZORGetSerialNumber(id, &sn); }},
        {"ZORSetID", [](int id) { return ZORSetID(id, ZOR_ID{{'A', 'B'}}); }},
        {"ZORGetBatteryInfo", [](int id) { return ZORGetBatteryInfo(id, &battery); }},
        {"ZORGetType", [](int id) { return ZORGetType(id, &type); }},
        {"ZORGetBLEName", [](int id) { return ZORGetBLEName(id, name); }},
        {"ZORSetBLEName", [](int id) { return ZORSetBLEName(id, name); }},
        {"ZORSetShippingMode", [](int id) { return ZORSetShippingMode(id); }},
        {"ZORGetLedState", [](int id) { return ZORGetLedState(id, &b); }},
        {"ZORSetLedState", [](int id) { return ZORSetLedState(id, true); }},
        {"ZORGetNumOfControls", [](int id) { return ZORGetNumOfControls(id, &i); }},
        {"ZORGetControlCaps", [](int id) { return ZORGetControlCaps(id, 0, &caps); }},
        {"ZORGetErrorCode", [](int id) { return ZORGetErrorCode(id, &msg); }},
        {"ZORGetReason", [](int id) { return ZORGetReason(id, &i); }},
        {"ZORSendCMD", [](int id) { return ZORSendCMD(id, cmd, 5, false, nullptr); }},
        {"ZORSetRepeatTime", [](int id) { return ZORSetRepeatTime(id, 5); }},
        {"ZORSetClearErr", [](int id) { return ZORSetClearErr(id, true); }},
        {"ZORHidStartUpdate", [](int id) { return ZORHidStartUpdate(id); }},
        {"ZORHidWriteUpdateFile", [](int id) { return ZORHidWriteUpdateFile(id, ZOR_HID_FILE_BUF{1, {0}}); }},
        {"ZORHidEndUpdate", [](int id) { return ZORHidEndUpdate(id); }},
    };
}

using Controls = ApiTest;

TEST_F(Controls, EveryCallRefusesIdsOutsideTheTablesAndAnswersClosedOnAnUnopenedDevice)
{
    add();
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    ASSERT_EQ(ZORClose(0), ZOR_SUCCESS); // the lock record has existed and is gone again
    for (const auto &[name, call] : everyControlCall()) {
        EXPECT_EQ(call(0), ZOR_ERROR_CLOSED) << name;
        EXPECT_FALSE(anyBusy(0)) << name;
        EXPECT_EQ(call(-1), ZOR_ERROR_INVALID_ID) << name;
        EXPECT_EQ(call(7), ZOR_ERROR_INVALID_ID) << name << ": no device path";
        EXPECT_EQ(call(128), ZOR_ERROR_INVALID_ID) << name;
    }
    int step = 0;
    EXPECT_EQ(ZORGetPosition(50, &step), ZOR_ERROR_BLE_NOT_CONNECTED);
    EXPECT_EQ(ZORSetSpeed(60, 100), ZOR_ERROR_INVALID_ID) << "USB-only calls treat 50..127 as USB slots";
    char name[16] = {};
    EXPECT_EQ(ZORGetBLEName(60, name), ZOR_ERROR_INVALID_ID);
}

// Caller mistakes: a null pointer wherever a call reads or writes through
// one, lengths and values outside their range. Each is answered with a code
// and reaches nothing of the focuser.
TEST_F(Controls, CallerMistakesGetACodeAndSendNothing)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    bool b;
    unsigned char uc, cmd[16] = {3, 0x7e, 0x5a, 2, 3}, reply[ZOR_REPLY_BYTES];
    char longName[] = "TwelveChars!";
    // ZORGetControlCaps answers a null record as it answers a bad index.
    const std::vector<Call> cases = {
        {"ZORGetID", [](int) { return ZORGetID(0, nullptr); }},
        {"ZORGetProperty", [](int id) { return ZORGetProperty(id, nullptr); }},
        {"ZORIsMoving", [&](int id) { return ZORIsMoving(id, nullptr, &b); }},
        {"ZORGetPosition", [](int id) { return ZORGetPosition(id, nullptr); }},
        {"ZORGetTemp", [](int id) { return ZORGetTemp(id, nullptr); }},
        {"ZORGetBeep", [](int id) { return ZORGetBeep(id, nullptr); }},
        {"ZORGetMaxStep", [](int id) { return ZORGetMaxStep(id, nullptr); }},
        {"ZORStepRange", [](int id) { return ZORStepRange(id, nullptr); }},
        {"ZORGetBacklash", [](int id) { return ZORGetBacklash(id, nullptr); }},
        {"ZORGetReverse", [](int id) { return ZORGetReverse(id, nullptr); }},
        {"ZORGetMaxForce", [](int id) { return ZORGetMaxForce(id, nullptr); }},
        {"ZORGetSpeed", [](int id) { return ZORGetSpeed(id, nullptr); }},
        {"ZORGetFirmwareVersion", [&](int id) { return ZORGetFirmwareVersion(id, &uc, nullptr, &uc); }},
        {"ZORGetSerialNumber", [](int id) { return ZORGetSerialNumber(id, nullptr); }},
        {"ZORGetBatteryInfo", [](int id) { return ZORGetBatteryInfo(id, nullptr); }},
        {"ZORGetType", [](int id) { return ZORGetType(id, nullptr); }},
        {"ZORGetBLEName", [](int id) { return ZORGetBLEName(id, nullptr); }},
        {"ZORSetBLEName", [](int id) { return ZORSetBLEName(id, nullptr); }},
        {"ZORGetLedState", [](int id) { return ZORGetLedState(id, nullptr); }},
        {"ZORGetNumOfControls", [](int id) { return ZORGetNumOfControls(id, nullptr); }},
        {"ZORGetControlCaps", [](int id) { return ZORGetControlCaps(id, 0, nullptr); }},
        {"ZORGetErrorCode", [](int id) { return ZORGetErrorCode(id, nullptr); }},
        {"ZORGetReason", [](int id) { return ZORGetReason(id, nullptr); }},
        {"ZORSendCMD null command", [&](int id) { return ZORSendCMD(id, nullptr, 5, true, reply); }},
        {"ZORSendCMD length -1", [&](int id) { return ZORSendCMD(id, cmd, -1, false, nullptr); }},
        {"ZORSendCMD length 0", [&](int id) { return ZORSendCMD(id, cmd, 0, false, nullptr); }},
        {"ZORSetBLEName of 12", [&](int id) { return ZORSetBLEName(id, longName); }},
        {"ZORSetBacklash -5", [](int id) { return ZORSetBacklash(id, -5); }},
        {"ZORSetBacklash 256", [](int id) { return ZORSetBacklash(id, 256); }},
        {"ZORSetMaxForce -1", [](int id) { return ZORSetMaxForce(id, -1); }},
        {"ZORSetMaxForce 16", [](int id) { return ZORSetMaxForce(id, 16); }},
    };
    zorsim::clearTransfers(device);
    for (const auto &[name, call] : cases) {
        EXPECT_EQ(call(0), name == "ZORGetControlCaps" ? ZOR_ERROR_INVALID_INDEX : ZOR_ERROR_INVALID_VALUE)
            << name;
        EXPECT_TRUE(zorsim::transfers(device).empty()) << name;
    }
    EXPECT_FALSE(anyBusy(0));

    // Without a reply buffer a raw command is only sent; with one, no more
    // than a reply's bytes are read into it.
    ASSERT_EQ(ZORSendCMD(0, cmd, 5, true, nullptr), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::transfers(device).size(), 1u);
    unsigned char out[ZOR_REPLY_BYTES + 4];
    std::memset(out, 0xEE, sizeof out);
    ASSERT_EQ(ZORSendCMD(0, cmd, 5, true, out), ZOR_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 4), "\x01\x7e\x5a\x03");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out) + ZOR_REPLY_BYTES, 4), std::string(4, '\xEE'));
}

TEST_F(Controls, SettersReachTheFocuserGettersReadItBackAndTheUpdateRuns)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);

    char bleName[] = "Scope11"; // names are set over USB too
    for (ZOR_ERROR_CODE result : {ZORSetBacklash(0, 42), ZORSetBeep(0, true), ZORSetReverse(0, true),
                                  ZORSetMaxForce(0, 9), ZORSetMaxStep(0, 12345), ZORResetPostion(0, 777),
                                  ZORSetLedState(0, false), ZORSetID(0, ZOR_ID{{'S', 'c', 'o', 'p', 'e'}}),
                                  ZORSetBLEName(0, bleName)})
        EXPECT_EQ(result, ZOR_SUCCESS);
    const zorsim::DeviceState s = zorsim::state(device);
    EXPECT_EQ(std::vector<int>({s.backlash, s.beep, s.reverse, s.maxForce, s.maxStep, s.position, s.ledOn}),
              (std::vector<int>{42, 1, 1, 9, 12345, 777, 0}));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(s.alias.data()), 5) + " " + s.bleName, "Scope Scope11");

    int backlash = 0, force = 0, maxStep = 0, position = 0;
    bool beep = false, reverse = false, led = true;
    char nameBack[16];
    ZOR_INFO info;
    for (ZOR_ERROR_CODE result : {ZORGetBacklash(0, &backlash), ZORGetMaxForce(0, &force), ZORGetMaxStep(0, &maxStep),
                                  ZORGetPosition(0, &position), ZORGetBeep(0, &beep), ZORGetReverse(0, &reverse),
                                  ZORGetLedState(0, &led), ZORGetBLEName(0, nameBack), ZORGetProperty(0, &info)})
        EXPECT_EQ(result, ZOR_SUCCESS);
    EXPECT_EQ(std::vector<int>({backlash, force, maxStep, position, beep, reverse, led}),
              (std::vector<int>{42, 9, 12345, 777, 1, 1, 0}));
    EXPECT_EQ(std::string(nameBack) + " " + info.Name, "ZOR Pro_Scope11 ZOR(Scope)");

    ASSERT_EQ(ZORHidStartUpdate(0), ZOR_SUCCESS);
    EXPECT_EQ(ZORHidWriteUpdateFile(0, ZOR_HID_FILE_BUF{3, {7, 8, 9}}), ZOR_SUCCESS);
    EXPECT_EQ(ZORHidEndUpdate(0), ZOR_SUCCESS) << "the restart cuts the answer off";
    EXPECT_EQ(zorsim::state(device).installedImage, (std::vector<uint8_t>{7, 8, 9}));
    EXPECT_FALSE(anyBusy(0));
}

TEST_F(Controls, MoveRunsToTheTargetAndRefusesSettingsMeanwhile)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    bool moving = false, byDevice = false;
    int position = 0;
    ASSERT_EQ(ZORMove(0, 5000), ZOR_SUCCESS);
    ASSERT_EQ(ZORIsMoving(0, &moving, &byDevice), ZOR_SUCCESS);
    EXPECT_TRUE(moving && byDevice) << "the device reports its motor turning";
    EXPECT_EQ(ZORSetBacklash(0, 1), ZOR_ERROR_MOVING);
    EXPECT_EQ(ZORMove(0, 10), ZOR_ERROR_MOVING);

    zorsim::advance(std::chrono::seconds(10));
    ASSERT_EQ(ZORIsMoving(0, &moving, &byDevice) | ZORGetPosition(0, &position), ZOR_SUCCESS);
    EXPECT_EQ(std::make_tuple(moving, byDevice, position), std::make_tuple(false, false, 5000));
    ASSERT_EQ(ZORMove(0, 9000), ZOR_SUCCESS);
    EXPECT_EQ(ZORStop(0), ZOR_SUCCESS);
    EXPECT_FALSE(zorsim::state(device).moving);
}

} // namespace
