// What only the Bluetooth branch of the device commands does: answers that
// fail or fall short, the status record kept over a failed exchange, the
// raw temperature input, the battery answer. The commands common to both
// links are run over each in zor_usb_commands_test.cpp.
#include "device/zor.h"

#include "scripted_transport.h"
#include "zor_test_access.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <tuple>

using zor_test::Bytes;
using zor_test::payloadOf;
using zor_test::responseFrame;
using zor_test::ScriptedTransport;
using zor_test::sequenceOf;

namespace {

class BleBranches : public ::testing::Test {
protected:
    void SetUp() override
    {
        auto owned = std::make_unique<ScriptedTransport>();
        transport = owned.get();
        device.setBleManager(std::move(owned));
        // Answers command (group, code) with its registered content: content[0]
        // lands at answer byte 3, content[1] at byte 4 (the first data byte).
        transport->setResponder([this](const Bytes &sent) {
            const Bytes p = payloadOf(sent);
            const auto found = answers.find({p.at(2), p.at(3)});
            if (found == answers.end())
                return std::vector<Bytes>{};
            return std::vector<Bytes>{responseFrame(sequenceOf(sent), answerStatus, found->second)};
        });
    }

    void answer(unsigned char group, unsigned char code, Bytes content) { answers[{group, code}] = content; }
    Bytes lastPayload() const { return payloadOf(transport->sent().back()); }

    // A status record: move state, backlash, step and maximum (wide layout), temperature word, flags.
    void answerRecord(int enabled, int backlash, int step, int maxStep, int temp, int flags)
    {
        auto b = [](int v, int shift) { return static_cast<unsigned char>(v >> shift); };
        answer(0x02, 0x03,
               {0x03, b(enabled, 0), b(backlash, 0), b(maxStep, 16), b(step, 16), b(step, 8), b(step, 0), 0,
                b(temp, 8), b(temp, 0), b(flags, 0), b(maxStep, 8), b(maxStep, 0)});
    }

    CZOR device;
    ScriptedTransport *transport = nullptr;
    std::map<std::pair<unsigned char, unsigned char>, Bytes> answers;
    unsigned char answerStatus = 0;
};

TEST_F(BleBranches, AnswersAreReadFromByteFourWithinTheirLengthOrRefused)
{
    CZORTestAccess::openIdentity(device);
    answer(0x02, 0x04, {0x04, 3, 8, 2, 'E', 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N',
                        'O', 'P', 'Q'});
    ZOR_TYPE type;
    ASSERT_EQ(device.getType(&type, true), ZOR_SUCCESS);
    EXPECT_EQ(transport->sent().back().at(3), BLEProtocol::CMD_DEVICE);
    EXPECT_EQ(std::string(type.Type, 16), std::string("ABCDEFGHIJKLMNO\0", 16)); // cut to 15
    unsigned char buf[10];
    std::memset(buf, 0xEE, sizeof buf);
    answer(0x02, 0x0D, {0x0D, 'S', 'c', 'o'});
    ASSERT_EQ(device.getAlias(buf, 8, true), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(buf, buf + 9), (Bytes{'S', 'c', 'o', 0, 0, 0, 0, 0, 0xEE}));

    // Answers that fail or fall short.
    unsigned char major, minor, build;
    answer(0x02, 0x04, {0x04, 3, 8, 2});
    answerStatus = 0x05;
    EXPECT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_ERROR_BLE_RESPONSE);
    answerStatus = 0;
    answer(0x02, 0x04, {0x04, 3});
    EXPECT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_ERROR_BAD_DATA);
    ZOR_ERROR_MSG msg;
    answer(0x02, 0x05, {0x05, 'E', '5'}); // under 7 bytes
    EXPECT_EQ(device.getErrorCode(&msg, true), ZOR_ERROR_BAD_DATA);
    transport->setSendAccepted(false);
    EXPECT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_ERROR_BLE_SEND);
    transport->setSendAccepted(true);
    // A pairing notification ends the exchange with success but no answer.
    transport->setResponder([](const Bytes &) { return std::vector<Bytes>{zor_test::notificationFrame(0)}; });
    EXPECT_THROW(device.getFwVer(&major, &minor, &build, true), std::out_of_range);
}

TEST_F(BleBranches, StatusRecordSurvivesAFailedExchangeAndFeedsTemperature)
{
    unsigned char major, minor, build;
    answer(0x02, 0x04, {0x04, 3, 8, 2, 'E', 'Z', 'O', 'R', ' ', 'P', 'r', 'o', 0});
    ASSERT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_SUCCESS);
    answerRecord(0, 42, 0x012345, 0x054321, 800, 0xA5);
    int step = 0, maxStep = 0, backlash = 0, force = 0;
    bool beep = false, reverse = true, moving = false, byDevice = false;
    ASSERT_EQ(device.getStep(&step, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    transport->setSendAccepted(false); // from here the last good record answers
    for (int result : {device.getMaxStep(&maxStep, true), device.getBacklash(&backlash, true),
                       device.getMaxForce(&force, true), device.getBeep(&beep, true), device.getReverse(&reverse, true),
                       device.isMoving(&moving, &byDevice, true)})
        EXPECT_EQ(result, ZOR_SUCCESS);
    EXPECT_EQ(std::vector<int>({step, maxStep, backlash, force, beep, reverse, moving, byDevice}),
              (std::vector<int>{0x012345, 0x054321, 42, 0xA, 1, 0, 1, 1}));
    transport->setSendAccepted(true);

    // The ADC path: 616 to 1020 accepted, 1020 lies past the coldest row.
    float t = 0;
    ASSERT_EQ(device.getTemp(&t, true), ZOR_SUCCESS);
    EXPECT_NEAR(t, 50.13f, 0.02f); // 35.71 kOhm
    // Out of range the last reading stays; 616 and 1020 both read 15.10 kOhm.
    const std::tuple<int, int, float> readings[] = {{615, ZOR_ERROR_GENERAL_ERROR, 50.13f},
                                                    {1021, ZOR_ERROR_GENERAL_ERROR, 50.13f},
                                                    {616, ZOR_SUCCESS, 74.06f},
                                                    {1020, ZOR_SUCCESS, 74.06f}};
    for (const auto &[adc, result, degrees] : readings) {
        answerRecord(0, 0, 0, 0, adc, 0);
        EXPECT_EQ(device.getTemp(&t, true), result) << adc;
        EXPECT_NEAR(t, degrees, 0.02f) << adc;
    }
    bool hand = false;
    answerRecord(0, 0, 0, 0, 341, 0);
    ASSERT_EQ(device.isHandControl(&hand, true), ZOR_SUCCESS);
    EXPECT_TRUE(hand);
    // The word path: hundredths of a degree above -300; -200 and below fail.
    CZORTestAccess::setRawTempAdc(device, false);
    answerRecord(0, 0, 0, 0, 32150, 0x08);
    ASSERT_EQ(device.getTemp(&t, true), ZOR_SUCCESS);
    EXPECT_FLOAT_EQ(t, 21.5f);
    ASSERT_EQ(device.isHandControl(&hand, true), ZOR_SUCCESS);
    EXPECT_TRUE(hand);
    answerRecord(0, 0, 0, 0, 10000, 0);
    EXPECT_EQ(device.getTemp(&t, true), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_FLOAT_EQ(t, 21.5f);
}

TEST_F(BleBranches, StoppingReadsTheStatusOnlyOverALinkMarkedConnected)
{
    EXPECT_EQ(device.stopMove(true), ZOR_ERROR_INVALID_ID);
    EXPECT_TRUE(transport->sent().empty());
    CZORTestAccess::setBleConnected(device);
    answerRecord(1, 17, 0x012345, 60000, 0, 0);
    ASSERT_EQ(device.stopMove(true), ZOR_SUCCESS);
    const auto frames = transport->sent();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(payloadOf(frames[0]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    EXPECT_EQ(payloadOf(frames[1]).at(3), 0); // enabled cleared
}

} // namespace
