// The ZOR_SIM description of virtual focusers.
#include "sim/sim_control.h"

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

TEST(Description, MistakesAreRefusedNamingTheEntry)
{
    for (const char *bad : {"tele", "pro@", "pro@x", "pro@99999", "pro:32", "pro:", "pro,,n", "0*pro",
                            "pro/pos=-1", "pro/alias=toolongname", "pro/sn=12", "pro/wat", "pro/hand=1",
                            "pro/temp=warm"})
        EXPECT_THROW(parseDescription(bad), std::invalid_argument) << bad;
    try {
        parseDescription("pro, tele@1");
        FAIL();
    } catch (const std::invalid_argument &e) {
        EXPECT_NE(std::string(e.what()).find("\"tele@1\""), std::string::npos) << e.what();
    }
}

} // namespace
