/* The public records as a C compiler lays them out. */
#include "ZOR_focuser.h"

#include <stddef.h>

#include "record_layout.h"

#define FIELD(rec, f) {#rec "." #f, offsetof(rec, f), sizeof(((rec *)0)->f)}

static const struct zor_field_layout fields[] = {
    FIELD(ZOR_INFO, ID), FIELD(ZOR_INFO, Name), FIELD(ZOR_INFO, MaxStep),
    FIELD(ZOR_ID, id), FIELD(ZOR_TYPE, Type),
    FIELD(ZOR_ERROR_MSG, MotorErrorCode), FIELD(ZOR_ERROR_MSG, BatteryErrorCode),
    FIELD(ZOR_BATTERY_INFO, battery_temp), FIELD(ZOR_BATTERY_INFO, battery_charge_vol),
    FIELD(ZOR_BATTERY_INFO, Reserved),
    FIELD(ZOR_CONTROL_CAPS, Name), FIELD(ZOR_CONTROL_CAPS, Description),
    FIELD(ZOR_CONTROL_CAPS, IsSupported), FIELD(ZOR_CONTROL_CAPS, IsWritable),
    FIELD(ZOR_CONTROL_CAPS, Reserved), FIELD(ZOR_CONTROL_CAPS, ControlType),
    FIELD(ZOR_CONTROL_CAPS, Unused),
    FIELD(ZOR_ALL_INFO, IsMoving), FIELD(ZOR_ALL_INFO, Temperature), FIELD(ZOR_ALL_INFO, LedState),
    FIELD(ZOR_ALL_INFO, StatusBytes), FIELD(ZOR_ALL_INFO, Battery),
    FIELD(BLE_DEVICE_INFO, Name), FIELD(BLE_DEVICE_INFO, Address), FIELD(BLE_DEVICE_INFO, RSSI),
    FIELD(BLE_DEVICE_INFO, BluetoothAddress),
    FIELD(ZOR_HID_FILE_BUF, Length), FIELD(ZOR_HID_FILE_BUF, Data),
    FIELD(ZOR_BLE_FILE_BUF, Length), FIELD(ZOR_BLE_FILE_BUF, Data),
};

static const struct zor_field_layout records[] = {
    {"ZOR_INFO", 0, sizeof(ZOR_INFO)},
    {"ZOR_ID", 0, sizeof(ZOR_ID)},
    {"ZOR_TYPE", 0, sizeof(ZOR_TYPE)},
    {"ZOR_ERROR_MSG", 0, sizeof(ZOR_ERROR_MSG)},
    {"ZOR_BATTERY_INFO", 0, sizeof(ZOR_BATTERY_INFO)},
    {"ZOR_CONTROL_CAPS", 0, sizeof(ZOR_CONTROL_CAPS)},
    {"ZOR_ALL_INFO", 0, sizeof(ZOR_ALL_INFO)},
    {"BLE_DEVICE_INFO", 0, sizeof(BLE_DEVICE_INFO)},
    {"ZOR_HID_FILE_BUF", 0, sizeof(ZOR_HID_FILE_BUF)},
    {"ZOR_BLE_FILE_BUF", 0, sizeof(ZOR_BLE_FILE_BUF)},
    {"ZOR_ERROR_CODE", 0, sizeof(ZOR_ERROR_CODE)},
};

const struct zor_field_layout *zor_c_field_layouts(size_t *count)
{
    *count = sizeof fields / sizeof fields[0];
    return fields;
}

const struct zor_field_layout *zor_c_record_sizes(size_t *count)
{
    *count = sizeof records / sizeof records[0];
    return records;
}
