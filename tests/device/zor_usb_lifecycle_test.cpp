// Opening, closing, the reconnect policy, the settings kept on the host and
// the firmware update, against virtual focusers.
#include "usb_fixture.h"

#include "log_lines.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <regex>
#include <tuple>
#include <sys/stat.h>


using zorsim::Direction;
using zorsim::Model;

namespace {

TEST_F(UsbDeviceTest, OpenLearnsReportSizeRangeAndFeaturesPerGeneration)
{
    struct Case {
        Model model;
        int firmware, reportSize, stepRange;
        std::vector<int> controls;
    };
    const Case cases[] = {{Model::Old, 335, 16, 60000, {2}},
                          {Model::Old, 336, 64, 600000, {2}},
                          {Model::N, 369, 64, 600000, {1, 2, 3, 5}},
                          {Model::N, 370, 64, 600000, {1, 2, 3, 5, 7}},
                          {Model::Pro, 369, 64, 600000, {0, 1, 2, 3, 4, 5}},
                          {Model::Pro, 381, 64, 600000, {0, 1, 2, 3, 4, 5, 7}},
                          {Model::Pro, 382, 16, 600000, {0, 1, 2, 3, 4, 5, 7, 6}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.firmware);
        const int n = add(c.model, c.firmware, c.reportSize);
        auto device = open(n);
        int range = 0, count = 0;
        device->getStepRange(&range, false);
        EXPECT_EQ(range, c.stepRange);
        ASSERT_EQ(device->getNumOfControls(&count, false), ZOR_SUCCESS);
        ASSERT_EQ(count, static_cast<int>(c.controls.size()));
        for (int i = 0; i < count; ++i) {
            ZOR_CONTROL_CAPS caps;
            ASSERT_EQ(device->getControlCaps(i, &caps, false), ZOR_SUCCESS);
            EXPECT_EQ(caps.ControlType, c.controls[i]);
            // All listed features are supported but the Bluetooth update.
            EXPECT_EQ(caps.IsSupported, caps.ControlType != ZOR_CONTROL_BLE_UPDATE) << caps.Name;
        }
        for (const zorsim::Transfer &t : zorsim::transfers(n))
            EXPECT_EQ(t.bytes.size(), t.kind == zorsim::Transfer::SendFeature ? size_t(c.reportSize) : 17u);
    }
}

TEST_F(UsbDeviceTest, FailedFirmwareReadLeavesVersionZeroAndOpenIsOnce)
{
    const int n = add(Model::Pro, 382);
    zorsim::failNext(n, Direction::Read, 1, -1, ENODEV);
    auto device = open(n);
    int range = 0, count = 0;
    device->getStepRange(&range, false);
    device->getNumOfControls(&count, false);
    EXPECT_EQ(range, 60000);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(device->HIDStartUpdate(), ZOR_ERROR_NOT_SUPPORTED);
    ZOR_CONTROL_CAPS caps;
    device->getControlCaps(0, &caps, false);
    EXPECT_FALSE(caps.IsSupported); // not even the buzzer: the reply was never read

    zorsim::clearTransfers(n);
    std::string path = zorsim::devicePath(n);
    EXPECT_TRUE(device->open(path.data()));
    EXPECT_TRUE(zorsim::transfers(n).empty());
    CZOR missing;
    char nowhere[] = "sim:99";
    EXPECT_FALSE(missing.open(nowhere));
}

// Whether the serial number was asked for among `reports`.
bool askedForSerial(const std::vector<Bytes> &reports)
{
    return std::any_of(reports.begin(), reports.end(),
                       [](const Bytes &r) { return r.size() > 4 && r[3] == 0x02 && r[4] == 0x0C; });
}

TEST_F(UsbDeviceTest, UnsetPositionIsRestoredFromTheSavedSettings)
{
    auto first = open(add(Model::Pro, 382, 64, 1234));
    ASSERT_EQ(first->setBacklash(12, false), ZOR_SUCCESS);
    ASSERT_EQ(first->setBeep(true, false), ZOR_SUCCESS);
    ASSERT_EQ(first->setMaxStep(400000, false), ZOR_SUCCESS);
    first->close();
    const std::string xml = zor_test::readFile(settingsFile());
    for (const char *value : {"<Position type=\"4\">d2040000</Position>", "<Backlash type=\"4\">0c000000</Backlash>",
                              "<Beep type=\"4\">01000000</Beep>", "<MaxStep type=\"4\">801a0600</MaxStep>"})
        EXPECT_NE(xml.find(value), std::string::npos) << value;
    EXPECT_EQ(xml.find("<SN"), std::string::npos) << "no serial was read: no key of its own";

    const int lost = add(Model::Pro, 382, 64, 30000);
    open(lost);
    const zorsim::DeviceState s = zorsim::state(lost);
    EXPECT_EQ(std::vector<int>({s.position, s.backlash, s.beep}), (std::vector<int>{1234, 12, 1}));
    EXPECT_FALSE(askedForSerial(takeReports(lost))) << "the file holds no focuser's own key";
    const int kept = add(Model::Pro, 382, 64, 29999);
    open(kept);
    EXPECT_EQ(zorsim::state(kept).backlash, 0);
}

// Two focusers that lose power come back at their own positions, from a file
// of the earlier format (shared values only) that keeps its other content; a
// focuser whose serial cannot be read takes the shared values.
TEST_F(UsbDeviceTest, EachFocuserWithASerialKeepsItsOwnSettings)
{
    const std::string other = "<Other date=\"20240305_210744\"><Keep type=\"4\">2a000000</Keep></Other>";
    mkdir((zor_test::sandboxHome() + "/.KVO").c_str(), 0700);
    std::ofstream(settingsFile()) << "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<software date=\"20240305_210744\">"
                                  << other
                                  << "<KVO_Drivebox date=\"20240305_210744\"><Position type=\"4\">39300000</Position>"
                                     "<Backlash type=\"4\">07000000</Backlash><Note type=\"3\">ab</Note>"
                                     "</KVO_Drivebox></software>\n";
    struct Focuser {
        std::array<uint8_t, 8> serial;
        int target, backlash;
        bool reverse;
        int n = 0;
        std::unique_ptr<CZOR> device;
    };
    Focuser focusers[] = {{{0x5a, 0x4f, 0x52, 0x4e, 0, 0, 1, 0x10}, 40000, 11, true, 0, nullptr},
                          {{0x5a, 0x4f, 0x52, 0x4e, 0, 0, 1, 0x20}, 20000, 22, false, 0, nullptr}};
    for (Focuser &f : focusers) {
        zorsim::DeviceConfig c;
        c.model = Model::N; // loses power when unplugged
        c.firmware = 370;
        c.serial = f.serial;
        f.n = zorsim::addDevice(c);
        f.device = open(f.n);
        EXPECT_FALSE(askedForSerial(takeReports(f.n))) << "the earlier format holds no focuser's own key";
        EXPECT_EQ(zorsim::state(f.n).position, 12345) << "the shared values, as before";
        EXPECT_EQ(zorsim::state(f.n).backlash, 7);
        ZOR_SN serial;
        ASSERT_EQ(f.device->getSerialNumber(serial.id, sizeof serial.id, false), ZOR_SUCCESS);
        ASSERT_EQ(f.device->setBacklash(f.backlash, false), ZOR_SUCCESS);
        ASSERT_EQ(f.device->setReverse(f.reverse, false), ZOR_SUCCESS);
        ASSERT_EQ(f.device->SetStep(f.target, false), ZOR_SUCCESS);
    }
    zorsim::advance(std::chrono::seconds(20));
    for (Focuser &f : focusers) {
        int step = 0;
        ASSERT_EQ(f.device->getStep(&step, false), ZOR_SUCCESS);
        ASSERT_EQ(step, f.target);
        f.device->close();
    }
    const std::string xml = zor_test::readFile(settingsFile());
    EXPECT_TRUE(std::regex_search(xml, std::regex(R"(<Other date="20240305_210744">\s*)"
                                                  R"(<Keep type="4">2a000000</Keep>\s*</Other>)")))
        << xml;
    EXPECT_NE(xml.find("<Note type=\"3\">ab</Note>"), std::string::npos) << xml;
    EXPECT_TRUE(std::regex_search(xml, std::regex(R"(<KVO_Drivebox date="20240305_210744">\s*)"
                                                  R"(<Position type="4">204e0000</Position>)")))
        << "the shared values are the last focuser's\n" << xml;
    EXPECT_TRUE(std::regex_search(xml, std::regex(R"(<SN5a4f524e00000110 date="\d{8}_\d{6}">\s*)"
                                                  R"(<Position type="4">409c0000</Position>)")))
        << xml;

    for (Focuser &f : focusers) {
        zorsim::unplug(f.n);
        zorsim::plug(f.n);
        ASSERT_EQ(zorsim::state(f.n).position, 30000);
        f.device = open(f.n);
        EXPECT_TRUE(askedForSerial(takeReports(f.n)));
        const zorsim::DeviceState s = zorsim::state(f.n);
        EXPECT_EQ(std::make_tuple(s.position, s.backlash, s.reverse),
                  std::make_tuple(f.target, f.backlash, f.reverse));
        // An ordinary open, not at the unset position, asks nothing more.
        f.device->close();
        takeReports(f.n);
        f.device = open(f.n);
        EXPECT_FALSE(askedForSerial(takeReports(f.n)));
    }

    const int noSerial = add(Model::Old, 321, 16, 30000);
    open(noSerial);
    const zorsim::DeviceState s = zorsim::state(noSerial);
    EXPECT_EQ(std::make_tuple(s.position, s.backlash, s.reverse), std::make_tuple(20000, 22, false));
}

TEST_F(UsbDeviceTest, CloseStopsARunningMoveOrWritesTheRecordOnce)
{
    const int n = add(Model::Pro, 382);
    auto device = open(n);
    ASSERT_EQ(device->SetStep(5000, false), ZOR_SUCCESS);
    takeReports(n);
    device->close();
    std::vector<Bytes> reports = takeReports(n);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(slice(reports[0], 0, 5), (Bytes{0x03, 0x7E, 0x5A, 0x02, 0x03})); // status read
    EXPECT_EQ(slice(reports[1], 0, 5), (Bytes{0x03, 0x7E, 0x5A, 0x03, 0x00})); // enabled 0
    EXPECT_FALSE(zorsim::state(n).moving);
    EXPECT_EQ(zorsim::openHandles(n), 0);
    device->close();
    EXPECT_TRUE(zorsim::transfers(n).empty());

    auto idle = open(n);
    takeReports(n);
    idle->close();
    reports = takeReports(n);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(slice(reports[0], 0, 5), (Bytes{0x03, 0x7E, 0x5A, 0x03, 0x00}));
}

class UsbTransport : public UsbDeviceTest {
protected:
    int fwVer()
    {
        unsigned char major, minor, build;
        return device->getFwVer(&major, &minor, &build, false);
    }
    std::vector<std::string> reconnects() const { return log.messages("ZOR", "HIDUpdateStatus"); }

    void SetUp() override
    {
        UsbDeviceTest::SetUp();
        n = add(Model::Pro, 382);
        device = open(n);
    }

    zor_test::LogLines log;
    int n = 0;
    std::unique_ptr<CZOR> device;
};

TEST_F(UsbTransport, MinusOneOrAVanishedDeviceMeansRemovedAndIsNotCounted)
{
    zorsim::failNext(n, Direction::Send, 8, -1, ENODEV);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(fwVer(), ZOR_ERROR_REMOVED);
    EXPECT_TRUE(reconnects().empty());
    EXPECT_EQ(log.messages("ZOR", "handleReportErr").at(0), "HID Err: ioctl (SFEATURE): No such device");

    // A device that vanished gives codes, not crashes.
    zorsim::unplug(n);
    int step = 0;
    char name[16] = "unchanged";
    EXPECT_EQ(fwVer(), ZOR_ERROR_REMOVED);
    EXPECT_EQ(device->getStep(&step, false), ZOR_ERROR_GENERAL_ERROR); // no marks in an empty reply
    EXPECT_EQ(device->getBLEName(name, sizeof name), ZOR_ERROR_REMOVED);
    EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, '\0'));
    device->close();
    EXPECT_FALSE(device->isOpen());
    EXPECT_EQ(zorsim::invalidHandleUses(), 0);
    EXPECT_TRUE(reconnects().empty());
}

TEST_F(UsbTransport, OtherFailuresReopenFromTheFourthToTheSixth)
{
    zorsim::failNext(n, Direction::Send, 9, -5);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(fwVer(), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_EQ(reconnects(), (std::vector<std::string>{"sim:0 try to reconnect [4:0]", "sim:0 try to reconnect [5:1]",
                                                      "sim:0 try to reconnect [6:2]"}));
    EXPECT_EQ(zorsim::openHandles(n), 1);
    // A success re-arms the policy.
    ASSERT_EQ(fwVer(), ZOR_SUCCESS);
    zorsim::failNext(n, Direction::Read, 4, -5);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(fwVer(), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_EQ(reconnects().size(), 4u);
    // A reopening that fails leaves the object closed.
    zorsim::failNextOpens(n, 1);
    zorsim::failNext(n, Direction::Send, 1, -5);
    EXPECT_EQ(fwVer(), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_EQ(log.messages("ZOR", "HIDReconnect"), std::vector<std::string>{"sim:0 reconnect fail"});
    EXPECT_FALSE(device->isOpen());
    EXPECT_EQ(fwVer(), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(zorsim::invalidHandleUses(), 0);
}

TEST_F(UsbTransport, StatusReadChecksTheMarksAndCounts)
{
    int step = 0;
    zorsim::garbleNextReplies(n, 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(device->getStep(&step, false), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_EQ(log.messages("ZOR", "clearError").at(0), "response error [1-3]: 81 a5 fc");
    EXPECT_EQ(reconnects().size(), 1u);
    EXPECT_EQ(device->getStep(&step, false), ZOR_SUCCESS);
    EXPECT_EQ(step, 1000);
}

TEST_F(UsbDeviceTest, UpdateOnShortReportsGoesInElevenByteChunks)
{
    const int n = add(Model::Pro, 382, 16);
    auto device = open(n);
    ASSERT_EQ(device->HIDStartUpdate(), ZOR_SUCCESS);
    ZOR_HID_FILE_BUF piece{};
    for (int i = 0; i < 30; ++i)
        piece.Data[i] = static_cast<unsigned char>(i + 1);
    takeReports(n);
    for (int bad : {0, 56}) {
        piece.Length = bad;
        EXPECT_EQ(device->HIDWriteUpdateFile(piece), ZOR_ERROR_BAD_DATA);
    }
    piece.Length = 30;
    ASSERT_EQ(device->HIDWriteUpdateFile(piece), ZOR_SUCCESS);
    const std::vector<Bytes> r = takeReports(n);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0], (Bytes{0x03, 0x7E, 0x5A, 0x10, 11, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(r[1], (Bytes{0x03, 0x7E, 0x5A, 0x10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22}));
    EXPECT_EQ(r[2], (Bytes{0x03, 0x7E, 0x5A, 0x10, 8, 23, 24, 25, 26, 27, 28, 29, 30, 0, 0, 0}));
    // The focuser restarts into the new firmware: the end request's read fails.
    EXPECT_EQ(device->HIDEndUpdate(), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).installedImage, Bytes(piece.Data, piece.Data + 30));
}

TEST_F(UsbDeviceTest, UpdateOnLongReportsAndItsRefusals)
{
    const int n = add(Model::N, 370, 64);
    auto device = open(n);
    EXPECT_EQ(device->HIDEndUpdate(), 12); // answered: the update did not take
    ASSERT_EQ(device->SetStep(9000, false), ZOR_SUCCESS);
    EXPECT_EQ(device->HIDStartUpdate(), ZOR_ERROR_ERROR_STATE); // refused while moving
    ASSERT_EQ(device->stopMove(false), ZOR_SUCCESS);
    ASSERT_EQ(device->HIDStartUpdate(), ZOR_SUCCESS);
    ZOR_HID_FILE_BUF piece{};
    piece.Length = 55;
    for (int i = 0; i < 55; ++i)
        piece.Data[i] = static_cast<unsigned char>(0xA0 + i);
    takeReports(n);
    ASSERT_EQ(device->HIDWriteUpdateFile(piece), ZOR_SUCCESS);
    const std::vector<Bytes> r = takeReports(n);
    ASSERT_EQ(r.size(), 1u);
    ASSERT_EQ(r[0].size(), 64u);
    EXPECT_EQ(slice(r[0], 0, 6), (Bytes{0x03, 0x7E, 0x5A, 0x10, 55, 0xA0}));
    EXPECT_EQ(r[0][59], 0xA0 + 54);
    zorsim::failNext(n, Direction::Send, 1, -5);
    EXPECT_EQ(device->HIDWriteUpdateFile(piece), ZOR_ERROR_GENERAL_ERROR);
    zorsim::failNext(n, Direction::Read, 1, -5);
    EXPECT_EQ(device->HIDEndUpdate(), ZOR_SUCCESS);
    EXPECT_EQ(open(add(Model::N, 369))->HIDStartUpdate(), ZOR_ERROR_NOT_SUPPORTED);
}

} // namespace
