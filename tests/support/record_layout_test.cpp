// The public records must have the same layout in C and C++, and the layout
// client programs were built against: sizes and offsets below are fixed.
#include "ZOR_focuser.h"
#include "record_layout.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>

namespace {

struct Layout {
    size_t offset;
    size_t size;
};

const std::map<std::string, Layout> kExpectedFields = {
    {"ZOR_INFO.ID", {0, 4}},
    {"ZOR_INFO.Name", {4, 64}},
    {"ZOR_INFO.MaxStep", {68, 4}},
    {"ZOR_ID.id", {0, 8}},
    {"ZOR_TYPE.Type", {0, 16}},
    {"ZOR_ERROR_MSG.MotorErrorCode", {0, 3}},
    {"ZOR_ERROR_MSG.BatteryErrorCode", {3, 3}},
    {"ZOR_BATTERY_INFO.battery_temp", {0, 4}},
    {"ZOR_BATTERY_INFO.battery_charge_vol", {24, 4}},
    {"ZOR_BATTERY_INFO.Reserved", {28, 4}},
    {"ZOR_CONTROL_CAPS.Name", {0, 32}},
    {"ZOR_CONTROL_CAPS.Description", {32, 128}},
    {"ZOR_CONTROL_CAPS.IsSupported", {160, 1}},
    {"ZOR_CONTROL_CAPS.IsWritable", {161, 1}},
    {"ZOR_CONTROL_CAPS.Reserved", {164, 12}},
    {"ZOR_CONTROL_CAPS.ControlType", {176, 4}},
    {"ZOR_CONTROL_CAPS.Unused", {180, 32}},
    {"ZOR_ALL_INFO.IsMoving", {0, 4}},
    {"ZOR_ALL_INFO.Temperature", {12, 4}},
    {"ZOR_ALL_INFO.LedState", {36, 4}},
    {"ZOR_ALL_INFO.StatusBytes", {40, 4}},
    {"ZOR_ALL_INFO.Battery", {44, 32}},
    {"BLE_DEVICE_INFO.Name", {0, 64}},
    {"BLE_DEVICE_INFO.Address", {64, 64}},
    {"BLE_DEVICE_INFO.RSSI", {128, 4}},
    {"BLE_DEVICE_INFO.BluetoothAddress", {136, 8}},
    {"ZOR_HID_FILE_BUF.Length", {0, 4}},
    {"ZOR_HID_FILE_BUF.Data", {4, 60}},
    {"ZOR_BLE_FILE_BUF.Length", {0, 4}},
    {"ZOR_BLE_FILE_BUF.Data", {4, 480}},
};

const std::map<std::string, size_t> kExpectedSizes = {
    {"ZOR_INFO", 72},         {"ZOR_ID", 8},           {"ZOR_TYPE", 16},
    {"ZOR_ERROR_MSG", 6},     {"ZOR_BATTERY_INFO", 32}, {"ZOR_CONTROL_CAPS", 212},
    {"ZOR_ALL_INFO", 76},     {"BLE_DEVICE_INFO", 144}, {"ZOR_HID_FILE_BUF", 64},
    {"ZOR_BLE_FILE_BUF", 484}, {"ZOR_ERROR_CODE", 4},
};

#define CXX_FIELD(rec, f) {#rec "." #f, {offsetof(rec, f), sizeof(rec::f)}}

const std::map<std::string, Layout> kCxxFields = {
    CXX_FIELD(ZOR_INFO, ID), CXX_FIELD(ZOR_INFO, Name), CXX_FIELD(ZOR_INFO, MaxStep),
    CXX_FIELD(ZOR_ID, id), CXX_FIELD(ZOR_TYPE, Type),
    CXX_FIELD(ZOR_ERROR_MSG, MotorErrorCode), CXX_FIELD(ZOR_ERROR_MSG, BatteryErrorCode),
    CXX_FIELD(ZOR_BATTERY_INFO, battery_temp), CXX_FIELD(ZOR_BATTERY_INFO, battery_charge_vol),
    CXX_FIELD(ZOR_BATTERY_INFO, Reserved),
    CXX_FIELD(ZOR_CONTROL_CAPS, Name), CXX_FIELD(ZOR_CONTROL_CAPS, Description),
    CXX_FIELD(ZOR_CONTROL_CAPS, IsSupported), CXX_FIELD(ZOR_CONTROL_CAPS, IsWritable),
    CXX_FIELD(ZOR_CONTROL_CAPS, Reserved), CXX_FIELD(ZOR_CONTROL_CAPS, ControlType),
    CXX_FIELD(ZOR_CONTROL_CAPS, Unused),
    CXX_FIELD(ZOR_ALL_INFO, IsMoving), CXX_FIELD(ZOR_ALL_INFO, Temperature), CXX_FIELD(ZOR_ALL_INFO, LedState),
    CXX_FIELD(ZOR_ALL_INFO, StatusBytes), CXX_FIELD(ZOR_ALL_INFO, Battery),
    CXX_FIELD(BLE_DEVICE_INFO, Name), CXX_FIELD(BLE_DEVICE_INFO, Address), CXX_FIELD(BLE_DEVICE_INFO, RSSI),
    CXX_FIELD(BLE_DEVICE_INFO, BluetoothAddress),
    CXX_FIELD(ZOR_HID_FILE_BUF, Length), CXX_FIELD(ZOR_HID_FILE_BUF, Data),
    CXX_FIELD(ZOR_BLE_FILE_BUF, Length), CXX_FIELD(ZOR_BLE_FILE_BUF, Data),
};

#define CXX_SIZE(rec) {#rec, sizeof(rec)}

const std::map<std::string, size_t> kCxxSizes = {
    CXX_SIZE(ZOR_INFO),         CXX_SIZE(ZOR_ID),           CXX_SIZE(ZOR_TYPE),     CXX_SIZE(ZOR_ERROR_MSG),
    CXX_SIZE(ZOR_BATTERY_INFO), CXX_SIZE(ZOR_CONTROL_CAPS), CXX_SIZE(ZOR_ALL_INFO), CXX_SIZE(BLE_DEVICE_INFO),
    CXX_SIZE(ZOR_HID_FILE_BUF), CXX_SIZE(ZOR_BLE_FILE_BUF), CXX_SIZE(ZOR_ERROR_CODE),
};

TEST(RecordLayout, CAndCxxGiveTheLayoutClientsWereBuiltAgainst)
{
    size_t count = 0;
    const zor_field_layout *fields = zor_c_field_layouts(&count);
    ASSERT_EQ(count, kExpectedFields.size());
    for (size_t i = 0; i < count; ++i) {
        const Layout &expected = kExpectedFields.at(fields[i].name);
        EXPECT_EQ(fields[i].offset, expected.offset) << "C " << fields[i].name;
        EXPECT_EQ(fields[i].size, expected.size) << "C " << fields[i].name;
    }
    for (const auto &[name, layout] : kCxxFields) {
        EXPECT_EQ(layout.offset, kExpectedFields.at(name).offset) << "C++ " << name;
        EXPECT_EQ(layout.size, kExpectedFields.at(name).size) << "C++ " << name;
    }

    const zor_field_layout *records = zor_c_record_sizes(&count);
    ASSERT_EQ(count, kExpectedSizes.size());
    for (size_t i = 0; i < count; ++i)
        EXPECT_EQ(records[i].size, kExpectedSizes.at(records[i].name)) << "C " << records[i].name;
    EXPECT_EQ(kCxxSizes, kExpectedSizes) << "C++";
}

} // namespace
