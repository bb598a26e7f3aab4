// The Bluetooth branch of every device command: the payload that goes out
// and what is made of the answer.
#include "device/zor.h"

#include "scripted_transport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>

using zor_test::Bytes;
using zor_test::responseFrame;
using zor_test::ScriptedTransport;
using zor_test::sequenceOf;

class CZORTestAccess {
public:
    static void openIdentity(CZOR &d)
    {
        d.m_bFwNew = true;
        d.m_bHasModelString = true;
    }
    static void setBleConnected(CZOR &d) { d.m_bBleConnected = true; }
    static void setRawTempAdc(CZOR &d, bool raw) { d.m_bRawTempAdc = raw; }
    static bool ledOn(CZOR &d) { return d.m_bLedOn; }
};

namespace {

Bytes payloadOf(const Bytes &frame) { return Bytes(frame.begin() + 4, frame.end() - 5); }

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
            lastSequence = sequenceOf(sent);
            return std::vector<Bytes>{responseFrame(lastSequence, answerStatus, found->second)};
        });
    }

    void answer(unsigned char group, unsigned char code, Bytes content) { answers[{group, code}] = content; }
    Bytes lastPayload() const { return payloadOf(transport->sent().back()); }
    bool lastWaited() const { return transport->isReadCalls().back(); }

    // A status record: move state, backlash, step and maximum (wide layout), temperature word, flags.
    void answerRecord(int enabled, int backlash, int step, int maxStep, int temp, int flags)
    {
        auto b = [](int v, int shift) { return static_cast<unsigned char>(v >> shift); };
        answer(0x02, 0x03,
               {0x03, b(enabled, 0), b(backlash, 0), b(maxStep, 16), b(step, 16), b(step, 8), b(step, 0), 0,
                b(temp, 8), b(temp, 0), b(flags, 0), b(maxStep, 8), b(maxStep, 0)});
    }

    void learnFirmware382()
    {
        answer(0x02, 0x04, {0x04, 3, 8, 2, 'E', 'Z', 'O', 'R', ' ', 'P', 'r', 'o', 0});
        unsigned char major, minor, build;
        ASSERT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_SUCCESS);
    }

    CZOR device;
    ScriptedTransport *transport = nullptr;
    std::map<std::pair<unsigned char, unsigned char>, Bytes> answers;
    unsigned char answerStatus = 0;
    unsigned char lastSequence = 0;
};

TEST_F(BleBranches, QueriesReadTheirDataFromAnswerByteFour)
{
    CZORTestAccess::openIdentity(device);
    answer(0x02, 0x04, {0x04, 3, 8, 2, 'E', 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N',
                        'O', 'P', 'Q'});
    unsigned char major = 0, minor = 0, build = 0;
    ASSERT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x04}));
    EXPECT_EQ(transport->sent().back().at(3), BLEProtocol::CMD_DEVICE);
    EXPECT_TRUE(lastWaited());
    EXPECT_EQ(Bytes({major, minor, build}), (Bytes{3, 8, 2}));
    ZOR_TYPE type;
    ASSERT_EQ(device.getType(&type, true), ZOR_SUCCESS);
    EXPECT_EQ(std::string(type.Type, 16), std::string("ABCDEFGHIJKLMNO\0", 16)); // cut to 15

    unsigned char buf[10];
    answer(0x02, 0x0C, {0x0C, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    std::memset(buf, 0xEE, sizeof buf);
    ASSERT_EQ(device.getSerialNumber(buf, 8, true), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(buf, buf + 10), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0xEE, 0xEE}));
    answer(0x02, 0x0D, {0x0D, 'S', 'c', 'o'});
    ASSERT_EQ(device.getAlias(buf, 8, true), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(buf, buf + 9), (Bytes{'S', 'c', 'o', 0, 0, 0, 0, 0, 0xEE}));

    ZOR_ERROR_MSG msg;
    answer(0x02, 0x05, {0x05, 'E', '5', '7'});
    ASSERT_EQ(device.getErrorCode(&msg, true), ZOR_SUCCESS);
    EXPECT_EQ(std::string(msg.MotorErrorCode) + std::string(msg.BatteryErrorCode), "E5E7");
    int reason = 0;
    answer(0x02, 0x06, {0x06, 1});
    ASSERT_EQ(device.getPowerOffReason(&reason, true), ZOR_SUCCESS);
    EXPECT_EQ(reason, 1);
    bool on = false;
    answer(0x02, 0x1F, {0x1F, 1});
    ASSERT_EQ(device.getLEDState(&on, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x1F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(on && CZORTestAccess::ledOn(device));
}

TEST_F(BleBranches, QueryAnswersThatFailOrFallShort)
{
    unsigned char major, minor, build;
    answer(0x02, 0x04, {0x04, 3, 8, 2});
    answerStatus = 0x05;
    EXPECT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_ERROR_BLE_RESPONSE);
    answerStatus = 0;
    answer(0x02, 0x04, {0x04, 3});
    EXPECT_EQ(device.getFwVer(&major, &minor, &build, true), ZOR_ERROR_BAD_DATA);
    ZOR_ERROR_MSG msg;
    CZORTestAccess::openIdentity(device);
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
    learnFirmware382();
    answerRecord(0, 42, 0x012345, 0x054321, 800, 0xA5);
    int step = 0, maxStep = 0, backlash = 0, force = 0;
    bool beep = false, reverse = true, moving = false, byDevice = false;
    ASSERT_EQ(device.getStep(&step, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    transport->setSendAccepted(false); // from here the last good record answers
    EXPECT_EQ(device.getMaxStep(&maxStep, true), ZOR_SUCCESS);
    EXPECT_EQ(device.getBacklash(&backlash, true), ZOR_SUCCESS);
    EXPECT_EQ(device.getMaxForce(&force, true), ZOR_SUCCESS);
    EXPECT_EQ(device.getBeep(&beep, true), ZOR_SUCCESS);
    EXPECT_EQ(device.getReverse(&reverse, true), ZOR_SUCCESS);
    EXPECT_EQ(device.isMoving(&moving, &byDevice, true), ZOR_SUCCESS);
    EXPECT_EQ(std::vector<int>({step, maxStep, backlash, force, beep, reverse, moving, byDevice}),
              (std::vector<int>{0x012345, 0x054321, 42, 0xA, 1, 0, 1, 1}));
    transport->setSendAccepted(true);

    // The ADC path: 616 to 1020 accepted, 1020 lies past the coldest row.
    float t = 0;
    ASSERT_EQ(device.getTemp(&t, true), ZOR_SUCCESS);
    EXPECT_NEAR(t, 50.13f, 0.02f); // 35.71 kOhm
    for (int adc : {615, 1021}) {
        answerRecord(0, 0, 0, 0, adc, 0);
        EXPECT_EQ(device.getTemp(&t, true), ZOR_ERROR_GENERAL_ERROR);
        EXPECT_NEAR(t, 50.13f, 0.02f);
    }
    for (int adc : {616, 1020}) {
        answerRecord(0, 0, 0, 0, adc, 0);
        ASSERT_EQ(device.getTemp(&t, true), ZOR_SUCCESS);
        EXPECT_NEAR(t, 74.06f, 0.02f); // 15.10 kOhm
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

TEST_F(BleBranches, WritesAndTheirPayloads)
{
    CZORTestAccess::openIdentity(device);
    answer(0x0D, 'A', {0x0D}); // the alias write is answered
    char name[] = "Focus01";
    unsigned char alias[8] = {'A', 'l', 'i', 'a', 's', 0, 0, 0};
    struct Case {
        std::function<int()> call;
        Bytes payload;
        bool waits;
    };
    const Case cases[] = {
        // Before the version is known: the speed word 3000 in bytes 6 and 7.
        {[&] { return device.setBacklash(17, true); }, {0x7E, 0x5A, 0x03, 0, 17, 0x0B, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0},
         false},
        {[&] { return device.setBLEName(name, 7, true); }, {0x7E, 0x5A, 0x1E, 0, 'F', 'o', 'c', 'u', 's', '0', '1'},
         false},
        {[&] { return device.setAlias(alias, 8, true); },
         {0x7E, 0x5A, 0x0D, 'A', 'l', 'i', 'a', 's', 0, 0, 0, 0, 0, 0, 0}, true},
        {[&] { return device.setShippingMode(true); }, {0x7E, 0x5A, 0x1F, 0x00}, false},
        {[&] { return device.setLEDState(false, true); }, {0x7E, 0x5A, 0x20, 0x00}, false},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.call(), ZOR_SUCCESS);
        EXPECT_EQ(lastPayload(), c.payload);
        EXPECT_EQ(lastWaited(), c.waits);
    }
    EXPECT_FALSE(CZORTestAccess::ledOn(device));
    const size_t sent = transport->sent().size();
    EXPECT_EQ(device.setBLEName(name, 12, true), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(device.setBacklash(256, true), ZOR_ERROR_INVALID_VALUE);

    // From firmware 336 on: maximum and step bits 16..23 in bytes 6 and 7.
    learnFirmware382();
    ASSERT_EQ(device.setMaxStep(0x0A1B2C, true), ZOR_SUCCESS); // clamped to 60000
    ASSERT_EQ(device.setBeep(true, true), ZOR_SUCCESS);
    ASSERT_EQ(device.setReverse(true, true), ZOR_SUCCESS);
    ASSERT_EQ(device.setMaxForce(0x1C, true), ZOR_SUCCESS);
    ASSERT_EQ(device.resetStep(-9, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x03, 0, 17, 0, 0, 0, 0, 1, 0, 0, 0xC3, 0xEA, 0x60}));
    ASSERT_EQ(device.SetStep(0x012345, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x03, 1, 17, 0, 0, 0xEA, 0x60, 0, 0, 0, 0xC3, 0xEA, 0x60}));
    EXPECT_EQ(transport->sent().size(), sent + 7);
    EXPECT_EQ(device.setBeep(false, true), ZOR_ERROR_MOVING);
    EXPECT_EQ(transport->sent().size(), sent + 7);

    // Stopping reads the status first, which needs the link marked connected.
    EXPECT_EQ(device.stopMove(true), ZOR_ERROR_INVALID_ID);
    CZORTestAccess::setBleConnected(device);
    answerRecord(1, 17, 0x012345, 60000, 0, 0);
    ASSERT_EQ(device.stopMove(true), ZOR_SUCCESS);
    const auto frames = transport->sent();
    EXPECT_EQ(payloadOf(frames[frames.size() - 2]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    EXPECT_EQ(payloadOf(frames.back()).at(3), 0); // enabled cleared
    transport->setSendAccepted(false);
    EXPECT_EQ(device.setBeep(true, true), ZOR_ERROR_BLE_SEND);
}

} // namespace
