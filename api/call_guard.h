// How every exported call reaches a device object: the ID check, the lock
// of the call's family on the USB path, the Bluetooth path without lock, and
// the rule that no exception leaves the interface.
#pragma once

#include "api/device_table.h"
#include "device/zor.h"

#include <stdexcept>

namespace zor::api {

void logException(const char *func, const char *what);

// Runs an exported call's body. A reply too short for what a decoder reads
// surfaces as std::out_of_range and is answered as an undecodable reply.
template <typename Body>
ZOR_ERROR_CODE guarded(const char *func, Body &&body) noexcept
{
    try {
        return body();
    } catch (const std::out_of_range &e) {
        logException(func, e.what());
        return ZOR_ERROR_BLE_RESPONSE;
    } catch (const std::exception &e) {
        logException(func, e.what());
        return ZOR_ERROR_GENERAL_ERROR;
    } catch (...) {
        logException(func, "unknown exception");
        return ZOR_ERROR_GENERAL_ERROR;
    }
}

// The lock of one family of one USB ID, held while the call runs. Busy is
// raised before Initialised is read, so a close that has just cleared
// Initialised still waits for this caller. The lock is released only if it
// was taken here, so a caller woken by a close never releases a lock that
// the close is about to destroy.
class FamilyLock {
public:
    FamilyLock(LockRecord &record, int family);
    ~FamilyLock();
    FamilyLock(const FamilyLock &) = delete;
    FamilyLock &operator=(const FamilyLock &) = delete;

private:
    LockRecord &m_record;
    int m_family;
    bool m_locked = false;
};

inline ZOR_ERROR_CODE asCode(int result) { return static_cast<ZOR_ERROR_CODE>(result); }

// A call inside the object of a table ID, counted from before the object is
// looked up until the call returns, so that ZORBLEDisconnect deletes the
// object only once no call is inside it.
class TableCall {
public:
    explicit TableCall(int id) : m_count(g_bleCallsInProgress[id]) { ++m_count; }
    ~TableCall() { --m_count; }
    TableCall(const TableCall &) = delete;
    TableCall &operator=(const TableCall &) = delete;

private:
    std::atomic<int> &m_count;
};

// The object of a table ID, for a call counted by a TableCall; `absent`
// without one, and 53 on a Bluetooth ID whose session has ended when the
// call needs one.
template <typename Method>
ZOR_ERROR_CODE onBluetoothObject(int id, ZOR_ERROR_CODE absent, bool needsSession, Method &&method)
{
    const TableCall call(id);
    CZOR *device = pZOR[id].load();
    if (!device)
        return absent;
    if (needsSession && id >= ZOR_BLE_ID_BASE && !device->isBleSessionOn())
        return ZOR_ERROR_BLE_NOT_CONNECTED;
    return asCode(method(*device));
}

// USB path: an ID of 0..127 with a stored path, under the family's lock.
template <typename Method>
ZOR_ERROR_CODE onUsb(int id, int family, Method &&method)
{
    if (!hasPath(id))
        return ZOR_ERROR_INVALID_ID;
    FamilyLock lock(MutexCamPt[id], family);
    CZOR *device = pZOR[id].load();
    if (!device)
        return ZOR_ERROR_CLOSED;
    return asCode(method(*device, false));
}

// A call with both paths: IDs below 50 go over USB, the others over
// Bluetooth without lock, handing `failure` to the debug hook when they fail.
template <typename Method>
ZOR_ERROR_CODE onEitherLink(const char *func, int id, int family, const char *failure, Method &&method)
{
    return guarded(func, [&] {
        if (id < ZOR_BLE_ID_BASE)
            return onUsb(id, family, method);
        if (!isTableId(id))
            return ZOR_ERROR_INVALID_ID;
        return onBluetoothObject(id, ZOR_ERROR_BLE_NOT_CONNECTED, true, [&](CZOR &device) {
            const int result = method(device, true);
            if (result != ZOR_SUCCESS)
                ZORDbgPrint(func, failure, result);
            return result;
        });
    });
}

// A USB-only call: any ID of 0..127 with a stored path.
template <typename Method>
ZOR_ERROR_CODE onUsbOnly(const char *func, int id, int family, Method &&method)
{
    return guarded(func, [&] { return onUsb(id, family, [&](CZOR &device, bool) { return method(device); }); });
}

} // namespace zor::api
