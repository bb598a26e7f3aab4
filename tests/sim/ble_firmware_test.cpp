// The firmware's Bluetooth side: request frames in, answer frames out.
#include "sim/ble_firmware.h"
#include "sim/bluez/ble_sim_config.h"

#include "ble_frames.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

namespace {

using BLEProtocol::Bytes;
using zorsim::BleFault;
using zorsim::Nanos;

// The answer as the host's exchange hands it on: without type and checksum.
Bytes answerOf(const Bytes &frame) { return Bytes(frame.begin() + 1, frame.end() - 1); }

int be(const Bytes &r, std::size_t at, int bytes)
{
    int v = 0;
    for (int i = 0; i < bytes; ++i)
        v = v << 8 | r.at(at + static_cast<std::size_t>(i));
    return v;
}

class BleFirmwareTest : public ::testing::Test {
  protected:
    zorsim::BleReaction send(uint8_t type, const Bytes &payload)
    {
        return firmware.receive(requestFrame(++sequence, type, payload), Nanos(0));
    }

    zorsim::DeviceConfig config;
    zorsim::BleFirmware firmware{config, 0, Nanos(0)};
    uint8_t sequence = 0;
};

TEST_F(BleFirmwareTest, DeviceCommandsCarryTheUsbReplyFromFrameByteFour)
{
    // A twin that hears the same commands over USB gives the expected replies.
    zorsim::FocuserModel usb(config, 0, Nanos(0));
    Bytes control(15, 0);
    control[0] = 0x7E, control[1] = 0x5A, control[2] = 0x03, control[4] = 9, control[12] = 0x01;
    const Bytes commands[] = {
        {0x7E, 0x5A, 0x02, 0x04}, {0x7E, 0x5A, 0x02, 0x03}, {0x7E, 0x5A, 0x02, 0x0C}, {0x7E, 0x5A, 0x02, 0x1E},
        {0x7E, 0x5A, 0x20, 0x00}, {0x7E, 0x5A, 0x02, 0x1F}, control,         {0x7E, 0x5A, 0x02, 0x03},
        {0x7E, 0x5A, 0x1E, 0x01}, {0x7E, 0x5A, 0x02, 0x05},
    };
    for (const Bytes &command : commands) {
        SCOPED_TRACE(testing::PrintToString(command));
        Bytes padded = command;
        padded.resize(15, 0);
        const auto reply = usb.handleCommand(padded.data(), padded.size(), Nanos(0)).reply;
        Bytes expected(14, 0);
        if (reply)
            expected.assign(reply->begin() + 2, reply->end());
        else
            expected[0] = command[2];

        const zorsim::BleReaction out = send(BLEProtocol::CMD_DEVICE, command);
        ASSERT_EQ(out.frames.size(), 1u);
        Bytes frame = out.frames[0];
        EXPECT_EQ(frame[0], BLEProtocol::FRAME_RESPONSE);
        EXPECT_EQ(frame[2], sequence);
        EXPECT_EQ(frame[3], 0x00);
        EXPECT_EQ(Bytes(frame.begin() + 4, frame.end() - 1), expected);
        EXPECT_EQ(BLEProtocol::decodeResponse(frame), 0);
    }
    // The set commands reached the model, and data sits where USB has it.
    EXPECT_FALSE(firmware.model().state(Nanos(0)).ledOn);
    EXPECT_EQ(firmware.model().state(Nanos(0)).backlash, 9);
    const Bytes version = answerOf(send(BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x04}).frames.at(0));
    EXPECT_EQ(Bytes(version.begin() + 4, version.begin() + 7), (Bytes{3, 8, 2}));
}

TEST_F(BleFirmwareTest, PairingIsByHostAddressAndAFreshLinkAnnouncesItself)
{
    const std::string host = "001122334455", other = "A1B2C3D4E5F6";
    enum Kind : uint8_t { Response = 1, Notification = 2 };
    const struct {
        uint8_t type;
        const std::string &host;
        std::vector<std::pair<Kind, uint8_t>> frames; // kind and status
        bool relink = false;
        BleFault fault = BleFault::None;
    } steps[] = {
        {BLEProtocol::CMD_PAIR, host, {{Response, 0x9B}, {Notification, 0}}},
        {BLEProtocol::CMD_PAIR, host, {{Notification, 0}}},
        {BLEProtocol::CMD_PAIR, other, {{Notification, 1}}},
        {BLEProtocol::CMD_CLEAR_PAIR, other, {{Notification, 1}}},
        {BLEProtocol::CMD_CLEAR_PAIR, host, {{Response, 0}}},
        {BLEProtocol::CMD_PAIR, other, {{Response, 0x9B}, {Notification, 0}}, true},
        {BLEProtocol::CMD_PAIR, other, {{Notification, 1}}, false, BleFault::RefusePairing},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(&s - steps);
        if (s.relink)
            firmware.linkUp();
        firmware.setFault(s.fault);
        const zorsim::BleReaction out = send(s.type, Bytes(s.host.begin(), s.host.end()));
        ASSERT_EQ(out.frames.size(), s.frames.size());
        for (std::size_t i = 0; i < s.frames.size(); ++i) {
            Bytes f = out.frames[i];
            EXPECT_EQ(f[0], s.frames[i].first);
            EXPECT_EQ(f[3], s.frames[i].second);
            if (f[0] == Response) {
                EXPECT_EQ(f[2], sequence);
            }
            EXPECT_EQ(f[0] == Response ? BLEProtocol::decodeResponse(f) : BLEProtocol::decodeNotification(f), 0);
        }
    }
    EXPECT_EQ(firmware.pairedHost(), other);
}

TEST_F(BleFirmwareTest, AllStatusCarriesTheRecordTheHostDecodes)
{
    zorsim::FocuserModel &model = firmware.model();
    model.setPosition(123456, Nanos(0));
    model.setErrorCodes('5', '7');
    zorsim::Battery battery;
    battery.percentage = 63;
    battery.temperature = 31;
    model.setBattery(battery);
    send(BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x20, 0x00}); // the LED does not travel in it

    const Bytes r = answerOf(send(BLEProtocol::CMD_EXTENDED, {0x7E, 0x5A, 0x01, 0x00}).frames.at(0));
    ASSERT_GE(r.size(), 30u); // the battery block reads 12 bytes from r[18]
    EXPECT_EQ(r[4], 0);       // not moving
    EXPECT_EQ(be(r, 6, 3), 123456);
    EXPECT_EQ(be(r, 9, 2), 32000); // (20 °C + 300) * 100
    EXPECT_EQ(be(r, 12, 3), 600000);
    EXPECT_EQ(r[15], '5');
    EXPECT_EQ(r[16], '7');
    EXPECT_EQ(r[18 + 1], 131);
    EXPECT_EQ(r[18 + 6], 63);
}

TEST_F(BleFirmwareTest, UpdateAcknowledgesWhatItTookAndRestartsIntoTheImage)
{
    firmware.model().setFirmwareAfterUpdate(390);
    Bytes chunk(480);
    for (std::size_t i = 0; i < chunk.size(); ++i)
        chunk[i] = static_cast<uint8_t>(i * 7);
    auto acknowledged = [](const zorsim::BleReaction &out) { return be(answerOf(out.frames.at(0)), 3, 2); };

    EXPECT_EQ(acknowledged(send(BLEProtocol::CMD_EXTENDED, chunk)), 0); // no update runs
    send(BLEProtocol::CMD_EXTENDED, {0x7E, 0x5A, 0x02, 0x00, 0x00, 0x02, 0x58}); // 600 bytes
    EXPECT_EQ(firmware.updateRemaining(), 600u);
    zorsim::BleReaction first = send(BLEProtocol::CMD_EXTENDED, chunk);
    EXPECT_EQ(acknowledged(first), 480);
    EXPECT_FALSE(first.dropLink);
    zorsim::BleReaction last = send(BLEProtocol::CMD_EXTENDED, chunk);
    EXPECT_EQ(acknowledged(last), 120);
    EXPECT_TRUE(last.dropLink);

    const zorsim::DeviceState s = firmware.model().state(Nanos(0));
    EXPECT_EQ(s.firmware, 390);
    ASSERT_EQ(s.installedImage.size(), 600u);
    EXPECT_TRUE(std::equal(chunk.begin(), chunk.begin() + 120, s.installedImage.begin() + 480));
}

TEST_F(BleFirmwareTest, FaultsAndMalformedRequests)
{
    const Bytes query{0x7E, 0x5A, 0x02, 0x03};
    Bytes badSum = requestFrame(1, BLEProtocol::CMD_DEVICE, query);
    ++badSum.back();
    Bytes badLength = requestFrame(1, BLEProtocol::CMD_DEVICE, query);
    badLength.insert(badLength.begin() + 4, 0x00);
    const struct {
        BleFault fault;
        Bytes frame; // empty: a good request
        std::size_t frames;
        bool dropLink;
        int checksum; // decodeResponse of the last frame
        BleFault after;
    } cases[] = {
        {BleFault::None, badSum, 0, false, 0, BleFault::None},
        {BleFault::None, badLength, 0, false, 0, BleFault::None},
        {BleFault::Silent, {}, 0, false, 0, BleFault::Silent},
        {BleFault::DropLink, {}, 0, true, 0, BleFault::None},
        {BleFault::StaleSequence, {}, 2, false, 0, BleFault::StaleSequence},
        {BleFault::BadChecksum, {}, 1, false, -1, BleFault::BadChecksum},
    };
    // Until the stale case, nothing else is answered.
    const Bytes previous = send(BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x04}).frames.at(0);
    for (const auto &c : cases) {
        SCOPED_TRACE(zorsim::faultName(c.fault));
        firmware.setFault(c.fault);
        const zorsim::BleReaction out =
            c.frame.empty() ? send(BLEProtocol::CMD_DEVICE, query) : firmware.receive(c.frame, Nanos(0));
        ASSERT_EQ(out.frames.size(), c.frames);
        EXPECT_EQ(out.dropLink, c.dropLink);
        EXPECT_EQ(firmware.fault(), c.after);
        if (c.frames == 0)
            continue;
        Bytes last = out.frames.back();
        EXPECT_EQ(last[2], sequence);
        EXPECT_EQ(BLEProtocol::decodeResponse(last), c.checksum);
        if (c.frames == 2) {
            EXPECT_EQ(out.frames[0], previous); // the late answer to the previous request
        }
    }
}

TEST(BleDescription, RadioOptionsBesideTheFirmwareOnes)
{
    const auto all = zorsim::parseBleDescription("pro@381/name=Garage/battery=80/rssi=-70/address=c0:11:22:33:44:55,"
                                                 "2*pro/pos=1000");
    ASSERT_EQ(all.size(), 3u);
    const auto &g = all[0];
    EXPECT_EQ(std::tie(g.device.firmware, g.device.bleName, g.device.battery.percentage, g.rssi, g.address),
              std::make_tuple(381, std::string("Garage"), 80, -70, std::string("C0:11:22:33:44:55")));
    EXPECT_EQ(all[2].address, "C0:FF:EE:00:00:03");
    EXPECT_EQ(all[2].device.position, 1000);
    for (const char *bad : {"pro/rssi=21", "pro/battery=x", "pro/address=C0:11:22:33:44", "pro/name=TwelveLetter",
                            "pro,,pro"})
        EXPECT_THROW(zorsim::parseBleDescription(bad), std::invalid_argument) << bad;
}

} // namespace
