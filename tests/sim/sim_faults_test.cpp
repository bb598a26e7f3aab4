// Faults injected from a test, as the library's transport meets them.
#include "sim_test_util.h"

using namespace std::chrono_literals;
using zorsim::Direction;

namespace {

class Faults : public SimTest {
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        zorsim::DeviceConfig c;
        c.stallTimeout = 1ms;
        zorsim::addDevice(c);
        h = open(0);
    }
    hid_device *h = nullptr;
};

TEST_F(Faults, FailedSendsReturnTheChosenCodeAndNeverReachTheFirmware)
{
    zorsim::failNext(0, Direction::Send, 1);
    EXPECT_EQ(send(h, control(1, 100)), -1);
    EXPECT_EQ(narrow(hid_error(h)), "ioctl (SFEATURE): Broken pipe");
    zorsim::failNext(0, Direction::Send, 2, -5, EIO);
    EXPECT_EQ(send(h, control(1, 100)), -5);
    EXPECT_EQ(send(h, control(1, 100)), -5);
    EXPECT_EQ(narrow(hid_error(h)), "ioctl (SFEATURE): Input/output error");
    EXPECT_FALSE(zorsim::state(0).moving);
    EXPECT_TRUE(zorsim::receivedReports(0).empty());

    EXPECT_EQ(send(h, control(1, 100)), 64);
    EXPECT_TRUE(zorsim::state(0).moving);
}

TEST_F(Faults, FailedReadLeavesTheReplyForTheNextRead)
{
    send(h, {0x02, 0x03});
    zorsim::failNext(0, Direction::Read, 1, -3, EIO);
    int n = 0;
    read(h, &n);
    EXPECT_EQ(n, -3);
    EXPECT_EQ(read(h)[3], 0x03);
}

TEST_F(Faults, GarbledReplyHasItsMarksInvertedOnce)
{
    zorsim::garbleNextReplies(0, 1);
    Report bad = ask(h, 0x03);
    EXPECT_EQ(bad[1], 0x81);
    EXPECT_EQ(bad[2], 0xA5);
    EXPECT_EQ(bad[3], 0xFC);
    Report good = ask(h, 0x03);
    EXPECT_EQ(good[1], 0x7E);
    EXPECT_TRUE(std::equal(good.begin() + 4, good.end(), bad.begin() + 4));
}

TEST_F(Faults, OpensFailTheChosenNumberOfTimes)
{
    zorsim::failNextOpens(0, 1);
    EXPECT_EQ(hid_open_path("sim:0"), nullptr);
    EXPECT_EQ(narrow(hid_error(nullptr)), "Failed to open a device with path 'sim:0': Permission denied");
    EXPECT_NE(open(0), nullptr);
    EXPECT_EQ(hid_open_path("sim:9"), nullptr);
    EXPECT_EQ(narrow(hid_error(nullptr)), "Failed to open a device with path 'sim:9': No such file or directory");
}

TEST_F(Faults, MuteOrSlowDeviceFailsOrAnswersInFull)
{
    zorsim::setStalled(0, true);
    EXPECT_EQ(send(h, {0x02, 0x03}), -1);
    EXPECT_EQ(narrow(hid_error(h)), "ioctl (SFEATURE): Connection timed out");
    int n = 0;
    read(h, &n);
    EXPECT_EQ(n, -1);
    EXPECT_TRUE(zorsim::receivedReports(0).empty());
    zorsim::setStalled(0, false);
    zorsim::setLatency(0, 2ms);
    EXPECT_EQ(ask(h, 0x04)[7], 'E');
    EXPECT_EQ(zorsim::transfers(0).size(), 4u);
}

TEST_F(Faults, HandleOfAnUnpluggedDeviceStaysDeadAfterReplug)
{
    zorsim::unplug(0);
    EXPECT_EQ(send(h, {0x02, 0x03}), -1);
    EXPECT_EQ(narrow(hid_error(h)), "ioctl (SFEATURE): No such device");
    EXPECT_EQ(hid_open_path("sim:0"), nullptr);
    zorsim::plug(0);
    EXPECT_EQ(send(h, {0x02, 0x03}), -1);
    EXPECT_EQ(ask(open(0), 0x03)[3], 0x03);
}

} // namespace
