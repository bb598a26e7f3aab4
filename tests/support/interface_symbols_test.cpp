// The shared library exports the interface and nothing else: plain C names
// for most calls, C++ (type-encoded) names for a few.
#include "ZOR_focuser.h"

#include "home_sandbox.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

namespace {

const std::set<std::string> kPlainNames = {
    "ZORGetSDKVersion", "ZORGetProductIDs", "ZORCheck", "ZORDbgPrint", "ZORGetNum", "ZORGetID",
    "ZORGetProperty", "ZOROpen", "ZORClose", "ZORMove", "ZORStop", "ZORIsMoving", "ZORGetPosition",
    "ZORResetPostion", "ZORGetTemp", "ZORSetBeep", "ZORGetBeep", "ZORSetMaxStep", "ZORGetMaxStep",
    "ZORStepRange", "ZORSetBacklash", "ZORGetBacklash", "ZORSetReverse", "ZORGetReverse",
    "ZORGetFirmwareVersion", "ZORGetSerialNumber", "ZORSetID", "ZORGetBatteryInfo", "ZORGetType",
    "ZORGetBLEName", "ZORSetBLEName", "ZORSetShippingMode", "ZORGetLedState", "ZORSetLedState",
    "ZORGetNumOfControls", "ZORGetControlCaps", "ZORGetErrorCode", "ZORGetReason", "ZORBLEScan",
    "ZORBLEConnect", "ZORBLEDisconnect", "ZORBLEPair", "ZORBLEClearPair", "ZORBLERegPairStateCallback",
    "ZORBLERegConnStateCallback", "ZORBLESendData", "ZORBLEgetAllInfo", "ZORBLEStartUpdate",
    "ZORBLEWriteUpdateFile", "ZORHidStartUpdate", "ZORHidWriteUpdateFile", "ZORHidEndUpdate",
};

const std::set<std::string> kTypeEncodedNames = {
    "_Z15get_ZOR_SDK_Verv",   "_Z14ZORSetMaxForceii",  "_Z14ZORGetMaxForceiPi",
    "_Z11ZORGetSpeediPi",     "_Z11ZORSetSpeedii",     "_Z10ZORSendCMDiPhibS_",
    "_Z16ZORSetRepeatTimeii", "_Z14ZORSetClearErrib",
};

std::set<std::string> exportedFunctions()
{
    const std::string command = std::string("nm -D --defined-only '") + ZOR_LIBRARY_PATH + "'";
    std::set<std::string> names;
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return names;
    char line[512];
    while (fgets(line, sizeof line, pipe)) {
        std::istringstream fields(line);
        std::string address, kind, name;
        if (fields >> address >> kind >> name)
            names.insert(name);
    }
    pclose(pipe);
    return names;
}

TEST(InterfaceSymbols, OnlyInterfaceFunctionsAreExported)
{
    const std::set<std::string> exported = exportedFunctions();
    ASSERT_FALSE(exported.empty());
    for (const std::string &name : exported)
        EXPECT_TRUE(kPlainNames.count(name) || kTypeEncodedNames.count(name)) << "unexpected export " << name;
}

// Every call is present under its own kind of name.
TEST(InterfaceSymbols, EveryCallIsExportedUnderItsSymbolKind)
{
    const std::set<std::string> exported = exportedFunctions();
    for (const std::string &name : kPlainNames)
        EXPECT_TRUE(exported.count(name)) << name;
    for (const std::string &name : kTypeEncodedNames)
        EXPECT_TRUE(exported.count(name)) << name;
    EXPECT_FALSE(exported.count("ZORSetSpeed")) << "exported with C++ linkage only";
}

// The library as built here has no platform Bluetooth: it says so, at once.
TEST(InterfaceSymbols, BluetoothIsReportedUnavailable)
{
    zor_test::sandboxHome(); // the device objects start the log
    BLE_DEVICE_INFO list[2];
    int found = 7, id = -1;
    EXPECT_EQ(ZORBLEScan(10, list, 2, &found), ZOR_ERROR_BLE_UNAVAILABLE);
    EXPECT_EQ(found, 7);
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(ZORBLEConnect("ZOR Pro_1", "", &id), ZOR_ERROR_BLE_CONNECT_FAILED);
        EXPECT_EQ(id, ZOR_BLE_ID_BASE);
    }
}

TEST(Identity, VersionProductAndVendorChecks)
{
    EXPECT_STREQ(get_ZOR_SDK_Ver(), "1, 7, 7, 0");
    EXPECT_EQ(ZORGetSDKVersion(), get_ZOR_SDK_Ver());

    EXPECT_EQ(ZORGetProductIDs(nullptr), 1);
    int pids[2] = {-1, -1};
    EXPECT_EQ(ZORGetProductIDs(pids), 1);
    EXPECT_EQ(pids[0], 0x1F10);
    EXPECT_EQ(pids[1], -1);

    EXPECT_EQ(ZORCheck(ZOR_VENDOR_ID, ZOR_PRODUCT_ID), 1);
    EXPECT_EQ(ZORCheck(ZOR_VENDOR_ID + 1, ZOR_PRODUCT_ID), 0);
    EXPECT_EQ(ZORCheck(ZOR_VENDOR_ID, ZOR_PRODUCT_ID + 1), 0);
}

} // namespace
