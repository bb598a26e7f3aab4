// The Bluetooth branch of every device command: the payload that goes out
// and what is made of the answer.
#include "device/zor.h"

#include "home_sandbox.h"
#include "scripted_transport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

using zor_test::Bytes;
using zor_test::notificationFrame;
using zor_test::responseFrame;
using zor_test::ScriptedTransport;
using zor_test::sequenceOf;

class CZORTestAccess {
public:
    static void setIdentity(CZOR &d, bool fwNew, bool hasModel)
    {
        d.m_bFwNew = fwNew;
        d.m_bHasModelString = hasModel;
    }
    static void setBleConnected(CZOR &d) { d.m_bBleConnected = true; }
    static void setRawTempAdc(CZOR &d, bool raw) { d.m_bRawTempAdc = raw; }
    static bool ledOn(CZOR &d) { return d.m_bLedOn; }
};

namespace {

// The payload of a request frame: after type, length, sequence and command
// type, before the length high byte, the reserved bytes and the checksum.
Bytes payloadOf(const Bytes &frame) { return Bytes(frame.begin() + 4, frame.end() - 5); }

class BleBranches : public ::testing::Test {
protected:
    void SetUp() override
    {
        device = std::make_unique<CZOR>();
        auto owned = std::make_unique<ScriptedTransport>();
        transport = owned.get();
        device->setBleManager(std::move(owned));
        // Answers a command (group, code) with the content registered for it;
        // content[0] lands at answer byte 3, content[1] at byte 4, and so on.
        transport->setResponder([this](const Bytes &sent) {
            const Bytes payload = payloadOf(sent);
            const auto found = answers.find({payload.at(2), payload.at(3)});
            if (found == answers.end())
                return std::vector<Bytes>{};
            lastSequence = sequenceOf(sent);
            return std::vector<Bytes>{responseFrame(sequenceOf(sent), answerStatus, found->second)};
        });
    }

    void answer(unsigned char group, unsigned char code, Bytes content) { answers[{group, code}] = std::move(content); }
    Bytes lastPayload() const { return payloadOf(transport->sent().back()); }
    unsigned char lastCommandType() const { return transport->sent().back().at(3); }

    // A status record in the layout of firmware 336 and later.
    static Bytes status(int enabled, int backlash, int step, int maxStep, int tempWord, int flags)
    {
        return {0x03,
                static_cast<unsigned char>(enabled),
                static_cast<unsigned char>(backlash),
                static_cast<unsigned char>(maxStep >> 16),
                static_cast<unsigned char>(step >> 16),
                static_cast<unsigned char>(step >> 8),
                static_cast<unsigned char>(step),
                0,
                static_cast<unsigned char>(tempWord >> 8),
                static_cast<unsigned char>(tempWord),
                static_cast<unsigned char>(flags),
                static_cast<unsigned char>(maxStep >> 8),
                static_cast<unsigned char>(maxStep)};
    }

    // Firmware 3.8.2 with the model string "ZOR Pro".
    void learnFirmware382()
    {
        answer(0x02, 0x04, {0x04, 3, 8, 2, 'E', 'Z', 'O', 'R', ' ', 'P', 'r', 'o', 0});
        unsigned char major, minor, build;
        ASSERT_EQ(device->getFwVer(&major, &minor, &build, true), ZOR_SUCCESS);
    }

    std::unique_ptr<CZOR> device;
    ScriptedTransport *transport = nullptr;
    std::map<std::pair<unsigned char, unsigned char>, Bytes> answers;
    unsigned char answerStatus = 0;
    unsigned char lastSequence = 0;
};

TEST_F(BleBranches, FirmwareVersionAndTypeComeFromTheVersionAnswer)
{
    answer(0x02, 0x04, {0x04, 3, 8, 2, 'E', 'Z', 'O', 'R', ' ', 'P', 'r', 'o', 0});
    unsigned char major = 0, minor = 0, build = 0;
    ASSERT_EQ(device->getFwVer(&major, &minor, &build, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x04}));
    EXPECT_EQ(lastCommandType(), BLEProtocol::CMD_DEVICE);
    EXPECT_EQ(transport->isReadCalls().back(), true);
    EXPECT_EQ(major * 100 + minor * 10 + build, 382);

    ZOR_TYPE type;
    std::memset(&type, 0x55, sizeof type);
    ASSERT_EQ(device->getType(&type, true), ZOR_SUCCESS);
    EXPECT_STREQ(type.Type, "ZOR Pro");
    EXPECT_EQ(type.Type[15], 0);

    // A model text longer than the field is cut to 15 characters.
    answer(0x02, 0x04, Bytes{0x04, 3, 8, 2, 'E', 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M',
                             'N', 'O', 'P', 'Q', 'R'});
    ASSERT_EQ(device->getType(&type, true), ZOR_SUCCESS);
    EXPECT_STREQ(type.Type, "ABCDEFGHIJKLMNO");
}

TEST_F(BleBranches, QueryAnswersThatFailOrFallShort)
{
    unsigned char major, minor, build;
    // The device reports failure in the status byte.
    answer(0x02, 0x04, {0x04, 3, 8, 2});
    answerStatus = 0x05;
    EXPECT_EQ(device->getFwVer(&major, &minor, &build, true), ZOR_ERROR_BLE_RESPONSE);
    // A good status but too few bytes for the version.
    answerStatus = 0;
    answer(0x02, 0x04, {0x04, 3});
    EXPECT_EQ(device->getFwVer(&major, &minor, &build, true), ZOR_ERROR_BAD_DATA);
    // The exchange itself fails.
    transport->setSendAccepted(false);
    EXPECT_EQ(device->getFwVer(&major, &minor, &build, true), ZOR_ERROR_BLE_SEND);
    transport->setSendAccepted(true);
    // A pairing notification ends the exchange with success but no answer:
    // the status byte cannot be read.
    transport->setResponder([](const Bytes &) { return std::vector<Bytes>{notificationFrame(0x00)}; });
    EXPECT_THROW(device->getFwVer(&major, &minor, &build, true), std::out_of_range);
}

TEST_F(BleBranches, StatusRecordFeedsTheGettersAndSurvivesAFailedExchange)
{
    learnFirmware382();
    answer(0x02, 0x03, status(0, 42, 0x012345, 0x054321, 30000 + 2150, 0xA5));
    int step = 0, maxStep = 0, backlash = 0, force = 0;
    bool beep = false, reverse = true, moving = true, byDevice = false;
    ASSERT_EQ(device->getStep(&step, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    EXPECT_EQ(step, 0x012345);
    ASSERT_EQ(device->getMaxStep(&maxStep, true), ZOR_SUCCESS);
    EXPECT_EQ(maxStep, 0x054321);
    ASSERT_EQ(device->getBacklash(&backlash, true), ZOR_SUCCESS);
    EXPECT_EQ(backlash, 42);
    ASSERT_EQ(device->getBeep(&beep, true), ZOR_SUCCESS);
    ASSERT_EQ(device->getReverse(&reverse, true), ZOR_SUCCESS);
    EXPECT_TRUE(beep);
    EXPECT_FALSE(reverse);
    ASSERT_EQ(device->getMaxForce(&force, true), ZOR_SUCCESS);
    EXPECT_EQ(force, 0xA);
    ASSERT_EQ(device->isMoving(&moving, &byDevice, true), ZOR_SUCCESS);
    EXPECT_TRUE(moving);
    EXPECT_TRUE(byDevice);

    // The exchange fails: success all the same, with the last record's values.
    transport->setSendAccepted(false);
    step = 0;
    EXPECT_EQ(device->getStep(&step, true), ZOR_SUCCESS);
    EXPECT_EQ(step, 0x012345);
    transport->scriptWaits({false});
    transport->setSendAccepted(true);
    EXPECT_EQ(device->getMaxStep(&maxStep, true), ZOR_SUCCESS);
    EXPECT_EQ(maxStep, 0x054321);
}

TEST_F(BleBranches, TemperatureFromTheThermistorAdcAndFromTheWord)
{
    // A fresh object reads the temperature input as a thermistor ADC value.
    float t = 0;
    answer(0x02, 0x03, status(0, 0, 0, 0, 800, 0));
    ASSERT_EQ(device->getTemp(&t, true), ZOR_SUCCESS);
    const float atAdc800 = t;
    EXPECT_NEAR(atAdc800, 50.13f, 0.02f); // R = 35.71 kOhm
    for (int adc : {615, 1021}) {
        answer(0x02, 0x03, status(0, 0, 0, 0, adc, 0));
        t = 0;
        EXPECT_EQ(device->getTemp(&t, true), ZOR_ERROR_GENERAL_ERROR) << adc;
        EXPECT_EQ(t, atAdc800) << adc;
    }
    answer(0x02, 0x03, status(0, 0, 0, 0, 616, 0));
    ASSERT_EQ(device->getTemp(&t, true), ZOR_SUCCESS);
    EXPECT_NEAR(t, 74.06f, 0.02f); // R = 15.10 kOhm
    // 1020 is accepted, but its resistance lies beyond the table's coldest row:
    // the last temperature inside the table is returned.
    answer(0x02, 0x03, status(0, 0, 0, 0, 1020, 0));
    ASSERT_EQ(device->getTemp(&t, true), ZOR_SUCCESS);
    EXPECT_NEAR(t, 74.06f, 0.02f);

    // Also with the raw ADC the hand controller shows on the same input.
    bool hand = false;
    answer(0x02, 0x03, status(0, 0, 0, 0, 341, 0));
    ASSERT_EQ(device->isHandControl(&hand, true), ZOR_SUCCESS);
    EXPECT_TRUE(hand);
    answer(0x02, 0x03, status(0, 0, 0, 0, 342, 0x08));
    ASSERT_EQ(device->isHandControl(&hand, true), ZOR_SUCCESS);
    EXPECT_FALSE(hand);

    // Newer firmware: hundredths of a degree above -300.
    CZORTestAccess::setRawTempAdc(*device, false);
    answer(0x02, 0x03, status(0, 0, 0, 0, 30000 + 2150, 0x08));
    ASSERT_EQ(device->getTemp(&t, true), ZOR_SUCCESS);
    EXPECT_FLOAT_EQ(t, 21.5f);
    ASSERT_EQ(device->isHandControl(&hand, true), ZOR_SUCCESS);
    EXPECT_TRUE(hand);
    answer(0x02, 0x03, status(0, 0, 0, 0, 10000, 0)); // -200.0 exactly
    EXPECT_EQ(device->getTemp(&t, true), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_FLOAT_EQ(t, 21.5f);
}

TEST_F(BleBranches, ControlRecordGoesAsFifteenBytesWithoutWaiting)
{
    // Before the firmware version is known the narrow layout is used.
    ASSERT_EQ(device->setBacklash(17, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x03, 0, 17, 0x0B, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(lastCommandType(), BLEProtocol::CMD_DEVICE);
    EXPECT_EQ(transport->isReadCalls().back(), false);
    const int waitsBefore = transport->waitCalls();

    learnFirmware382();
    ASSERT_EQ(device->setMaxStep(0x0A1B2C, true), ZOR_SUCCESS);    // above 60000: clamped
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x03, 0, 17, 0, 0, 0, 0, 2, 0, 0, 0, 0xEA, 0x60}));
    ASSERT_EQ(device->setBeep(true, true), ZOR_SUCCESS);
    ASSERT_EQ(device->setReverse(true, true), ZOR_SUCCESS);
    ASSERT_EQ(device->setMaxForce(0x1C, true), ZOR_SUCCESS);
    ASSERT_EQ(device->resetStep(-9, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x03, 0, 17, 0, 0, 0, 0, 1, 0, 0, 0xC3, 0xEA, 0x60}));
    ASSERT_EQ(device->SetStep(0x012345, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x03, 1, 17, 0, 0, 0xEA, 0x60, 0, 0, 0, 0xC3, 0xEA, 0x60}));
    EXPECT_EQ(transport->waitCalls() - waitsBefore, 1); // only the version query waited

    // A move runs: setters are refused without sending anything.
    const size_t sent = transport->sent().size();
    EXPECT_EQ(device->SetStep(5, true), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->setBeep(false, true), ZOR_ERROR_MOVING);
    EXPECT_EQ(transport->sent().size(), sent);
    // setBacklash checks its range before anything else.
    EXPECT_EQ(device->setBacklash(256, true), ZOR_ERROR_INVALID_VALUE);

    // Stopping reads the status first, which needs the link marked connected.
    EXPECT_EQ(device->stopMove(true), ZOR_ERROR_INVALID_ID);
    CZORTestAccess::setBleConnected(*device);
    answer(0x02, 0x03, status(1, 17, 0x012345, 60000, 0, 0));
    ASSERT_EQ(device->stopMove(true), ZOR_SUCCESS);
    const auto frames = transport->sent();
    EXPECT_EQ(payloadOf(frames[frames.size() - 2]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    EXPECT_EQ(payloadOf(frames.back()).at(3), 0); // enabled cleared

    transport->setSendAccepted(false);
    EXPECT_EQ(device->setBeep(true, true), ZOR_ERROR_BLE_SEND);
}

TEST_F(BleBranches, SerialAliasErrorCodeAndPowerOffReason)
{
    unsigned char sn[10];
    EXPECT_EQ(device->getSerialNumber(sn, 8, true), ZOR_ERROR_NOT_SUPPORTED);
    CZORTestAccess::setIdentity(*device, true, true);

    answer(0x02, 0x0C, {0x0C, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    std::memset(sn, 0xEE, sizeof sn);
    ASSERT_EQ(device->getSerialNumber(sn, 8, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x0C}));
    EXPECT_EQ(Bytes(sn, sn + 10), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0xEE, 0xEE}));
    answer(0x02, 0x0C, {0x0C, 1, 2, 3});
    ASSERT_EQ(device->getSerialNumber(sn, 8, true), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(sn, sn + 8), (Bytes{1, 2, 3, 0, 0, 0, 0, 0}));

    unsigned char alias[8];
    answer(0x02, 0x0D, {0x0D, 'S', 'c', 'o', 'p', 'e'});
    std::memset(alias, 0xEE, sizeof alias);
    ASSERT_EQ(device->getAlias(alias, 8, true), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(alias, alias + 8), (Bytes{'S', 'c', 'o', 'p', 'e', 0, 0, 0}));
    ASSERT_EQ(device->getAlias(alias, 3, true), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(alias, alias + 4), (Bytes{'S', 'c', 'o', 'p'}));

    ZOR_ERROR_MSG msg;
    answer(0x02, 0x05, {0x05, 'E', '5', '7'});
    ASSERT_EQ(device->getErrorCode(&msg, true), ZOR_SUCCESS);
    EXPECT_STREQ(msg.MotorErrorCode, "E5");
    EXPECT_STREQ(msg.BatteryErrorCode, "E7");
    answer(0x02, 0x05, {0x05, 'E', '5'});
    EXPECT_EQ(device->getErrorCode(&msg, true), ZOR_ERROR_BAD_DATA);
    EXPECT_EQ(std::string(msg.MotorErrorCode, 3), std::string(3, '\0'));

    int reason = -1;
    answer(0x02, 0x06, {0x06, 1});
    ASSERT_EQ(device->getPowerOffReason(&reason, true), ZOR_SUCCESS);
    EXPECT_EQ(reason, 1);
}

TEST_F(BleBranches, WritesOfNameAliasShippingAndLed)
{
    CZORTestAccess::setIdentity(*device, true, true);
    char name[] = "Focus01";
    ASSERT_EQ(device->setBLEName(name, 7, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x1E, 0x00, 'F', 'o', 'c', 'u', 's', '0', '1'}));
    EXPECT_EQ(transport->isReadCalls().back(), false);
    char longName[] = "TwelveChars!";
    const size_t sent = transport->sent().size();
    EXPECT_EQ(device->setBLEName(longName, 12, true), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(transport->sent().size(), sent);

    unsigned char alias[8] = {'A', 'l', 'i', 'a', 's', 0, 0, 0};
    answer(0x0D, 'A', {0x0D});
    ASSERT_EQ(device->setAlias(alias, 8, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x0D, 'A', 'l', 'i', 'a', 's', 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(transport->isReadCalls().back(), true);

    ASSERT_EQ(device->setShippingMode(true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x1F, 0x00}));
    EXPECT_EQ(transport->isReadCalls().back(), false);

    ASSERT_EQ(device->setLEDState(false, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x20, 0x00}));
    EXPECT_FALSE(CZORTestAccess::ledOn(*device));

    bool on = false;
    answer(0x02, 0x1F, {0x1F, 1});
    ASSERT_EQ(device->getLEDState(&on, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x1F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(on);
    EXPECT_TRUE(CZORTestAccess::ledOn(*device));
}

TEST_F(BleBranches, BatteryAnswerIsDecodedFromItsLengthByteOn)
{
    ZOR_BATTERY_INFO info;
    EXPECT_EQ(device->getBatteryInfo(&info, true), ZOR_ERROR_NOT_SUPPORTED);
    CZORTestAccess::setIdentity(*device, true, true);
    // The decoder starts at the answer's length byte, so the sequence number
    // stands where the temperature byte is read: bring it to 125 (25 degrees).
    answer(0x02, 0x03, status(0, 0, 0, 0, 0, 0));
    while (static_cast<unsigned char>(lastSequence + 1) != 125)
        ASSERT_EQ(device->getParams(true), ZOR_SUCCESS);
    answer(0x02, 0x1E, {0x30, 0x39, 0x00, 0x64, 0x50, 0x01, 0x2C, 0x5F, 0x41, 0x1A});
    ASSERT_EQ(device->getBatteryInfo(&info, true), ZOR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x1E, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(info.battery_temp, 25);
    EXPECT_EQ(info.battery_vol, 0x0030);             // status byte, then content byte 0
    EXPECT_EQ(info.battery_charge_curr, 0x3900);
    EXPECT_EQ(info.battery_percentage, 0x64);
    EXPECT_EQ(info.battery_discharge_curr, 0x5001);
    EXPECT_EQ(info.battery_health, 0x2C);
    EXPECT_EQ(info.battery_charge_vol, 0x5F41);
    EXPECT_EQ(info.Reserved, 0);

    // The next request carries sequence 126; a two-byte answer is too short.
    answer(0x02, 0x1E, {});
    EXPECT_EQ(device->getBatteryInfo(&info, true), ZOR_ERROR_BAD_DATA);
}

} // namespace
