// Opening, closing, the reconnect policy, the settings kept on the host and
// the firmware update, against virtual focusers.
#include "usb_fixture.h"

#include "device/report_descriptor.h"
#include "log_lines.h"

#include <algorithm>
#include <thread>

using zorsim::Direction;
using zorsim::Model;

namespace {

TEST_F(UsbDeviceTest, OpenLearnsReportSizeRangeAndFeaturesPerGeneration)
{
    struct Case {
        Model model;
        int firmware;
        int reportSize;
        int stepRange;
        std::vector<int> controls;
        bool bleSupported;
    };
    const Case cases[] = {
        {Model::Old, 321, 16, 60000, {2}, false},
        {Model::Old, 335, 16, 60000, {2}, false},
        {Model::Old, 336, 64, 600000, {2}, false},
        {Model::N, 370, 64, 600000, {1, 2, 3, 5, 7}, false},
        {Model::Pro, 382, 16, 600000, {0, 1, 2, 3, 4, 5, 7, 6}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.firmware);
        const int n = add(c.model, c.firmware, c.reportSize);
        auto device = open(n);
        int range = 0, count = 0;
        ASSERT_EQ(device->getStepRange(&range, false), ZOR_SUCCESS);
        EXPECT_EQ(range, c.stepRange);
        ASSERT_EQ(device->getNumOfControls(&count, false), ZOR_SUCCESS);
        ASSERT_EQ(count, static_cast<int>(c.controls.size()));
        for (int i = 0; i < count; ++i) {
            ZOR_CONTROL_CAPS caps;
            ASSERT_EQ(device->getControlCaps(i, &caps, false), ZOR_SUCCESS);
            EXPECT_EQ(caps.ControlType, c.controls[i]);
            // A model string marks every listed feature supported but the
            // Bluetooth update; without one only the buzzer is there.
            EXPECT_EQ(caps.IsSupported, caps.ControlType != ZOR_CONTROL_BLE_UPDATE) << caps.Name;
        }
        // Every request is exactly as long as the device's request report.
        const std::vector<zorsim::Transfer> transfers = zorsim::transfers(n);
        ASSERT_FALSE(transfers.empty());
        for (const zorsim::Transfer &t : transfers) {
            if (t.kind == zorsim::Transfer::SendFeature)
                EXPECT_EQ(t.bytes.size(), static_cast<size_t>(c.reportSize));
            else
                EXPECT_EQ(t.result, 17);
        }
        device->close();
    }
}

TEST_F(UsbDeviceTest, SimulatedDescriptorsGiveTheirReportSize)
{
    for (int size : {16, 64}) {
        const std::vector<uint8_t> desc = zorsim::reportDescriptor(size);
        EXPECT_EQ(focuserOutputCapacity(desc.data(), desc.size()), size);
    }
}

TEST_F(UsbDeviceTest, OpenOnceOnlyAndFailedFirmwareReadLeavesVersionZero)
{
    const int n = add(Model::Pro, 382);
    zorsim::failNext(n, Direction::Read, 1, -1, ENODEV);
    auto device = open(n);
    EXPECT_TRUE(device->isOpen());
    int range = 0, count = 0;
    device->getStepRange(&range, false);
    EXPECT_EQ(range, 60000);
    EXPECT_EQ(device->HIDStartUpdate(), ZOR_ERROR_NOT_SUPPORTED); // version 0
    device->getNumOfControls(&count, false);
    EXPECT_EQ(count, 1);
    ZOR_CONTROL_CAPS caps;
    device->getControlCaps(0, &caps, false);
    EXPECT_STREQ(caps.Name, "BUZZER");
    EXPECT_FALSE(caps.IsSupported); // the firmware reply was never read

    zorsim::clearTransfers(n);
    std::string path = zorsim::devicePath(n);
    EXPECT_TRUE(device->open(path.data()));
    EXPECT_TRUE(zorsim::transfers(n).empty());
    EXPECT_EQ(zorsim::openHandles(n), 1);

    CZOR missing;
    char nowhere[] = "sim:99";
    EXPECT_FALSE(missing.open(nowhere));
    EXPECT_FALSE(missing.isOpen());
}

TEST_F(UsbDeviceTest, UnsetPositionIsRestoredFromTheSavedSettings)
{
    // A first focuser keeps its position; closing it saves the settings.
    const int first = add(Model::Pro, 382, 64, 1234);
    auto device = open(first);
    ASSERT_EQ(device->setBacklash(12, false), ZOR_SUCCESS);
    ASSERT_EQ(device->setBeep(true, false), ZOR_SUCCESS);
    ASSERT_EQ(device->setMaxStep(400000, false), ZOR_SUCCESS);
    device->close();
    EXPECT_EQ(zorsim::openHandles(first), 0);
    const std::string xml = zor_test::readFile(settingsFile());
    EXPECT_NE(xml.find("<Position type=\"4\">d2040000</Position>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<Backlash type=\"4\">0c000000</Backlash>"), std::string::npos);
    EXPECT_NE(xml.find("<Beep type=\"4\">01000000</Beep>"), std::string::npos);
    EXPECT_NE(xml.find("<MaxStep type=\"4\">801a0600</MaxStep>"), std::string::npos);

    // A focuser that lost its position (30000) gets the saved one written back.
    const int second = add(Model::Pro, 382, 64, 30000);
    auto restored = open(second);
    const zorsim::DeviceState s = zorsim::state(second);
    EXPECT_EQ(s.position, 1234);
    EXPECT_EQ(s.backlash, 12);
    EXPECT_TRUE(s.beep);
    restored->close();
    // Not a position of 30000: nothing is restored.
    const int third = add(Model::Pro, 382, 64, 29999);
    auto untouched = open(third);
    EXPECT_EQ(zorsim::state(third).backlash, 0);
    int backlash = -1;
    EXPECT_EQ(untouched->getBacklash(&backlash, false), ZOR_SUCCESS);
    EXPECT_EQ(backlash, 0);
}

TEST_F(UsbDeviceTest, CloseStopsARunningMoveOrWritesTheRecordOnce)
{
    const int n = add(Model::Pro, 382);
    auto device = open(n);
    ASSERT_EQ(device->SetStep(5000, false), ZOR_SUCCESS);
    EXPECT_TRUE(zorsim::state(n).moving);
    takeReports(n);
    device->close();
    std::vector<Bytes> reports = takeReports(n);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(head(reports[0], 5), (Bytes{0x03, 0x7E, 0x5A, 0x02, 0x03})); // status read
    EXPECT_EQ(head(reports[1], 5), (Bytes{0x03, 0x7E, 0x5A, 0x03, 0x00})); // enabled 0
    EXPECT_FALSE(zorsim::state(n).moving);
    EXPECT_FALSE(device->isOpen());
    EXPECT_EQ(zorsim::openHandles(n), 0);
    device->close(); // a second close does nothing
    EXPECT_TRUE(zorsim::transfers(n).empty());

    auto idle = open(n);
    takeReports(n);
    idle->close();
    reports = takeReports(n);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(head(reports[0], 5), (Bytes{0x03, 0x7E, 0x5A, 0x03, 0x00}));
}

class UsbTransport : public UsbDeviceTest {
protected:
    std::vector<std::string> reconnectLines() const
    {
        std::vector<std::string> lines;
        for (const std::string &m : log.messages("ZOR", "HIDUpdateStatus"))
            lines.push_back(m);
        return lines;
    }
    zor_test::LogLines log;
};

TEST_F(UsbTransport, MinusOneMeansRemovedAndIsNotCounted)
{
    const int n = add(Model::Pro, 382);
    auto device = open(n);
    unsigned char major, minor, build;
    zorsim::failNext(n, Direction::Send, 8, -1, ENODEV);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_ERROR_REMOVED);
    EXPECT_TRUE(reconnectLines().empty());
    const auto errors = log.messages("ZOR", "handleReportErr");
    ASSERT_EQ(errors.size(), 8u);
    EXPECT_EQ(errors[0], "HID Err: ioctl (SFEATURE): No such device");
}

TEST_F(UsbTransport, OtherFailuresReopenFromTheFourthToTheSixth)
{
    const int n = add(Model::Pro, 382);
    auto device = open(n);
    unsigned char major, minor, build;
    zorsim::failNext(n, Direction::Send, 9, -5);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_ERROR_GENERAL_ERROR) << i;
    EXPECT_EQ(reconnectLines(), (std::vector<std::string>{"sim:0 try to reconnect [4:0]",
                                                          "sim:0 try to reconnect [5:1]",
                                                          "sim:0 try to reconnect [6:2]"}));
    EXPECT_TRUE(device->isOpen());
    EXPECT_EQ(zorsim::openHandles(n), 1);

    // A success re-arms the policy.
    ASSERT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_SUCCESS);
    zorsim::failNext(n, Direction::Read, 4, -5);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_EQ(reconnectLines().back(), "sim:0 try to reconnect [4:0]");

    // A reopening that fails leaves the object closed.
    zorsim::failNextOpens(n, 1);
    zorsim::failNext(n, Direction::Send, 1, -5);
    EXPECT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_ERROR_GENERAL_ERROR);
    EXPECT_FALSE(device->isOpen());
    EXPECT_EQ(log.messages("ZOR", "HIDReconnect"), std::vector<std::string>{"sim:0 reconnect fail"});
    EXPECT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(zorsim::invalidHandleUses(), 0);
}

TEST_F(UsbTransport, StatusReadChecksTheMarksAndCounts)
{
    const int n = add(Model::Pro, 382);
    auto device = open(n);
    int step = 0;
    zorsim::garbleNextReplies(n, 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(device->getStep(&step, false), ZOR_ERROR_GENERAL_ERROR);
    const auto lines = log.messages("ZOR", "clearError");
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], "response error [1-3]: 81 a5 fc");
    EXPECT_EQ(lines[1].rfind("HID Err: ", 0), 0u);
    EXPECT_EQ(reconnectLines(), std::vector<std::string>{"sim:0 try to reconnect [4:0]"});
    EXPECT_EQ(device->getStep(&step, false), ZOR_SUCCESS);
    EXPECT_EQ(step, 1000);
}

TEST_F(UsbTransport, VanishedDeviceGivesCodesNotCrashes)
{
    const int n = add(Model::Pro, 382);
    auto device = open(n);
    zorsim::unplug(n);
    unsigned char major, minor, build;
    int step = 0;
    EXPECT_EQ(device->getFwVer(&major, &minor, &build, false), ZOR_ERROR_REMOVED);
    // The status read finds no marks in the empty reply.
    EXPECT_EQ(device->getStep(&step, false), ZOR_ERROR_GENERAL_ERROR);
    char name[16] = "unchanged";
    EXPECT_EQ(device->getBLEName(name, sizeof name), ZOR_ERROR_REMOVED);
    EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, '\0'));
    device->close();
    EXPECT_FALSE(device->isOpen());
    EXPECT_EQ(zorsim::invalidHandleUses(), 0);
}

TEST_F(UsbDeviceTest, UpdateOnShortReportsGoesInElevenByteChunks)
{
    const int n = add(Model::Pro, 382, 16);
    auto device = open(n);
    ASSERT_EQ(device->HIDStartUpdate(), ZOR_SUCCESS);
    ZOR_HID_FILE_BUF piece{};
    for (int i = 0; i < 60; ++i)
        piece.Data[i] = static_cast<unsigned char>(i + 1);
    takeReports(n);
    piece.Length = 0;
    EXPECT_EQ(device->HIDWriteUpdateFile(piece), ZOR_ERROR_BAD_DATA);
    piece.Length = 56;
    EXPECT_EQ(device->HIDWriteUpdateFile(piece), ZOR_ERROR_BAD_DATA);
    EXPECT_TRUE(takeReports(n).empty());

    piece.Length = 30;
    ASSERT_EQ(device->HIDWriteUpdateFile(piece), ZOR_SUCCESS);
    const std::vector<Bytes> reports = takeReports(n);
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0], (Bytes{0x03, 0x7E, 0x5A, 0x10, 11, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(reports[1], (Bytes{0x03, 0x7E, 0x5A, 0x10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22}));
    EXPECT_EQ(reports[2], (Bytes{0x03, 0x7E, 0x5A, 0x10, 8, 23, 24, 25, 26, 27, 28, 29, 30, 0, 0, 0}));

    // The focuser restarts into the new firmware: the end request's read fails.
    EXPECT_EQ(device->HIDEndUpdate(), ZOR_SUCCESS);
    std::vector<uint8_t> expected(piece.Data, piece.Data + 30);
    EXPECT_EQ(zorsim::state(n).installedImage, expected);
}

TEST_F(UsbDeviceTest, UpdateOnLongReportsAndItsRefusals)
{
    const int n = add(Model::N, 370, 64);
    auto device = open(n);
    // An end request that the focuser answers means the update did not take.
    EXPECT_EQ(device->HIDEndUpdate(), 12);
    // A moving focuser refuses to start.
    ASSERT_EQ(device->SetStep(9000, false), ZOR_SUCCESS);
    EXPECT_EQ(device->HIDStartUpdate(), ZOR_ERROR_ERROR_STATE);
    ASSERT_EQ(device->stopMove(false), ZOR_SUCCESS);

    ASSERT_EQ(device->HIDStartUpdate(), ZOR_SUCCESS);
    ZOR_HID_FILE_BUF piece{};
    piece.Length = 55;
    for (int i = 0; i < 55; ++i)
        piece.Data[i] = static_cast<unsigned char>(0xA0 + i);
    takeReports(n);
    ASSERT_EQ(device->HIDWriteUpdateFile(piece), ZOR_SUCCESS);
    const std::vector<Bytes> reports = takeReports(n);
    ASSERT_EQ(reports.size(), 1u);
    ASSERT_EQ(reports[0].size(), 64u);
    EXPECT_EQ(head(reports[0], 6), (Bytes{0x03, 0x7E, 0x5A, 0x10, 55, 0xA0}));
    EXPECT_EQ(reports[0][59], 0xA0 + 54);

    zorsim::failNext(n, Direction::Send, 1, -5);
    EXPECT_EQ(device->HIDWriteUpdateFile(piece), ZOR_ERROR_GENERAL_ERROR);
    // The read after the end request fails as the focuser restarts.
    zorsim::failNext(n, Direction::Read, 1, -5);
    EXPECT_EQ(device->HIDEndUpdate(), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::state(n).installedImage.size(), 55u);

    auto old = open(add(Model::N, 369, 64));
    EXPECT_EQ(old->HIDStartUpdate(), ZOR_ERROR_NOT_SUPPORTED);
}

TEST_F(UsbDeviceTest, ConcurrentCallersOnOneDevice)
{
    const int n = add(Model::Pro, 382);
    auto device = open(n);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&device, t] {
            for (int i = 0; i < 50; ++i) {
                int value = 0;
                bool flag = false;
                float temp = 0;
                switch (t) {
                case 0:
                    device->getStep(&value, false);
                    device->isMoving(&flag, nullptr, false);
                    break;
                case 1:
                    device->setBacklash(i, false);
                    device->getTemp(&temp, false);
                    break;
                default:
                    device->setBeep(i % 2 == 0, false);
                    device->getBacklash(&value, false);
                    break;
                }
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    int backlash = -1;
    ASSERT_EQ(device->getBacklash(&backlash, false), ZOR_SUCCESS);
    EXPECT_EQ(backlash, 49);
}

} // namespace
