// The ZOR_SIM description of virtual focusers.
#include "sim/sim_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

using zorsim::Model;
using zorsim::parseDescription;

namespace {

TEST(Description, ModelsFirmwareAndReportSizesWithTheirDefaults)
{
    auto c = parseDescription("pro@382,n@370,old@321:16");
    ASSERT_EQ(c.size(), 3u);
    EXPECT_EQ(c[0].model, Model::Pro);
    EXPECT_EQ(c[1].model, Model::N);
    EXPECT_EQ(c[2].model, Model::Old);
    EXPECT_EQ(c[1].firmware, 370);
    EXPECT_EQ(c[2].reportSize, 16);

    c = parseDescription(" Pro , zorn@380:16 , old ");
    ASSERT_EQ(c.size(), 3u);
    EXPECT_EQ(c[0].firmware, 382);
    EXPECT_EQ(c[0].reportSize, 64);
    EXPECT_EQ(c[1].firmware, 380);
    EXPECT_EQ(c[1].reportSize, 16);
    EXPECT_EQ(c[2].firmware, 321);
    EXPECT_EQ(c[2].reportSize, 16);
    EXPECT_TRUE(parseDescription("  ").empty());
}

TEST(Description, CountAndOptions)
{
    auto c = parseDescription("2*pro@336:16/pos=1000/max=50000/speed=500/temp=-5.5/alias=dome/ble=north"
                              "/sn=0011223344556677/hand/noprobe/newfw=383/restart=5");
    ASSERT_EQ(c.size(), 2u);
    const zorsim::DeviceConfig &d = c[1];
    EXPECT_EQ(d.firmware, 336);
    EXPECT_EQ(d.reportSize, 16);
    EXPECT_EQ(d.position, 1000);
    EXPECT_EQ(d.maxStep, 50000);
    EXPECT_EQ(d.stepsPerSecond, 500);
    EXPECT_DOUBLE_EQ(d.temperature, -5.5);
    EXPECT_EQ(d.alias, "dome");
    EXPECT_EQ(d.bleName, "north");
    EXPECT_EQ(d.serial[1], 0x11);
    EXPECT_EQ(d.serial[7], 0x77);
    EXPECT_TRUE(d.handController);
    EXPECT_FALSE(d.probeAttached);
    EXPECT_EQ(d.firmwareAfterUpdate, 383);
    EXPECT_EQ(d.restartTime.count(), 5);
}

std::string refusal(const std::string &description)
{
    try {
        parseDescription(description);
    } catch (const std::invalid_argument &e) {
        return e.what();
    }
    return "";
}

TEST(Description, MistakesAreRefusedNamingTheEntryWithOneWordingPerRule)
{
    const struct {
        std::vector<std::string> descriptions;
        std::string reason;
    } rules[] = {
        {{"tele"}, "the model must be pro, n or old"},
        {{"pro:8", "pro:32", "pro:", "pro:016"}, "the report size must be 16 or 64"},
        {{"pro/temp=nan", "pro/temp=inf", "pro/temp=-inf", "pro/temp=warm", "pro/temp=251"},
         "temp must be a number of degrees Celsius from -100 to 250"},
        {{"pro@", "pro@x", "pro@99999", "pro@+382"},
         "the firmware version must be a whole number from 0 to 25599"},
        {{"pro/pos=-1", "pro/pos= 5"}, "pos must be a whole number from 0 to 600000"},
        {{"0*pro"}, "the count must be a whole number from 1 to 50"},
        {{"pro,,n"}, "empty entry"},
        {{"pro/alias=toolongname"}, "alias holds at most 8 characters"},
        {{"pro/sn=12"}, "sn must be 16 hexadecimal digits"},
        {{"pro/wat", "pro/hand=1"}, "unknown option"},
    };
    for (const auto &rule : rules)
        for (const std::string &d : rule.descriptions)
            EXPECT_THAT(refusal(d), testing::HasSubstr(rule.reason)) << d;
    EXPECT_EQ(refusal("pro, tele@1"), "\"tele@1\": the model must be pro, n or old");
}

} // namespace
