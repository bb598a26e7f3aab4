// The control calls: one thin wrapper per device operation, each with the
// lock family of its operation and, where the device offers it over
// Bluetooth, the Bluetooth path.
#include "api/call_guard.h"
#include "device/zor.h"

#include <cstring>

using namespace zor::api;

namespace {

// Families of the per-ID locks.
enum Family {
    kSetSpeed = 1,
    kMove = 3,
    kStop = 4,
    kSendCmd = 5,
    kRepeatTime = 6,
    kClearErr = 8,
    kIsMoving = 9,
    kGetSpeed = 10,
    kResetPosition = 11,
    kGetTemp = 12,
    kSetBeep = 14,
    kGetBeep = 15,
    kSetMaxStep = 17,
    kGetMaxStep = 18,
    kPositionAndBacklash = 19, // a position poll waits for a backlash write
    kGetBacklash = 20,
    kSetReverse = 21,
    kGetReverse = 22,
    kSetMaxForce = 23,
    kGetMaxForce = 24,
    kFirmwareVersion = 25,
    kSerialNumber = 26,
    kSetId = 27,
    kBatteryInfo = 28,
    kType = 29,
    kBleNameAndStepRange = 30,
    kSetBleName = 31,
    kShippingMode = 32,
    kGetLed = 33,
    kSetLed = 34,
    kNumOfControls = 35,
    kControlCaps = 36,
    kErrorCode = 37,
    kReason = 39,
};

// The Bluetooth name buffer of ZORGetBLEName, and the most of a name that
// ZORSetBLEName looks at (longer names are refused anyway).
constexpr int kBleNameBytes = 16;

} // namespace

extern "C" {

ZOR_ERROR_CODE ZORMove(int ID, int iStep)
{
    return onEitherLink(__func__, ID, kMove, "set move failed\n", [&](CZOR &z, bool ble) {
        if (ble)
            ZORDbgPrint("ZORMove", "ZORMove-> step:%d\n", iStep);
        return z.SetStep(iStep, ble);
    });
}

ZOR_ERROR_CODE ZORStop(int ID)
{
    return onEitherLink(__func__, ID, kStop, "set stop move failed. err:%d\n",
                        [&](CZOR &z, bool ble) { return z.stopMove(ble); });
}

ZOR_ERROR_CODE ZORIsMoving(int ID, bool *pbVal, bool *pbHandControl)
{
    return onEitherLink(__func__, ID, kIsMoving, "get move state failed\n",
                        [&](CZOR &z, bool ble) { return z.isMoving(pbVal, pbHandControl, ble); });
}

ZOR_ERROR_CODE ZORGetPosition(int ID, int *piStep)
{
    return onEitherLink(__func__, ID, kPositionAndBacklash, "get step failed\n",
                        [&](CZOR &z, bool ble) { return z.getStep(piStep, ble); });
}

ZOR_ERROR_CODE ZORResetPostion(int ID, int iStep)
{
    return onEitherLink(__func__, ID, kResetPosition, "reset current step failed\n",
                        [&](CZOR &z, bool ble) { return z.resetStep(iStep, ble); });
}

ZOR_ERROR_CODE ZORGetTemp(int ID, float *pfTemp)
{
    return onEitherLink(__func__, ID, kGetTemp, "get temp failed\n",
                        [&](CZOR &z, bool ble) { return z.getTemp(pfTemp, ble); });
}

ZOR_ERROR_CODE ZORSetBeep(int ID, bool bVal)
{
    return onEitherLink(__func__, ID, kSetBeep, "set beep state failed\n",
                        [&](CZOR &z, bool ble) { return z.setBeep(bVal, ble); });
}

ZOR_ERROR_CODE ZORGetBeep(int ID, bool *pbVal)
{
    return onEitherLink(__func__, ID, kGetBeep, "get beep state failed\n",
                        [&](CZOR &z, bool ble) { return z.getBeep(pbVal, ble); });
}

ZOR_ERROR_CODE ZORSetMaxStep(int ID, int iVal)
{
    return onEitherLink(__func__, ID, kSetMaxStep, "set max step failed\n",
                        [&](CZOR &z, bool ble) { return z.setMaxStep(iVal, ble); });
}

ZOR_ERROR_CODE ZORGetMaxStep(int ID, int *piVal)
{
    return onEitherLink(__func__, ID, kGetMaxStep, "get max step failed\n",
                        [&](CZOR &z, bool ble) { return z.getMaxStep(piVal, ble); });
}

ZOR_ERROR_CODE ZORStepRange(int ID, int *piVal)
{
    return onEitherLink(__func__, ID, kBleNameAndStepRange, "set step range failed\n",
                        [&](CZOR &z, bool ble) { return z.getStepRange(piVal, ble); });
}

ZOR_ERROR_CODE ZORSetBacklash(int ID, int iVal)
{
    return onEitherLink(__func__, ID, kPositionAndBacklash, "set backlash failed\n",
                        [&](CZOR &z, bool ble) { return z.setBacklash(iVal, ble); });
}

ZOR_ERROR_CODE ZORGetBacklash(int ID, int *piVal)
{
    return onEitherLink(__func__, ID, kGetBacklash, "get backlash failed\n",
                        [&](CZOR &z, bool ble) { return z.getBacklash(piVal, ble); });
}

ZOR_ERROR_CODE ZORSetReverse(int ID, bool bVal)
{
    return onEitherLink(__func__, ID, kSetReverse, "set reverse failed\n",
                        [&](CZOR &z, bool ble) { return z.setReverse(bVal, ble); });
}

ZOR_ERROR_CODE ZORGetReverse(int ID, bool *pbVal)
{
    return onEitherLink(__func__, ID, kGetReverse, "get reverse failed\n",
                        [&](CZOR &z, bool ble) { return z.getReverse(pbVal, ble); });
}

ZOR_ERROR_CODE ZORGetFirmwareVersion(int ID, unsigned char *major, unsigned char *minor, unsigned char *build)
{
    return onEitherLink(__func__, ID, kFirmwareVersion, "get firmware version failed\n",
                        [&](CZOR &z, bool ble) { return z.getFwVer(major, minor, build, ble); });
}

ZOR_ERROR_CODE ZORGetSerialNumber(int ID, ZOR_SN *pSN)
{
    return onEitherLink(__func__, ID, kSerialNumber, "get serial sumber failed\n", [&](CZOR &z, bool ble) {
        return z.getSerialNumber(pSN ? pSN->id : nullptr, sizeof pSN->id, ble);
    });
}

ZOR_ERROR_CODE ZORSetID(int ID, ZOR_ID alias)
{
    return onEitherLink(__func__, ID, kSetId, "set setAlias sumber failed\n",
                        [&](CZOR &z, bool ble) { return z.setAlias(alias.id, sizeof alias.id, ble); });
}

ZOR_ERROR_CODE ZORGetBatteryInfo(int ID, ZOR_BATTERY_INFO *pInfo)
{
    return onEitherLink(__func__, ID, kBatteryInfo, "get battery info failed. err:%d\n",
                        [&](CZOR &z, bool ble) { return z.getBatteryInfo(pInfo, ble); });
}

ZOR_ERROR_CODE ZORGetType(int ID, ZOR_TYPE *pType)
{
    return onEitherLink(__func__, ID, kType, "get zor type failed\n",
                        [&](CZOR &z, bool ble) { return z.getType(pType, ble); });
}

ZOR_ERROR_CODE ZORGetBLEName(int ID, char *pName)
{
    return onUsbOnly(__func__, ID, kBleNameAndStepRange,
                     [&](CZOR &z) { return z.getBLEName(pName, kBleNameBytes); });
}

// The name goes as long as it is over both links (a fixed 16 would make every
// USB request fail the length check), looked for only within 16 bytes.
ZOR_ERROR_CODE ZORSetBLEName(int ID, char *pName)
{
    return onEitherLink(__func__, ID, kSetBleName, "set zor ble name failed\n", [&](CZOR &z, bool ble) {
        const int length = pName ? static_cast<int>(strnlen(pName, kBleNameBytes)) : 0;
        return z.setBLEName(pName, length, ble);
    });
}

ZOR_ERROR_CODE ZORSetShippingMode(int ID)
{
    return onEitherLink(__func__, ID, kShippingMode, "set shipping mode failed\n",
                        [&](CZOR &z, bool ble) { return z.setShippingMode(ble); });
}

ZOR_ERROR_CODE ZORGetLedState(int ID, bool *pbVal)
{
    return onEitherLink(__func__, ID, kGetLed, "get LED state failed\n",
                        [&](CZOR &z, bool ble) { return z.getLEDState(pbVal, ble); });
}

ZOR_ERROR_CODE ZORSetLedState(int ID, bool bVal)
{
    return onEitherLink(__func__, ID, kSetLed, "set LED state failed\n",
                        [&](CZOR &z, bool ble) { return z.setLEDState(bVal, ble); });
}

ZOR_ERROR_CODE ZORGetNumOfControls(int ID, int *piNum)
{
    return onEitherLink(__func__, ID, kNumOfControls, "get num of controls failed\n",
                        [&](CZOR &z, bool ble) { return z.getNumOfControls(piNum, ble); });
}

ZOR_ERROR_CODE ZORGetControlCaps(int ID, int iIndex, ZOR_CONTROL_CAPS *pCaps)
{
    return onEitherLink(__func__, ID, kControlCaps, "get control capacity failed\n",
                        [&](CZOR &z, bool ble) { return z.getControlCaps(iIndex, pCaps, ble); });
}

ZOR_ERROR_CODE ZORGetErrorCode(int ID, ZOR_ERROR_MSG *pMsg)
{
    return onEitherLink(__func__, ID, kErrorCode, "get err code failed\n",
                        [&](CZOR &z, bool ble) { return z.getErrorCode(pMsg, ble); });
}

ZOR_ERROR_CODE ZORGetReason(int ID, int *piReason)
{
    return onEitherLink(__func__, ID, kReason, "get power off reason failed\n",
                        [&](CZOR &z, bool ble) { return z.getPowerOffReason(piReason, ble); });
}

} // extern "C"

// Calls exported with C++ linkage.

ZOR_ERROR_CODE ZORSetMaxForce(int ID, int iVal)
{
    return onEitherLink(__func__, ID, kSetMaxForce, "set max force failed\n",
                        [&](CZOR &z, bool ble) { return z.setMaxForce(iVal, ble); });
}

ZOR_ERROR_CODE ZORGetMaxForce(int ID, int *piVal)
{
    return onEitherLink(__func__, ID, kGetMaxForce, "get max force failed\n",
                        [&](CZOR &z, bool ble) { return z.getMaxForce(piVal, ble); });
}

ZOR_ERROR_CODE ZORGetSpeed(int ID, int *piVal)
{
    return onEitherLink(__func__, ID, kGetSpeed, "get speed failed\n",
                        [&](CZOR &z, bool ble) { return z.getSpeed(piVal, ble); });
}

ZOR_ERROR_CODE ZORSetSpeed(int ID, int iVal)
{
    return onUsbOnly(__func__, ID, kSetSpeed, [&](CZOR &z) { return z.SetSpeed(iVal); });
}

ZOR_ERROR_CODE ZORSendCMD(int ID, unsigned char *pCmd, int iLen, bool bRead, unsigned char *pOut)
{
    // Caller mistakes get 3 and send nothing: without a command of at least
    // one byte the previous request would go again. Without a reply buffer
    // the command is only sent.
    return onUsbOnly(__func__, ID, kSendCmd, [&](CZOR &z) {
        if (!pCmd || iLen < 1)
            return static_cast<int>(ZOR_ERROR_INVALID_VALUE);
        return z.sendCMD(pCmd, iLen, bRead, pOut);
    });
}

ZOR_ERROR_CODE ZORSetRepeatTime(int ID, int iVal)
{
    return onUsbOnly(__func__, ID, kRepeatTime, [&](CZOR &z) {
        z.setRepeatTime(iVal);
        return ZOR_SUCCESS;
    });
}

ZOR_ERROR_CODE ZORSetClearErr(int ID, bool bVal)
{
    return onUsbOnly(__func__, ID, kClearErr, [&](CZOR &z) {
        z.setAutoClearError(bVal);
        return ZOR_SUCCESS;
    });
}
