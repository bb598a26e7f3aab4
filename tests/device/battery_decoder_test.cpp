#include "device/zor.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// Byte 0 unused, then temperature + 100, voltage, charge current, percentage,
// discharge current, health, charge voltage.
Bytes block(unsigned char tempByte)
{
    return {0xAA, tempByte, 0x30, 0x39, 0x00, 0x64, 0x50, 0x01, 0x2C, 0x5F, 0x41, 0x1A};
}

TEST(BatteryDecoder, TemperatureBoundsDecideValidity)
{
    CZOR device;
    ZOR_BATTERY_INFO info;
    for (unsigned char raw : {60, 187}) {
        const Bytes data = block(raw);
        ASSERT_EQ(device.parseBatteryInfo(data.data(), data.size(), &info), ZOR_SUCCESS);
        EXPECT_EQ(info.battery_temp, raw - 100);
        EXPECT_EQ(info.battery_vol, 0x3039);
        EXPECT_EQ(info.battery_charge_curr, 0x0064);
        EXPECT_EQ(info.battery_percentage, 0x50);
        EXPECT_EQ(info.battery_discharge_curr, 0x012C);
        EXPECT_EQ(info.battery_health, 0x5F);
        EXPECT_EQ(info.battery_charge_vol, 0x411A);
        EXPECT_EQ(info.Reserved, 0);
    }
    for (unsigned char raw : {0, 59, 188, 255}) {
        const Bytes data = block(raw);
        EXPECT_EQ(device.parseBatteryInfo(data.data(), data.size(), &info), ZOR_ERROR_BATTERY_DATA);
        const int32_t *fields = &info.battery_temp;
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(fields[i], -1) << "field " << i << " raw " << int(raw);
    }
}

TEST(BatteryDecoder, LengthsAndMissingPointers)
{
    CZOR device;
    ZOR_BATTERY_INFO info{};
    Bytes data = block(125);
    EXPECT_EQ(device.parseBatteryInfo(data.data(), 10, &info), ZOR_ERROR_BAD_DATA);
    // Eleven bytes are accepted; the twelfth, not given, reads as 0.
    data.resize(11);
    ASSERT_EQ(device.parseBatteryInfo(data.data(), data.size(), &info), ZOR_SUCCESS);
    EXPECT_EQ(info.battery_temp, 25);
    EXPECT_EQ(info.battery_charge_vol, 0x4100);
    EXPECT_EQ(device.parseBatteryInfo(nullptr, 12, &info), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(device.parseBatteryInfo(data.data(), 12, nullptr), ZOR_ERROR_INVALID_VALUE);
}

} // namespace
