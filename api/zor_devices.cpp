// Enumeration, IDs, open, close and the property record.
#include "api/call_guard.h"
#include "api/device_table.h"
#include "device/zor.h"
#include "support/log.h"

#include <hidapi.h>

#include <cstring>
#include <memory>

using namespace zor::api;

namespace {

constexpr char kLogModule[] = "ZOR_focuser";
constexpr int kAliasBytes = 8;
constexpr int kDefaultMaxStep = 60000;

void copyPath(char (&to)[kPathBytes], const char *from)
{
    const size_t length = strnlen(from, kPathBytes - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
}

void scanDevices()
{
    iConnectedZOR = 0;
    hid_device_info *list = hid_enumerate(ZOR_VENDOR_ID, ZOR_PRODUCT_ID);
    for (hid_device_info *d = list; d && iConnectedZOR < ZOR_MAX_NUM; d = d->next)
        copyPath(DevPathScan[iConnectedZOR++], d->path ? d->path : "");
    hid_free_enumeration(list);
}

bool wasScanned(const char *path)
{
    for (int i = 0; i < iConnectedZOR; ++i)
        if (std::strcmp(DevPathScan[i], path) == 0)
            return true;
    return false;
}

int idOfPath(const char *path)
{
    for (int id = 0; id < ZOR_MAX_NUM; ++id)
        if (DevPathArray[id][0] && std::strcmp(DevPathArray[id], path) == 0)
            return id;
    return -1;
}

void closeUnpluggedDevices()
{
    for (int id = 0; id < ZOR_MAX_NUM; ++id) {
        CZOR *device = pZOR[id].load();
        if (device && !wasScanned(device->path()))
            ZORClose(id);
    }
}

int lowestFreeUsbId()
{
    for (int id = 0; id < ZOR_BLE_ID_BASE; ++id)
        if (!DevPathArray[id][0])
            return id;
    return -1;
}

// Gives every scanned path an ID: its old one, or the lowest free one. The
// IDs of paths gone are freed first, so that a new path can take one at once.
// USB IDs stay below 50, since IDs from 50 up select the Bluetooth branch of
// every call: a path left without an ID is dropped from the enumeration.
void assignIds()
{
    for (int id = 0; id < ZOR_MAX_NUM; ++id)
        if (!wasScanned(DevPathArray[id]))
            DevPathArray[id][0] = '\0';
    int counted = 0;
    for (int i = 0; i < iConnectedZOR; ++i) {
        int id = idOfPath(DevPathScan[i]);
        if (id < 0) {
            id = lowestFreeUsbId();
            if (id < 0)
                continue;
            copyPath(DevPathArray[id], DevPathScan[i]);
        }
        if (counted != i)
            copyPath(DevPathScan[counted], DevPathScan[i]);
        ++counted;
    }
    iConnectedZOR = counted;
}

// "ZOR", or "ZOR(alias)" when the device has an alias, and its step range.
void describe(CZOR &device, bool ble, ZOR_INFO *pInfo, const char *aliasFailure)
{
    unsigned char alias[kAliasBytes] = {};
    if (device.getAlias(alias, kAliasBytes, ble) != ZOR_SUCCESS)
        ZORDbgPrint("ZORGetProperty", aliasFailure);
    const size_t aliasLength = strnlen(reinterpret_cast<const char *>(alias), kAliasBytes);
    if (aliasLength > 0) {
        std::strcat(pInfo->Name, "(");
        std::strncat(pInfo->Name, reinterpret_cast<const char *>(alias), aliasLength);
        std::strcat(pInfo->Name, ")");
        ZOR_LOG_AS("ZORGetProperty", "Alias Name: %s", pInfo->Name);
    }
    pInfo->MaxStep = kDefaultMaxStep;
    int range = kDefaultMaxStep;
    if (device.getStepRange(&range, false) == ZOR_SUCCESS)
        pInfo->MaxStep = range;
}

ZOR_ERROR_CODE usbProperty(int ID, ZOR_INFO *pInfo)
{
    if (!hasPath(ID))
        return ZOR_ERROR_INVALID_ID;
    const bool openedHere = pZOR[ID].load() == nullptr;
    // The property call takes no lock of its own. It does not "release" the
    // position-reset lock either: no thread can hold that lock here, so the
    // release of a recursive lock would fail and change nothing, and an
    // unlock of an unheld lock is undefined to thread checkers. Its busy
    // count is left to the callers that raised it.
    if (openedHere && ZOROpen(ID) != ZOR_SUCCESS)
        return ZOR_SUCCESS;
    describe(*pZOR[ID].load(), false, pInfo, "Failed to get alias\n");
    if (openedHere)
        ZORClose(ID);
    return ZOR_SUCCESS;
}

} // namespace

extern "C" {

int ZORGetNum(void)
{
    guarded(__func__, [] {
        scanDevices();
        closeUnpluggedDevices();
        assignIds();
        return ZOR_SUCCESS;
    });
    return iConnectedZOR;
}

ZOR_ERROR_CODE ZORGetID(int index, int *ID)
{
    if (!ID)
        return ZOR_ERROR_INVALID_VALUE;
    if (index < 0 || index >= iConnectedZOR)
        return ZOR_ERROR_INVALID_INDEX;
    const int id = idOfPath(DevPathScan[index]);
    *ID = id;
    return id < 0 ? ZOR_ERROR_INVALID_INDEX : ZOR_SUCCESS;
}

ZOR_ERROR_CODE ZOROpen(int ID)
{
    return guarded(__func__, [&] {
        if (!hasPath(ID))
            return ZOR_ERROR_INVALID_ID;
        if (pZOR[ID].load()) {
            ZORDbgPrint(__func__, "focuser of index%d is already opened\n", ID);
            return ZOR_SUCCESS;
        }
        // The object is published only when it is open and its lock record
        // exists, so that a caller on another thread never finds it half made.
        auto device = std::make_unique<CZOR>();
        ZOR_LOG_AS("ZOROpen", "ID%d: %s", ID, DevPathArray[ID]);
        if (!device->open(DevPathArray[ID]))
            return ZOR_ERROR_REMOVED;
        if (!MutexCamPt[ID].Initialised && initLockRecord(MutexCamPt[ID]) != 0) {
            device->close();
            return ZOR_ERROR_GENERAL_ERROR;
        }
        pZOR[ID] = device.release();
        return ZOR_SUCCESS;
    });
}

ZOR_ERROR_CODE ZORClose(int ID)
{
    return guarded(__func__, [&] {
        if (!hasPath(ID))
            return ZOR_ERROR_INVALID_ID;
        CZOR *device = pZOR[ID].load();
        if (!device)
            return ZOR_SUCCESS;
        LockRecord &record = MutexCamPt[ID];
        const bool initialised = record.Initialised;
        if (initialised)
            lockAllFamilies(record);
        device->close();
        delete device;
        pZOR[ID] = nullptr;
        ZORDbgPrint(__func__, "pZOR deleted\n");
        if (!initialised)
            return ZOR_SUCCESS;
        record.Initialised = false;
        ZORDbgPrint(__func__, "->\n");
        releaseAndDestroyFamilies(record);
        ZORDbgPrint(__func__, "<-\n");
        return ZOR_SUCCESS;
    });
}

ZOR_ERROR_CODE ZORGetProperty(int ID, ZOR_INFO *pInfo)
{
    return guarded(__func__, [&] {
        if (!pInfo)
            return ZOR_ERROR_INVALID_VALUE;
        pInfo->ID = ID;
        std::memset(pInfo->Name, 0, sizeof pInfo->Name);
        pInfo->MaxStep = 0;
        std::strcpy(pInfo->Name, "ZOR");
        if (ID < ZOR_BLE_ID_BASE)
            return usbProperty(ID, pInfo);
        if (!isTableId(ID))
            return ZOR_ERROR_INVALID_ID;
        CZOR *device = pZOR[ID].load();
        if (!device)
            return ZOR_ERROR_BLE_NOT_CONNECTED;
        describe(*device, true, pInfo, "Failed to get alias.");
        return ZOR_SUCCESS;
    });
}

} // extern "C"
