// Status, control and identity commands against virtual focusers, over USB
// and, where a command has both branches, over Bluetooth too.
#include "usb_fixture.h"

#include <array>
#include <cstring>

using zorsim::Model;

namespace {

int addConfigured(Model model, int firmware, int reportSize = 64)
{
    zorsim::DeviceConfig c;
    c.model = model;
    c.firmware = firmware;
    c.reportSize = reportSize;
    c.position = 0x1234;
    c.maxStep = 0xBEEF;
    c.backlash = 77;
    c.beep = true;
    c.maxForce = 9;
    c.speedWord = 2500;
    c.serial = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF1};
    return zorsim::addDevice(c);
}

INSTANTIATE_TEST_SUITE_P(BothLinks, LinkTest, ::testing::Bool(), linkName);

std::vector<int> params(CZOR &d, bool ble)
{
    int step = 0, maxStep = 0, speed = 0, backlash = 0, force = 0;
    bool beep = false, reverse = true;
    EXPECT_EQ(d.getStep(&step, ble) | d.getMaxStep(&maxStep, ble) | d.getSpeed(&speed, ble) |
                  d.getBacklash(&backlash, ble) | d.getMaxForce(&force, ble) | d.getBeep(&beep, ble) |
                  d.getReverse(&reverse, ble),
              0);
    return {step, maxStep, speed, backlash, force, beep, reverse};
}

TEST_P(LinkTest, StatusRecordInBothLayouts)
{
    auto narrow = openOnLink(addConfigured(Model::Old, 335, 16), 16);
    EXPECT_EQ(params(*narrow, ble()), (std::vector<int>{0x1234, 0xBEEF, 2500, 77, 9, 1, 0}));
    auto wide = openOnLink(addConfigured(Model::Pro, 382));
    ASSERT_EQ(wide->resetStep(0x054321, ble()), ZOR_SUCCESS);
    ASSERT_EQ(wide->setMaxStep(0x08ABCD, ble()), ZOR_SUCCESS);
    EXPECT_EQ(params(*wide, ble()), (std::vector<int>{0x054321, 0x08ABCD, 0, 77, 9, 1, 0})); // no speed from 336 on
}

TEST_P(LinkTest, ControlRecordLayoutsAndClamps)
{
    const int narrow = addConfigured(Model::Old, 321, 16);
    auto old = openOnLink(narrow, 16);
    takeReports(narrow);
    ASSERT_EQ(old->SetStep(-5, ble()), ZOR_SUCCESS);
    ASSERT_EQ(old->stopMove(ble()), ZOR_SUCCESS);
    ASSERT_EQ(old->SetStep(70000, ble()), ZOR_SUCCESS);
    std::vector<Bytes> r = takeReports(narrow);
    ASSERT_EQ(r.size(), 4u);
    // Speed word 2500 in bytes 6 and 7; flags: beep, force 9.
    EXPECT_EQ(r[0], (Bytes{0x03, 0x7E, 0x5A, 0x03, 1, 77, 0x09, 0xC4, 0, 0, 0, 0, 0, 0x91, 0xBE, 0xEF}));
    EXPECT_EQ(slice(r[3], 4, 10), (Bytes{1, 77, 0x09, 0xC4, 0xEA, 0x60})); // clamped to 60000
    EXPECT_TRUE(!ble() || (lastPayload().size() == 15 && !lastWaited())) << "the record from byte 1 on, unanswered";

    const int wide = addConfigured(Model::Pro, 382);
    auto pro = openOnLink(wide);
    ASSERT_EQ(pro->setMaxStep(700000, ble()), ZOR_SUCCESS);
    ASSERT_EQ(pro->setReverse(true, ble()), ZOR_SUCCESS);
    takeReports(wide);
    ASSERT_EQ(pro->resetStep(0x023456, ble()), ZOR_SUCCESS);
    ASSERT_EQ(pro->SetStep(900000, ble()), ZOR_SUCCESS);
    r = takeReports(wide);
    ASSERT_EQ(r.size(), 2u);
    ASSERT_EQ(r[0].size(), 64u);
    EXPECT_EQ(slice(r[0], 0, 16),
              (Bytes{0x03, 0x7E, 0x5A, 0x03, 0, 77, 0x09, 0x02, 0x34, 0x56, 1, 0, 0, 0x93, 0x27, 0xC0}));
    EXPECT_EQ(slice(r[1], 4, 11), (Bytes{1, 77, 0x09, 0x09, 0x27, 0xC0, 0})); // clamped to 600000
    EXPECT_EQ(zorsim::state(wide).position, 0x023456);
}

TEST_P(LinkTest, MovingRefusesSettersUntilItEnds)
{
    const bool b = ble();
    const int n = addConfigured(Model::Pro, 382);
    auto device = openOnLink(n);
    ASSERT_EQ(device->SetStep(0x1234 + 100, b), ZOR_SUCCESS);
    takeReports(n);
    for (int result : {device->SetStep(0, b), device->setBacklash(5, b), device->setMaxStep(5, b),
                       device->resetStep(5, b), device->setBeep(false, b), device->setReverse(false, b),
                       device->setMaxForce(1, b), device->SetSpeed(100), device->saveFWConf()})
        EXPECT_EQ(result, ZOR_ERROR_MOVING);
    EXPECT_TRUE(takeReports(n).empty());
    bool moving = false, byDevice = false, hand = true;
    ASSERT_EQ(device->isMoving(&moving, &byDevice, b), ZOR_SUCCESS);
    EXPECT_TRUE(moving && byDevice);
    zorsim::advance(std::chrono::seconds(1));
    ASSERT_EQ(device->isMoving(&moving, &byDevice, b), ZOR_SUCCESS);
    EXPECT_FALSE(moving);
    ASSERT_EQ(device->isHandControl(&hand, b), ZOR_SUCCESS);
    EXPECT_FALSE(hand);
    EXPECT_EQ(device->setBacklash(5, b), ZOR_SUCCESS);
    // Hand-controller motion shows only as the device's motion flag.
    zorsim::setHandController(n, true);
    zorsim::pressHandButton(n, 1);
    ASSERT_EQ(device->isMoving(&moving, &byDevice, b), ZOR_SUCCESS);
    EXPECT_TRUE(moving && byDevice);
    EXPECT_EQ(device->setBacklash(6, b), ZOR_SUCCESS);

    CZOR closed;
    EXPECT_EQ(closed.setBacklash(256, false), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(closed.setBacklash(255, false), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(closed.stopMove(false), ZOR_ERROR_INVALID_ID);
}

TEST_F(UsbDeviceTest, ErrorStateTemperatureAndAutoClear)
{
    const int n = addConfigured(Model::Pro, 382);
    auto device = open(n);
    zorsim::enterErrorState(n, '7');
    float t = 0;
    zorsim::setTemperature(n, -12.5);
    ASSERT_EQ(device->getTemp(&t, false), ZOR_SUCCESS);
    EXPECT_FLOAT_EQ(t, -12.5f);
    EXPECT_TRUE(zorsim::state(n).errorState);
    device->setAutoClearError(true);
    zorsim::setProbeAttached(n, false); // the word reads 0: -300 degrees
    takeReports(n);
    EXPECT_EQ(device->getTemp(&t, false), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_FLOAT_EQ(t, -12.5f);
    const std::vector<Bytes> r = takeReports(n);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(slice(r[1], 0, 5), (Bytes{0x03, 0x7E, 0x5A, 0x01, 0x0F}));
    EXPECT_FALSE(zorsim::state(n).errorState);

    const int raw = addConfigured(Model::Old, 300, 16);
    auto old = open(raw);
    zorsim::setTemperature(raw, 25.0);
    ASSERT_EQ(old->getTemp(&t, false), ZOR_SUCCESS);
    EXPECT_NEAR(t, 25.0f, 0.5f);
    bool hand = false;
    zorsim::setHandController(raw, true); // carried on the temperature input
    ASSERT_EQ(old->isHandControl(&hand, false), ZOR_SUCCESS);
    EXPECT_TRUE(hand);
}

TEST_F(UsbDeviceTest, CapabilityRecordsAndIndexesPastTheList)
{
    auto pro = open(addConfigured(Model::Pro, 369));
    int count = 0;
    pro->getNumOfControls(&count, false);
    ZOR_CONTROL_CAPS caps;
    std::memset(&caps, 0x55, sizeof caps);
    ASSERT_EQ(pro->getControlCaps(3, &caps, false), ZOR_SUCCESS);
    EXPECT_STREQ(caps.Name, "ZOR Type");
    EXPECT_STREQ(caps.Description, "ZOR type:ZOR Pro or ZORN");
    EXPECT_EQ(caps.ControlType, ZOR_CONTROL_MODEL);
    EXPECT_TRUE(caps.IsSupported && !caps.IsWritable);
    EXPECT_EQ(caps.Reserved[0] | caps.Reserved[2] | caps.Name[31] | caps.Unused[0] | caps.Unused[31], 0);
    // Past the six listed: a slot never filled reads as capability 0.
    ASSERT_EQ(pro->getControlCaps(7, &caps, false), ZOR_SUCCESS);
    EXPECT_STREQ(caps.Name, "BLE");
    EXPECT_TRUE(caps.IsWritable);
    EXPECT_EQ(pro->getControlCaps(8, &caps, false), ZOR_SUCCESS);
    for (int index : {9, -1})
        EXPECT_EQ(pro->getControlCaps(index, &caps, false), ZOR_ERROR_INVALID_INDEX);
    EXPECT_EQ(pro->getControlCaps(0, nullptr, false), ZOR_ERROR_INVALID_INDEX);
}

TEST_F(UsbDeviceTest, SerialNumberBatteryAndFactoryModeWithTheirGates)
{
    // Without a model string the serial comes one hexadecimal digit per byte.
    auto packed = open(addConfigured(Model::Old, 330));
    unsigned char sn[10];
    std::memset(sn, 0xEE, sizeof sn);
    ASSERT_EQ(packed->getSerialNumber(sn, 8, false), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(sn, sn + 10), (Bytes{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF1, 0xEE, 0xEE}));
    ASSERT_EQ(packed->getSerialNumber(sn, 3, false), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(sn, sn + 4), (Bytes{0x12, 0x34, 0x56, 0x78}));
    // Before 322 and without a model string: none of the identity commands.
    auto old = open(addConfigured(Model::Old, 321, 16));
    unsigned char buf[8];
    char name[16];
    ZOR_ERROR_MSG msg;
    ZOR_BATTERY_INFO battery;
    bool on;
    for (int result : {old->getSerialNumber(buf, 8, false), old->setSerialNumber(buf, 8),
                       old->getAlias(buf, 8, false), old->setAlias(buf, 8, false), old->getBLEName(name, 16),
                       old->setBLEName(name, 4, false), old->getErrorCode(&msg, false),
                       old->getBatteryInfo(&battery, false), old->setShippingMode(false),
                       old->setLEDState(true, false), old->getLEDState(&on, false), old->setFactoryMode()})
        EXPECT_EQ(result, ZOR_ERROR_NOT_SUPPORTED);

    // Writes, the battery range and the factory mode on a current model.
    const int n = addConfigured(Model::Pro, 382);
    auto device = open(n);
    unsigned char written[8] = {8, 7, 6, 5, 4, 3, 2, 1};
    ASSERT_EQ(device->setSerialNumber(written, 8), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).serial, (std::array<uint8_t, 8>{8, 7, 6, 5, 4, 3, 2, 1}));
    zorsim::Battery b;
    b.temperature = -40;
    b.voltage = 11900;
    zorsim::setBattery(n, b);
    ASSERT_EQ(device->getBatteryInfo(&battery, false), ZOR_SUCCESS);
    EXPECT_EQ(std::vector<int>({battery.battery_temp, battery.battery_vol}), (std::vector<int>{-40, 11900}));
    b.temperature = -41;
    zorsim::setBattery(n, b);
    EXPECT_EQ(device->getBatteryInfo(&battery, false), ZOR_ERROR_BATTERY_DATA);
    ASSERT_EQ(device->setFactoryMode(), ZOR_SUCCESS);
    EXPECT_TRUE(zorsim::state(n).factoryMode);
}

TEST_P(LinkTest, IdentityWritesAndReads)
{
    const bool b = ble();
    const int n = addConfigured(Model::Pro, 382);
    auto device = openOnLink(n);
    unsigned char major = 0, minor = 0, build = 0;
    ASSERT_EQ(device->getFwVer(&major, &minor, &build, b), ZOR_SUCCESS);
    EXPECT_EQ(Bytes({major, minor, build}), (Bytes{3, 8, 2}));
    ZOR_TYPE type;
    ASSERT_EQ(device->getType(&type, b), ZOR_SUCCESS);
    EXPECT_STREQ(type.Type, "ZOR Pro");
    unsigned char sn[10];
    std::memset(sn, 0xEE, sizeof sn);
    ASSERT_EQ(device->getSerialNumber(sn, 8, b), ZOR_SUCCESS);
    EXPECT_EQ(Bytes(sn, sn + 10), (Bytes{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF1, 0xEE, 0xEE}));
    unsigned char alias[8] = {'G', 'u', 'i', 'd', 'e', 'r', 'O', 'K'}, back[9] = {};
    ASSERT_EQ(device->setAlias(alias, 8, b), ZOR_SUCCESS);
    EXPECT_TRUE(!b || lastWaited()) << "the alias write is answered";
    ASSERT_EQ(device->getAlias(back, 8, b), ZOR_SUCCESS);
    EXPECT_STREQ(reinterpret_cast<char *>(back), "GuiderOK");
    ZOR_ERROR_MSG msg;
    zorsim::setErrorCodes(n, '5', '7');
    ASSERT_EQ(device->getErrorCode(&msg, b), ZOR_SUCCESS);
    EXPECT_EQ(std::string(msg.MotorErrorCode) + msg.BatteryErrorCode, "E5E7");

    // The name report carries zeros after the name, whatever the buffer held.
    char name[] = "Scope11", out[32];
    ASSERT_EQ(device->setBLEName(name, 7, b), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).bleName, "Scope11");
    EXPECT_TRUE(!b || lastPayload() == (Bytes{0x7E, 0x5A, 0x1E, 0, 'S', 'c', 'o', 'p', 'e', '1', '1'}));
    ASSERT_EQ(device->getBLEName(out, sizeof out), ZOR_SUCCESS);
    EXPECT_STREQ(out, "ZOR Pro_Scope11");
    std::memset(out, 'x', sizeof out);
    ASSERT_EQ(device->getBLEName(out, 6), ZOR_SUCCESS); // never past the buffer
    EXPECT_EQ(std::string(out, 7), std::string("ZOR P\0x", 7));
    ASSERT_EQ(device->setBLEName(name, 0, b), ZOR_SUCCESS);
    ASSERT_EQ(device->getBLEName(out, sizeof out), ZOR_SUCCESS); // no name: left alone
    EXPECT_EQ(std::string(out, 7), std::string("ZOR P\0x", 7));

    bool on = true;
    ASSERT_EQ(device->setLEDState(false, b), ZOR_SUCCESS);
    EXPECT_TRUE(!b || (lastPayload() == Bytes{0x7E, 0x5A, 0x20, 0x00} && !lastWaited()));
    ASSERT_EQ(device->getLEDState(&on, b), ZOR_SUCCESS);
    EXPECT_FALSE(on || zorsim::state(n).ledOn || CZORTestAccess::ledOn(*device));
    int reason = 0;
    zorsim::setPowerOffReason(n, 1);
    ASSERT_EQ(device->getPowerOffReason(&reason, b), ZOR_SUCCESS);
    EXPECT_EQ(reason, 1);
    ASSERT_EQ(device->setShippingMode(b), ZOR_SUCCESS);
    EXPECT_TRUE(zorsim::state(n).shippingRequested);
    EXPECT_TRUE(!b || lastPayload() == (Bytes{0x7E, 0x5A, 0x1F, 0x00}));
}

} // namespace
