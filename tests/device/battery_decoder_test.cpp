#include "device/zor.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<int32_t> fields(const ZOR_BATTERY_INFO &i)
{
    return {i.battery_temp,           i.battery_vol,    i.battery_charge_curr, i.battery_percentage,
            i.battery_discharge_curr, i.battery_health, i.battery_charge_vol,  i.Reserved};
}

TEST(BatteryDecoder, TemperatureBoundsAndLengths)
{
    CZOR device;
    ZOR_BATTERY_INFO info;
    // Byte 0 unused, temperature + 100, voltage, charge current, percentage,
    // discharge current, health, charge voltage.
    std::vector<unsigned char> d{0xAA, 0, 0x30, 0x39, 0x00, 0x64, 0x50, 0x01, 0x2C, 0x5F, 0x41, 0x1A};
    for (unsigned char raw : {60, 187}) {
        d[1] = raw;
        ASSERT_EQ(device.parseBatteryInfo(d.data(), d.size(), &info), ZOR_SUCCESS);
        EXPECT_EQ(fields(info), (std::vector<int32_t>{raw - 100, 0x3039, 0x64, 0x50, 0x012C, 0x5F, 0x411A, 0}));
    }
    for (unsigned char raw : {0, 59, 188, 255}) {
        d[1] = raw;
        EXPECT_EQ(device.parseBatteryInfo(d.data(), d.size(), &info), ZOR_ERROR_BATTERY_DATA);
        EXPECT_EQ(fields(info), std::vector<int32_t>(8, -1));
    }
    d[1] = 125;
    EXPECT_EQ(device.parseBatteryInfo(d.data(), 10, &info), ZOR_ERROR_BAD_DATA);
    // Eleven bytes are accepted; the twelfth, not given, reads as 0.
    ASSERT_EQ(device.parseBatteryInfo(d.data(), 11, &info), ZOR_SUCCESS);
    EXPECT_EQ(info.battery_charge_vol, 0x4100);
    EXPECT_EQ(device.parseBatteryInfo(nullptr, 12, &info), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(device.parseBatteryInfo(d.data(), 12, nullptr), ZOR_ERROR_INVALID_VALUE);
}

} // namespace
