// Status, control and identity commands over USB, against virtual focusers.
#include "usb_fixture.h"

#include <cstring>

using zorsim::Model;

namespace {

zorsim::DeviceConfig config(Model model, int firmware, int reportSize = 64)
{
    zorsim::DeviceConfig c;
    c.model = model;
    c.firmware = firmware;
    c.reportSize = reportSize;
    c.position = 0x1234;
    c.maxStep = 0xBEEF;
    c.backlash = 77;
    c.beep = true;
    c.reverse = false;
    c.maxForce = 9;
    c.speedWord = 2500;
    return c;
}

TEST_F(UsbDeviceTest, StatusRecordInBothLayouts)
{
    {
        auto device = open(zorsim::addDevice(config(Model::Old, 335, 16)));
        int step = 0, maxStep = 0, speed = 0, backlash = 0, force = 0;
        bool beep = false, reverse = true;
        ASSERT_EQ(device->getStep(&step, false), ZOR_SUCCESS);
        ASSERT_EQ(device->getMaxStep(&maxStep, false), ZOR_SUCCESS);
        ASSERT_EQ(device->getSpeed(&speed, false), ZOR_SUCCESS);
        ASSERT_EQ(device->getBacklash(&backlash, false), ZOR_SUCCESS);
        ASSERT_EQ(device->getMaxForce(&force, false), ZOR_SUCCESS);
        ASSERT_EQ(device->getBeep(&beep, false), ZOR_SUCCESS);
        ASSERT_EQ(device->getReverse(&reverse, false), ZOR_SUCCESS);
        EXPECT_EQ(step, 0x1234);
        EXPECT_EQ(maxStep, 0xBEEF);
        EXPECT_EQ(speed, 2500);
        EXPECT_EQ(backlash, 77);
        EXPECT_EQ(force, 9);
        EXPECT_TRUE(beep);
        EXPECT_FALSE(reverse);
    }
    zorsim::DeviceConfig wide = config(Model::Pro, 382);
    wide.position = 0x054321;
    wide.maxStep = 0x08ABCD;
    auto device = open(zorsim::addDevice(wide));
    int step = 0, maxStep = 0, speed = -1;
    ASSERT_EQ(device->getStep(&step, false), ZOR_SUCCESS);
    ASSERT_EQ(device->getMaxStep(&maxStep, false), ZOR_SUCCESS);
    ASSERT_EQ(device->getSpeed(&speed, false), ZOR_SUCCESS);
    EXPECT_EQ(step, 0x054321);
    EXPECT_EQ(maxStep, 0x08ABCD);
    EXPECT_EQ(speed, 0); // no speed word from 336 on
}

TEST_F(UsbDeviceTest, ControlRecordLayoutsAndClamps)
{
    const int narrow = zorsim::addDevice(config(Model::Old, 321, 16));
    auto old = open(narrow);
    takeReports(narrow);
    ASSERT_EQ(old->SetStep(-5, false), ZOR_SUCCESS);
    std::vector<Bytes> reports = takeReports(narrow);
    ASSERT_EQ(reports.size(), 1u);
    // Speed word 2500 (0x09C4), step 0, flags: beep, force 9.
    EXPECT_EQ(reports[0], (Bytes{0x03, 0x7E, 0x5A, 0x03, 1, 77, 0x09, 0xC4, 0, 0, 0, 0, 0, 0x91, 0xBE, 0xEF}));
    EXPECT_EQ(zorsim::state(narrow).target, 0);
    ASSERT_EQ(old->stopMove(false), ZOR_SUCCESS);
    takeReports(narrow);
    ASSERT_EQ(old->SetStep(70000, false), ZOR_SUCCESS);
    reports = takeReports(narrow);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(Bytes(reports[0].begin() + 8, reports[0].begin() + 10), (Bytes{0xEA, 0x60}));

    const int wide = zorsim::addDevice(config(Model::Pro, 382));
    auto pro = open(wide);
    ASSERT_EQ(pro->setMaxStep(700000, false), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(wide).maxStep, 600000);
    ASSERT_EQ(pro->setReverse(true, false), ZOR_SUCCESS);
    takeReports(wide);
    ASSERT_EQ(pro->resetStep(0x023456, false), ZOR_SUCCESS);
    reports = takeReports(wide);
    ASSERT_EQ(reports.size(), 1u);
    ASSERT_EQ(reports[0].size(), 64u);
    EXPECT_EQ(head(reports[0], 16),
              (Bytes{0x03, 0x7E, 0x5A, 0x03, 0, 77, 0x09, 0x02, 0x34, 0x56, 1, 0, 0, 0x93, 0x27, 0xC0}));
    EXPECT_EQ(zorsim::state(wide).position, 0x023456);
    ASSERT_EQ(pro->SetStep(900000, false), ZOR_SUCCESS);
    reports = takeReports(wide);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(Bytes(reports[0].begin() + 7, reports[0].begin() + 10), (Bytes{0x09, 0x27, 0xC0}));
}

TEST_F(UsbDeviceTest, MovingRefusesSettersUntilItEnds)
{
    const int n = zorsim::addDevice(config(Model::Pro, 382));
    auto device = open(n);
    ASSERT_EQ(device->SetStep(0x1234 + 100, false), ZOR_SUCCESS);
    takeReports(n);
    EXPECT_EQ(device->SetStep(0, false), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->setBacklash(5, false), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->setMaxStep(5, false), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->resetStep(5, false), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->setBeep(false, false), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->setReverse(false, false), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->setMaxForce(1, false), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->SetSpeed(100), ZOR_ERROR_MOVING);
    EXPECT_EQ(device->saveFWConf(), ZOR_ERROR_MOVING);
    EXPECT_TRUE(takeReports(n).empty());

    bool moving = false, byDevice = false;
    ASSERT_EQ(device->isMoving(&moving, &byDevice, false), ZOR_SUCCESS);
    EXPECT_TRUE(moving);
    EXPECT_TRUE(byDevice);
    zorsim::advance(std::chrono::seconds(1));
    ASSERT_EQ(device->isMoving(&moving, &byDevice, false), ZOR_SUCCESS);
    EXPECT_FALSE(moving);
    EXPECT_EQ(device->setBacklash(5, false), ZOR_SUCCESS);

    // Hand-controller motion shows only through the status flag.
    zorsim::setHandController(n, true);
    zorsim::pressHandButton(n, 1);
    bool hand = false;
    ASSERT_EQ(device->isMoving(&moving, &byDevice, false), ZOR_SUCCESS);
    ASSERT_EQ(device->isHandControl(&hand, false), ZOR_SUCCESS);
    EXPECT_TRUE(moving);
    EXPECT_TRUE(byDevice);
    EXPECT_TRUE(hand);
    EXPECT_EQ(device->setBacklash(6, false), ZOR_SUCCESS);
}

TEST_F(UsbDeviceTest, ClosedObjectRefusesAndBacklashRangeComesFirst)
{
    CZOR device;
    int step = 0;
    EXPECT_EQ(device.setBacklash(256, false), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(device.setBacklash(255, false), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(device.SetStep(10, false), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(device.getStep(&step, false), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(device.stopMove(false), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(device.sendControl(0, false), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(device.HIDEndUpdate(), ZOR_ERROR_INVALID_ID);
}

TEST_F(UsbDeviceTest, ErrorStateIsClearedOnlyWhenAsked)
{
    const int n = zorsim::addDevice(config(Model::Pro, 382));
    auto device = open(n);
    zorsim::enterErrorState(n, '7');
    int step = 0;
    ASSERT_EQ(device->getStep(&step, false), ZOR_SUCCESS);
    EXPECT_TRUE(zorsim::state(n).errorState);
    ZOR_ERROR_MSG msg;
    ASSERT_EQ(device->getErrorCode(&msg, false), ZOR_SUCCESS);
    EXPECT_STREQ(msg.MotorErrorCode, "E7");
    EXPECT_STREQ(msg.BatteryErrorCode, "E0");

    device->setAutoClearError(true);
    takeReports(n);
    ASSERT_EQ(device->getStep(&step, false), ZOR_SUCCESS);
    const std::vector<Bytes> reports = takeReports(n);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(head(reports[1], 5), (Bytes{0x03, 0x7E, 0x5A, 0x01, 0x0F}));
    EXPECT_FALSE(zorsim::state(n).errorState);
}

TEST_F(UsbDeviceTest, TemperatureFromBothFirmwareKinds)
{
    const int n = zorsim::addDevice(config(Model::Pro, 382));
    auto device = open(n);
    float t = 0;
    zorsim::setTemperature(n, -12.5);
    ASSERT_EQ(device->getTemp(&t, false), ZOR_SUCCESS);
    EXPECT_FLOAT_EQ(t, -12.5f);
    // No probe: the word reads 0 (-300 degrees), the last reading stands.
    zorsim::setProbeAttached(n, false);
    t = 0;
    EXPECT_EQ(device->getTemp(&t, false), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_FLOAT_EQ(t, -12.5f);

    const int raw = zorsim::addDevice(config(Model::Old, 300, 16));
    auto old = open(raw);
    zorsim::setTemperature(raw, 25.0);
    ASSERT_EQ(old->getTemp(&t, false), ZOR_SUCCESS);
    EXPECT_NEAR(t, 25.0f, 0.5f);
    bool hand = true;
    ASSERT_EQ(old->isHandControl(&hand, false), ZOR_SUCCESS);
    EXPECT_FALSE(hand);
    zorsim::setHandController(raw, true);
    ASSERT_EQ(old->isHandControl(&hand, false), ZOR_SUCCESS);
    EXPECT_TRUE(hand);
    EXPECT_EQ(old->getTemp(&t, false), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_NEAR(t, 25.0f, 0.5f);
}

TEST_F(UsbDeviceTest, CapabilityListsFollowModelAndFirmware)
{
    struct Case {
        Model model;
        int firmware;
        int count;
    };
    const Case cases[] = {{Model::Pro, 369, 6}, {Model::Pro, 370, 7}, {Model::Pro, 381, 7}, {Model::Pro, 382, 8},
                          {Model::N, 369, 4},   {Model::N, 370, 5},   {Model::N, 382, 5},   {Model::Old, 382, 1}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.firmware);
        auto device = open(zorsim::addDevice(config(c.model, c.firmware)));
        int count = 0;
        ASSERT_EQ(device->getNumOfControls(&count, false), ZOR_SUCCESS);
        EXPECT_EQ(count, c.count);
    }

    auto pro = open(zorsim::addDevice(config(Model::Pro, 369)));
    int count = 0;
    ASSERT_EQ(pro->getNumOfControls(&count, false), ZOR_SUCCESS);
    ZOR_CONTROL_CAPS caps;
    std::memset(&caps, 0x55, sizeof caps);
    ASSERT_EQ(pro->getControlCaps(3, &caps, false), ZOR_SUCCESS);
    EXPECT_STREQ(caps.Name, "ZOR Type");
    EXPECT_STREQ(caps.Description, "ZOR type:ZOR Pro or ZORN");
    EXPECT_EQ(caps.ControlType, ZOR_CONTROL_MODEL);
    EXPECT_TRUE(caps.IsSupported);
    EXPECT_FALSE(caps.IsWritable);
    EXPECT_EQ(caps.Reserved[0] | caps.Reserved[1] | caps.Reserved[2], 0);
    EXPECT_EQ(caps.Name[31], 0);
    EXPECT_EQ(caps.Unused[0] | caps.Unused[31], 0);
    // Past the six listed: a slot never filled reads as capability 0.
    ASSERT_EQ(pro->getControlCaps(7, &caps, false), ZOR_SUCCESS);
    EXPECT_STREQ(caps.Name, "BLE");
    EXPECT_TRUE(caps.IsWritable);
    EXPECT_EQ(pro->getControlCaps(8, &caps, false), ZOR_SUCCESS);
    EXPECT_EQ(pro->getControlCaps(9, &caps, false), ZOR_ERROR_INVALID_INDEX);
    EXPECT_EQ(pro->getControlCaps(-1, &caps, false), ZOR_ERROR_INVALID_INDEX);
    EXPECT_EQ(pro->getControlCaps(0, nullptr, false), ZOR_ERROR_INVALID_INDEX);
}

TEST_F(UsbDeviceTest, SerialNumberPackingAndGates)
{
    const std::array<uint8_t, 8> serial{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF1};
    for (Model model : {Model::Old, Model::Pro}) {
        zorsim::DeviceConfig c = config(model, 330);
        c.serial = serial;
        auto device = open(zorsim::addDevice(c));
        unsigned char sn[10];
        std::memset(sn, 0xEE, sizeof sn);
        ASSERT_EQ(device->getSerialNumber(sn, 8, false), ZOR_SUCCESS);
        EXPECT_EQ(Bytes(sn, sn + 10), (Bytes{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF1, 0xEE, 0xEE}));
        // A shorter buffer gets the first bytes only.
        ASSERT_EQ(device->getSerialNumber(sn, 3, false), ZOR_SUCCESS);
        EXPECT_EQ(Bytes(sn, sn + 4), (Bytes{0x12, 0x34, 0x56, 0x78}));
    }
    // Before 322 without a model string: none of the identity commands.
    auto old = open(zorsim::addDevice(config(Model::Old, 321, 16)));
    unsigned char buf[8];
    char name[16];
    ZOR_ERROR_MSG msg;
    ZOR_BATTERY_INFO battery;
    bool on;
    EXPECT_EQ(old->getSerialNumber(buf, 8, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->setSerialNumber(buf, 8), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->getAlias(buf, 8, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->setAlias(buf, 8, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->getBLEName(name, 16), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->setBLEName(name, 4, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->getErrorCode(&msg, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->getBatteryInfo(&battery, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->setShippingMode(false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->setLEDState(true, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->getLEDState(&on, false), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(old->setFactoryMode(), ZOR_ERROR_NOT_SUPPORTED);
}

TEST_F(UsbDeviceTest, IdentityWritesAndReads)
{
    const int n = zorsim::addDevice(config(Model::Pro, 382));
    auto device = open(n);
    unsigned char major, minor, build;
    ASSERT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_SUCCESS);
    EXPECT_EQ(Bytes({major, minor, build}), (Bytes{3, 8, 2}));
    ZOR_TYPE type;
    ASSERT_EQ(device->getType(&type, false), ZOR_SUCCESS);
    EXPECT_STREQ(type.Type, "ZOR Pro");

    unsigned char alias[8] = {'G', 'u', 'i', 'd', 'e', 'r', 'O', 'K'};
    ASSERT_EQ(device->setAlias(alias, 8, false), ZOR_SUCCESS);
    unsigned char back[9] = {};
    ASSERT_EQ(device->getAlias(back, 8, false), ZOR_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(back)), "GuiderOK");
    unsigned char shortAlias[5] = {'M', 'a', 'i', 'n', 0};
    ASSERT_EQ(device->setAlias(shortAlias, 5, false), ZOR_SUCCESS);
    ASSERT_EQ(device->getAlias(back, 8, false), ZOR_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(back)), "Main");

    unsigned char sn[8] = {8, 7, 6, 5, 4, 3, 2, 1};
    ASSERT_EQ(device->setSerialNumber(sn, 8), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).serial, (std::array<uint8_t, 8>{8, 7, 6, 5, 4, 3, 2, 1}));

    char name[] = "Scope11";
    ASSERT_EQ(device->setBLEName(name, 7, false), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).bleName, "Scope11");
    char longName[] = "ABCDEFGHIJKL";
    EXPECT_EQ(device->setBLEName(longName, 12, false), ZOR_ERROR_INVALID_VALUE);
    char out[32];
    std::memset(out, 'x', sizeof out);
    ASSERT_EQ(device->getBLEName(out, sizeof out), ZOR_SUCCESS);
    EXPECT_STREQ(out, "ZOR Pro_Scope11");
    // Never more than the buffer, terminator included.
    std::memset(out, 'x', sizeof out);
    ASSERT_EQ(device->getBLEName(out, 6), ZOR_SUCCESS);
    EXPECT_EQ(std::string(out, 7), std::string("ZOR P\0x", 7));

    ASSERT_EQ(device->setLEDState(false, false), ZOR_SUCCESS);
    EXPECT_FALSE(zorsim::state(n).ledOn);
    bool on = true;
    ASSERT_EQ(device->getLEDState(&on, false), ZOR_SUCCESS);
    EXPECT_FALSE(on);

    zorsim::setPowerOffReason(n, 1);
    int reason = 0;
    ASSERT_EQ(device->getPowerOffReason(&reason, false), ZOR_SUCCESS);
    EXPECT_EQ(reason, 1);

    zorsim::Battery b;
    b.temperature = -40;
    b.voltage = 11900;
    b.percentage = 64;
    zorsim::setBattery(n, b);
    ZOR_BATTERY_INFO info;
    ASSERT_EQ(device->getBatteryInfo(&info, false), ZOR_SUCCESS);
    EXPECT_EQ(info.battery_temp, -40);
    EXPECT_EQ(info.battery_vol, 11900);
    EXPECT_EQ(info.battery_percentage, 64);
    b.temperature = -41;
    zorsim::setBattery(n, b);
    EXPECT_EQ(device->getBatteryInfo(&info, false), ZOR_ERROR_BATTERY_DATA);
    EXPECT_EQ(info.battery_vol, -1);

    ASSERT_EQ(device->setFactoryMode(), ZOR_SUCCESS);
    EXPECT_TRUE(zorsim::state(n).factoryMode);
    ASSERT_EQ(device->setShippingMode(false), ZOR_SUCCESS);
    EXPECT_TRUE(zorsim::state(n).shippingRequested);
}

TEST_F(UsbDeviceTest, BleNameWithNothingSetLeavesTheBufferAlone)
{
    const int n = zorsim::addDevice(config(Model::Pro, 382));
    auto device = open(n);
    // Leave data of another command in the request buffer first: the name
    // report carries zeros after the name, not what the buffer held.
    ASSERT_EQ(device->setBacklash(0x41, false), ZOR_SUCCESS);
    char name[] = "AB";
    ASSERT_EQ(device->setBLEName(name, 2, false), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).bleName, "AB");
    ASSERT_EQ(device->setBLEName(name, 0, false), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).bleName, "");
    char out[8] = "keep";
    ASSERT_EQ(device->getBLEName(out, sizeof out), ZOR_SUCCESS);
    EXPECT_STREQ(out, "keep");
}

} // namespace
