// The Bluetooth calls: scan, connect and disconnect with the IDs they hand
// out, pairing, the state callbacks, the raw exchange, the all-status query
// and the firmware update. No interface lock is taken: the device object
// serialises its own exchanges.
#include "api/call_guard.h"

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

using namespace zor::api;

namespace {

// Calls that index the device table directly: 2 outside it, `absent`
// without an object there (a USB object is accepted too). Those that talk to
// the focuser get 53 on a Bluetooth ID whose session has ended.
template <typename Method>
ZOR_ERROR_CODE onTableObject(const char *func, int id, ZOR_ERROR_CODE absent, Method &&method,
                             bool needsSession = false)
{
    return guarded(func, [&] {
        if (!isTableId(id))
            return ZOR_ERROR_INVALID_ID;
        return onBluetoothObject(id, absent, needsSession, method);
    });
}

// Waits until no call is inside the object of `id` any more; its session
// has ended, so every such call returns soon.
void waitForCallsToLeave(int id)
{
    while (g_bleCallsInProgress[id].load() != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Calls only for Bluetooth IDs: 2 below 50 or beyond the table, 53 without
// an object; `failure` goes to the debug hook when the call fails.
template <typename Method>
ZOR_ERROR_CODE onBluetoothId(const char *func, int id, const char *failure, Method &&method)
{
    if (id < ZOR_BLE_ID_BASE)
        return ZOR_ERROR_INVALID_ID;
    // Through onTableObject: counted, and 53 once the session has ended.
    return onTableObject(
        func, id, ZOR_ERROR_BLE_NOT_CONNECTED,
        [&](CZOR &device) {
            const int result = method(device);
            if (result != ZOR_SUCCESS)
                ZORDbgPrint(func, failure, result);
            return result;
        },
        true);
}

} // namespace

extern "C" {

ZOR_ERROR_CODE ZORBLEScan(int iScanTime, BLE_DEVICE_INFO *pList, int iMax, int *piFound)
{
    return guarded(__func__, [&] {
        CZOR scanner;
        return asCode(scanner.BLEScan(iScanTime, pList, iMax, piFound));
    });
}

// IDs are handed out as a stack: the next is one above the last handed out,
// and every disconnect takes one back, whichever ID it ends.
ZOR_ERROR_CODE ZORBLEConnect(const char *pName, const char *pAddress, int *ID)
{
    return guarded(__func__, [&] {
        if (!ID)
            return ZOR_ERROR_INVALID_VALUE;
        // Two threads connecting at once are handed different IDs.
        std::lock_guard<std::recursive_mutex> ids(g_bleIdMutex);
        const int id = g_BleStartId;
        // IDs beyond the table: the connect is refused and nothing changes.
        if (!isTableId(id))
            return ZOR_ERROR_BLE_CONNECT_FAILED;
        ++g_BleStartId;
        *ID = id;
        ZORDbgPrint(__func__, "ZORBLEConnect[%d] is %p\n", id, static_cast<void *>(pZOR[id].load()));
        // After an older ID was disconnected, this is the newest live device's
        // object, which connects again.
        if (!pZOR[id].load())
            pZOR[id] = new CZOR();
        const int result = pZOR[id].load()->BLEConnect(pName, pAddress);
        if (result == ZOR_SUCCESS)
            return ZOR_SUCCESS;
        delete pZOR[id].exchange(nullptr);
        --g_BleStartId;
        return asCode(result);
    });
}

ZOR_ERROR_CODE ZORBLEDisconnect(int ID)
{
    return guarded(__func__, [&] {
        if (!isTableId(ID))
            return ZOR_ERROR_INVALID_ID;
        std::lock_guard<std::recursive_mutex> ids(g_bleIdMutex);
        ZORDbgPrint(__func__, "ZORBLEDisconnect[%d] is %p\n", ID, static_cast<void *>(pZOR[ID].load()));
        CZOR *device = pZOR[ID].load();
        if (!device)
            return ZOR_ERROR_INVALID_ID;
        const int result = device->BLEDisconnect();
        // Later calls find no object; the ones already inside it finish first.
        pZOR[ID] = nullptr;
        waitForCallsToLeave(ID);
        delete device;
        --g_BleStartId;
        return asCode(result);
    });
}

ZOR_ERROR_CODE ZORBLEPair(int ID)
{
    return onTableObject(__func__, ID, ZOR_ERROR_BLE_NOT_CONNECTED, [](CZOR &z) { return z.BLEPair(); }, true);
}

ZOR_ERROR_CODE ZORBLEClearPair(int ID)
{
    return onTableObject(
        __func__, ID, ZOR_ERROR_BLE_NOT_CONNECTED, [](CZOR &z) { return z.BLEClearPair(); }, true);
}

ZOR_ERROR_CODE ZORBLERegPairStateCallback(int ID, ZORPairStateCallback cb)
{
    return onTableObject(__func__, ID, ZOR_ERROR_INVALID_ID, [&](CZOR &z) {
        return cb ? z.BLERegPairStateCallback(cb) : ZOR_ERROR_INVALID_CALLBACK;
    });
}

ZOR_ERROR_CODE ZORBLERegConnStateCallback(int ID, ZORConnStateCallback cb)
{
    return onTableObject(__func__, ID, ZOR_ERROR_INVALID_ID, [&](CZOR &z) {
        return cb ? z.BLERegConnStateCallback(cb) : ZOR_ERROR_INVALID_CALLBACK;
    });
}

// The exchange's own result is not reported.
ZOR_ERROR_CODE ZORBLESendData(int ID, int iCmd, char *pData, int iLen, bool bRead, char *pOut)
{
    return onTableObject(__func__, ID, ZOR_ERROR_INVALID_ID, [&](CZOR &z) {
        // Caller mistakes get 3: a negative length, or a buffer missing.
        if (iLen < 0 || (iLen > 0 && !pData) || (bRead && !pOut))
            return ZOR_ERROR_INVALID_VALUE;
        z.BLESendData(iCmd, pData, iLen, bRead, pOut);
        return ZOR_SUCCESS;
    });
}

ZOR_ERROR_CODE ZORBLEgetAllInfo(int ID, ZOR_ALL_INFO *pInfo)
{
    return onBluetoothId(__func__, ID, "get zor all info failed\n", [&](CZOR &z) {
        if (!pInfo)
            return static_cast<int>(ZOR_ERROR_INVALID_VALUE);
        std::memset(pInfo, 0, sizeof *pInfo);
        return z.BLEGetAllInfo(pInfo);
    });
}

ZOR_ERROR_CODE ZORBLEStartUpdate(int ID, int iArg)
{
    return onBluetoothId(__func__, ID, "Start update failed.\n", [&](CZOR &z) { return z.BLEStartUpdate(iArg); });
}

ZOR_ERROR_CODE ZORBLEWriteUpdateFile(int ID, ZOR_BLE_FILE_BUF buf)
{
    return onBluetoothId(__func__, ID, "Write update file failed. err:%d\n",
                         [&](CZOR &z) { return z.BLEWriteUpdateFile(buf); });
}

} // extern "C"
