// The firmware model's answers, seen through hidapi as the library sees them.
#include "sim_test_util.h"

#include <algorithm>
#include <cstring>

using namespace std::chrono_literals;

namespace {

class Firmware : public SimTest {};

// Each model answers the commands of the features it has, in a version
// record with its model string; a command it lacks changes nothing and
// leaves the last reply in place.
TEST_F(Firmware, EachModelAnswersTheCommandsOfItsOwnFeatures)
{
    zorsim::addDevices("pro@382,n@370,old@322:16,old@321:16");
    const std::vector<std::vector<uint8_t>> commands = {
        {0x02, 0x05}, {0x02, 0x06}, {0x02, 0x0C}, {0x02, 0x0D}, // error codes, power-off, serial, alias
        {0x02, 0x1E}, {0x02, 0x1F}, {0x1E, 0x01}, {0x0F}};      // battery, LED, Bluetooth name, update
    const struct {
        uint8_t minor, build;
        const char *model; // nullptr: no model string
        const char *answered;
        size_t size;
    } models[] = {{8, 2, "ZOR Pro", "11111111", 64},
                  {7, 0, "ZORN", "10110101", 64},
                  {2, 2, nullptr, "00110000", 16},
                  {2, 1, nullptr, "00000000", 16}};
    for (int i = 0; i < 4; ++i) {
        const auto &m = models[i];
        hid_device *h = open(i);
        const Report version = ask(h, 0x04, m.size);
        Report expected{0x01, 0x7E, 0x5A, 0x04, 3, m.minor, m.build};
        if (m.model) {
            expected[7] = 'E';
            std::strcpy(reinterpret_cast<char *>(&expected[8]), m.model);
        }
        EXPECT_EQ(version, expected) << i;
        for (std::size_t c = 0; c < commands.size(); ++c) {
            ask(h, 0x04, m.size);
            send(h, commands[c], m.size);
            EXPECT_EQ(read(h) != version, m.answered[c] == '1') << "device " << i << ", command " << c;
        }
    }
}

TEST_F(Firmware, StatusRecordLayoutFollowsTheFirmwareVersion)
{
    zorsim::addDevices("pro@336/temp=21.5,old@335:16/temp=-3.25");

    zorsim::setPosition(0, 0x012345);
    Report w = ask(open(0), 0x03);
    EXPECT_EQ(w[3], 0x03);
    EXPECT_EQ(w[4], 0);
    EXPECT_EQ(w[6] << 16 | word(w, 14), 600000); // maximum step, 24 bits
    EXPECT_EQ(w[7] << 16 | word(w, 8), 0x012345);
    EXPECT_EQ(word(w, 11), 32150); // (21.5 + 300) * 100

    zorsim::setPosition(1, 12345);
    Report n = ask(open(1), 0x03, 16);
    EXPECT_EQ(word(n, 6), 3000); // the speed word
    EXPECT_EQ(word(n, 8), 12345);
    EXPECT_EQ(word(n, 11), 29675);
    EXPECT_EQ(word(n, 14), 60000);

    // Below 336 the record carries the speed word and 16-bit steps.
    hid_device *h = handles_.back();
    send(h, {0x03, 0, 0, 0x01, 0xF4, 0x10, 0xE1, 1, 0, 0, 0, 0, 0}, 16);
    n = ask(h, 0x03, 16);
    EXPECT_EQ(word(n, 6), 500);
    EXPECT_EQ(word(n, 8), 4321);
}

TEST_F(Firmware, RawConverterFirmwareCarriesProbeOrHandControllerOnTheTemperatureInput)
{
    zorsim::addDevices("old@300:16/temp=25");
    hid_device *h = open(0);
    const int adc = word(ask(h, 0x03, 16), 11);
    EXPECT_NEAR(10.0 * adc / (1024 - adc), 100.0, 1.0); // the probe reads 100 kilo-ohms at 25 degrees

    zorsim::setHandController(0, true);
    Report r = ask(h, 0x03, 16);
    EXPECT_GE(word(r, 11), 1);
    EXPECT_LE(word(r, 11), 341);
    EXPECT_EQ(r[13] & 0x08, 0);

    zorsim::setHandController(0, false);
    zorsim::setProbeAttached(0, false);
    EXPECT_GT(word(ask(h, 0x03, 16), 11), 1020);
}

TEST_F(Firmware, HandControllerButtonsMoveTheMotorUntilTheEndOfTravel)
{
    zorsim::addDevices("pro/hand/pos=1000");
    hid_device *h = open(0);
    EXPECT_EQ(ask(h, 0x03)[13] & 0x0C, 0x08);

    zorsim::pressHandButton(0, -1);
    zorsim::advance(250ms);
    Report r = ask(h, 0x03);
    EXPECT_EQ(r[4], 0);
    EXPECT_EQ(r[13] & 0x04, 0x04);
    EXPECT_EQ(word(r, 8), 500);
    zorsim::advance(1s);
    EXPECT_EQ(zorsim::state(0).position, 0);
    EXPECT_FALSE(zorsim::state(0).motorTurning);
}

TEST_F(Firmware, CommandedMoveRunsAtItsSpeedAndEndsByItself)
{
    zorsim::addDevice(); // 30000, 2000 steps a second
    hid_device *h = open(0);
    ASSERT_EQ(send(h, control(1, 31000)), 64);
    zorsim::advance(250ms);
    Report r = ask(h, 0x03);
    EXPECT_EQ(r[4], 1);
    EXPECT_EQ(r[13] & 0x04, 0x04);
    EXPECT_EQ(word(r, 8), 30500);
    zorsim::advance(250ms);
    r = ask(h, 0x03);
    EXPECT_EQ(r[4], 0);
    EXPECT_EQ(r[13] & 0x04, 0);
    EXPECT_EQ(word(r, 8), 31000);

    // A target beyond the maximum step ends there.
    send(h, control(0, 0, 2, 40000));
    send(h, control(1, 500000));
    zorsim::advance(10s);
    EXPECT_EQ(zorsim::state(0).position, 40000);
}

TEST_F(Firmware, RecordWithoutEnabledStopsTheMoveWhereItIs)
{
    zorsim::addDevice();
    hid_device *h = open(0);
    send(h, control(1, 20000));
    zorsim::advance(1s);
    send(h, control(0, 12345)); // without a selector the step is not taken
    zorsim::advance(1s);
    EXPECT_EQ(zorsim::state(0).position, 28000);
    EXPECT_FALSE(zorsim::state(0).moving);
}

TEST_F(Firmware, ResetSelectorsSetPositionOrMaximumStepWhileOtherFieldsAlwaysApply)
{
    zorsim::addDevice();
    hid_device *h = open(0);
    send(h, control(0, 1234, 1, 50000, 7, 0xA3)); // force 10, reverse, beep
    zorsim::DeviceState s = zorsim::state(0);
    EXPECT_EQ(s.position, 1234);
    EXPECT_EQ(s.maxStep, 600000);
    EXPECT_FALSE(s.moving);
    EXPECT_EQ(s.backlash, 7);
    EXPECT_EQ(s.maxForce, 10);
    EXPECT_TRUE(s.reverse);
    EXPECT_TRUE(s.beep);

    send(h, control(0, 999, 2, 50000));
    s = zorsim::state(0);
    EXPECT_EQ(s.position, 1234);
    EXPECT_EQ(s.maxStep, 50000);
    EXPECT_EQ(s.backlash, 0);
    Report r = ask(h, 0x03);
    EXPECT_EQ(r[13], 0x00);
    EXPECT_EQ(r[6] << 16 | word(r, 14), 50000);
}

TEST_F(Firmware, ErrorStateRefusesMovesUntilCleared)
{
    zorsim::addDevice();
    hid_device *h = open(0);
    send(h, control(1, 40000));
    zorsim::advance(1s);
    zorsim::enterErrorState(0);
    Report r = ask(h, 0x03);
    EXPECT_EQ(r[4], 6);
    EXPECT_EQ(word(r, 8), 32000);
    r = ask(h, 0x05);
    EXPECT_EQ(std::string(r.begin() + 4, r.begin() + 7), "E60");

    send(h, control(1, 40000));
    zorsim::advance(1s);
    EXPECT_EQ(zorsim::state(0).position, 32000);

    send(h, {0x01, 0x0F});
    EXPECT_EQ(ask(h, 0x03)[4], 0);
    EXPECT_EQ(ask(h, 0x05)[5], '0');
    send(h, control(1, 33000));
    zorsim::advance(1s);
    EXPECT_EQ(zorsim::state(0).position, 33000);
}

TEST_F(Firmware, IdentityCommands)
{
    zorsim::addDevices("pro/sn=123456789abcdef0,old@322:16/sn=123456789abcdef0");
    const uint8_t serial[8] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    hid_device *h = open(0);
    Report r = ask(h, 0x0C);
    EXPECT_TRUE(std::equal(std::begin(serial), std::end(serial), r.begin() + 4));
    EXPECT_EQ(ask(h, 0x0D)[4], 0);
    send(h, {0x0D, 'd', 'o', 'm', 'e', '1', 0, 0, 0});
    r = ask(h, 0x0D);
    EXPECT_EQ(r[3], 0x0D);
    EXPECT_STREQ(reinterpret_cast<const char *>(&r[4]), "dome1");

    // Firmware without a model string packs the serial number into nibbles.
    r = ask(open(1), 0x0C, 16);
    const uint8_t unpacked[8] = {
        static_cast<uint8_t>(r[4] * 16 + r[5]),        static_cast<uint8_t>(r[6] * 16 + r[7]),
        static_cast<uint8_t>(r[8] * 16 + r[9]),        static_cast<uint8_t>(r[10] << 4 | r[11] >> 4),
        static_cast<uint8_t>(r[11] << 4 | r[12] >> 4), static_cast<uint8_t>(r[12] << 4 | r[13] >> 4),
        static_cast<uint8_t>(r[13] << 4 | r[14] >> 4), static_cast<uint8_t>(r[14] * 16 + r[15])};
    EXPECT_TRUE(std::equal(std::begin(serial), std::end(serial), unpacked));
}

TEST_F(Firmware, ProAnswersLedBluetoothNameBatteryAndPowerOffReason)
{
    zorsim::addDevices("pro/ble=scope");
    hid_device *h = open(0);
    EXPECT_EQ(ask(h, 0x1F)[4], 1);
    send(h, {0x20, 0});
    EXPECT_EQ(ask(h, 0x1F)[4], 0);

    send(h, {0x1E, 0x01});
    EXPECT_STREQ(reinterpret_cast<const char *>(&read(h)[4]), "scope");
    send(h, {0x1E, 0x00, 'o', 'b', 's', 'e', 'r', 'v', 'a', 't', 'o', 'r', 'y', '1'});
    send(h, {0x1E, 0x01});
    EXPECT_STREQ(reinterpret_cast<const char *>(&read(h)[4]), "observatory");

    zorsim::setBattery(0, zorsim::Battery{-40, 12600, 500, 95, 0, 98, 12700});
    Report r = ask(h, 0x1E);
    EXPECT_EQ(r[5], 60); // temperature + 100
    EXPECT_EQ(word(r, 6), 12600);
    EXPECT_EQ(word(r, 8), 500);
    EXPECT_EQ(r[10], 95);
    EXPECT_EQ(word(r, 11), 0);
    EXPECT_EQ(r[13], 98);
    EXPECT_EQ(word(r, 14), 12700);

    send(h, {0x22, 0x01, 0x00});
    EXPECT_TRUE(zorsim::state(0).factoryMode);

    // Shipping mode is taken when USB power goes away.
    EXPECT_EQ(ask(h, 0x06)[4], 0);
    send(h, {0x1F, 0x00});
    EXPECT_TRUE(zorsim::state(0).shippingRequested);
    zorsim::unplug(0);
    EXPECT_FALSE(zorsim::state(0).powered);
    zorsim::plug(0);
    EXPECT_EQ(ask(open(0), 0x06)[4], 1);
    EXPECT_FALSE(zorsim::state(0).factoryMode);
}

TEST_F(Firmware, UpdateOnSixteenByteReportsRestartsIntoTheNewFirmware)
{
    zorsim::addDevices("n@370:16/newfw=371/restart=2000");
    hid_device *h = open(0);
    send(h, control(0, 1000, 1), 16);

    ASSERT_EQ(send(h, {0x0F}, 16), 16);
    Report ack = read(h);
    EXPECT_EQ(ack[3], 1);
    EXPECT_EQ(ack[4], 0);
    send(h, {0x10, 11, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 16);
    send(h, {0x10, 3, 11, 12, 13}, 16);
    EXPECT_EQ(zorsim::state(0).updateImage.size(), 14u);

    ASSERT_EQ(send(h, {0x12}, 16), 16);
    int n = 0;
    read(h, &n);
    EXPECT_EQ(n, -1);
    EXPECT_EQ(narrow(hid_error(h)), "ioctl (GFEATURE): No such device");
    EXPECT_EQ(hid_enumerate(0, 0), nullptr);

    zorsim::advance(2s);
    hid_device_info *list = hid_enumerate(0, 0);
    EXPECT_NE(list, nullptr);
    hid_free_enumeration(list);
    read(h, &n); // the old handle stays dead
    EXPECT_EQ(n, -1);
    hid_device *again = open(0);
    EXPECT_EQ(ask(again, 0x04, 16)[6], 1);
    EXPECT_EQ(word(ask(again, 0x03, 16), 8), 30000); // power-on position
    const std::vector<uint8_t> image = zorsim::state(0).installedImage;
    ASSERT_EQ(image.size(), 14u);
    for (uint8_t i = 0; i < 14; ++i)
        EXPECT_EQ(image[i], i);
}

TEST_F(Firmware, UpdateOnSixtyFourByteReportsAndAnEndThatDoesNotTake)
{
    zorsim::addDevice();
    hid_device *h = open(0);
    send(h, {0x12}); // no update started: answered, refused
    Report r = read(h);
    EXPECT_EQ(r[3], 1);
    EXPECT_EQ(r[4], 1);

    send(h, {0x0F});
    read(h);
    std::vector<uint8_t> piece{0x10, 55};
    for (uint8_t i = 0; i < 55; ++i)
        piece.push_back(i);
    send(h, piece);
    EXPECT_EQ(zorsim::state(0).updateImage.size(), 55u);
    send(h, {0x10, 60, 1}); // longer than its report: the image is damaged
    send(h, {0x12});
    EXPECT_EQ(read(h)[4], 1);
    EXPECT_TRUE(zorsim::isPlugged(0));
}

TEST_F(Firmware, LosingPowerForgetsThePositionButTheProRunsOnItsBattery)
{
    zorsim::addDevices("pro,n");
    zorsim::setPosition(0, 1000);
    zorsim::setPosition(1, 1000);
    send(open(0), control(1, 3000));
    zorsim::unplug(0);
    zorsim::unplug(1);
    zorsim::advance(2s);
    zorsim::plug(0);
    zorsim::plug(1);
    EXPECT_EQ(zorsim::state(0).position, 3000);
    EXPECT_EQ(zorsim::state(1).position, 30000);
}

} // namespace
