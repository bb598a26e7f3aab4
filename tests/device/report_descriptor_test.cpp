#include "device/report_descriptor.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// A vendor-defined focuser interface: feature report 1 carries 16 reply bytes,
// feature report 3 carries `requestData` request bytes.
Bytes focuserDescriptor(unsigned char requestData)
{
    return {0x06, 0x00, 0xFF,       // Usage Page (vendor 0xFF00)
            0x09, 0x01,             // Usage (1)
            0xA1, 0x01,             // Collection (Application)
            0x15, 0x00,             //   Logical Minimum (0)
            0x26, 0xFF, 0x00,       //   Logical Maximum (255)
            0x75, 0x08,             //   Report Size (8)
            0x85, 0x01,             //   Report ID (1)
            0x95, 0x10,             //   Report Count (16)
            0x09, 0x01,             //   Usage (1)
            0xB1, 0x02,             //   Feature (Data, Var, Abs)
            0x85, 0x03,             //   Report ID (3)
            0x95, requestData,      //   Report Count
            0x09, 0x02,             //   Usage (2)
            0xB1, 0x02,             //   Feature
            0xC0};                  // End Collection
}

// The boot keyboard of the HID class definition: 8 input bytes, 1 output byte.
const Bytes kBootKeyboard{0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x05, 0x07, 0x19, 0xE0, 0x29, 0xE7, 0x15, 0x00,
                          0x25, 0x01, 0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0x95, 0x01, 0x75, 0x08, 0x81, 0x01,
                          0x95, 0x05, 0x75, 0x01, 0x05, 0x08, 0x19, 0x01, 0x29, 0x05, 0x91, 0x02, 0x95, 0x01,
                          0x75, 0x03, 0x91, 0x01, 0x95, 0x06, 0x75, 0x08, 0x15, 0x00, 0x25, 0x65, 0x05, 0x07,
                          0x19, 0x00, 0x29, 0x65, 0x81, 0x00, 0xC0};

// The boot mouse: 3 buttons and 5 padding bits, then X and Y bytes.
const Bytes kBootMouse{0x05, 0x01, 0x09, 0x02, 0xA1, 0x01, 0x09, 0x01, 0xA1, 0x00, 0x05, 0x09, 0x19,
                       0x01, 0x29, 0x03, 0x15, 0x00, 0x25, 0x01, 0x95, 0x03, 0x75, 0x01, 0x81, 0x02,
                       0x95, 0x01, 0x75, 0x05, 0x81, 0x01, 0x05, 0x01, 0x09, 0x30, 0x09, 0x31, 0x15,
                       0x81, 0x25, 0x7F, 0x75, 0x08, 0x95, 0x02, 0x81, 0x06, 0xC0, 0xC0};

int size(const Bytes &d, HidReportKind kind, uint8_t id) { return hidReportByteSize(d.data(), d.size(), kind, id); }

TEST(ReportDescriptor, FocuserCapacityIsOnePlusFeatureReport3)
{
    const Bytes small = focuserDescriptor(15);
    const Bytes large = focuserDescriptor(63);
    EXPECT_EQ(focuserOutputCapacity(small.data(), small.size()), 16);
    EXPECT_EQ(focuserOutputCapacity(large.data(), large.size()), 64);
    EXPECT_EQ(size(large, HidReportKind::Feature, 1), 16);
    EXPECT_EQ(size(large, HidReportKind::Input, 3), 0);
}

TEST(ReportDescriptor, StandardDevicesHaveNoFocuserRequestReport)
{
    EXPECT_EQ(size(kBootKeyboard, HidReportKind::Input, 0), 8);
    EXPECT_EQ(size(kBootKeyboard, HidReportKind::Output, 0), 1);
    EXPECT_EQ(size(kBootMouse, HidReportKind::Input, 0), 3);
    EXPECT_EQ(focuserOutputCapacity(kBootKeyboard.data(), kBootKeyboard.size()), 1);
    EXPECT_EQ(focuserOutputCapacity(kBootMouse.data(), kBootMouse.size()), 1);
}

TEST(ReportDescriptor, SplitItemsPushPopAndLongItemsAreFollowed)
{
    Bytes d{0x75, 0x08, 0x85, 0x03, 0x95, 0x05, 0xB1, 0x02, // 5 bytes under ID 3
            0xA4,                                           // Push (size 8, ID 3)
            0x85, 0x01, 0x75, 0x10, 0x95, 0x04, 0xB1, 0x02, // 8 bytes under ID 1
            0xB4,                                           // Pop: back to ID 3, size 8
            0xFE, 0x02, 0x10, 0xAA, 0xBB,                   // a long item, skipped
            0x97, 0x0A, 0x00, 0x00, 0x00,                   // Report Count (10), four data bytes
            0xB1, 0x02,                                     // 10 more bytes under ID 3
            0x75, 0x01, 0x95, 0x03, 0xB1, 0x02};            // 3 bits: rounds up to one byte
    EXPECT_EQ(size(d, HidReportKind::Feature, 3), 16);
    EXPECT_EQ(size(d, HidReportKind::Feature, 1), 8);
    EXPECT_EQ(focuserOutputCapacity(d.data(), d.size()), 17);
}

TEST(ReportDescriptor, MalformedDescriptorsAreRejected)
{
    const Bytes truncatedItem{0x75, 0x08, 0x85, 0x03, 0x96, 0x3F}; // Report Count needs two data bytes
    const Bytes popWithoutPush{0x75, 0x08, 0xB4, 0x85, 0x03, 0x95, 0x0F, 0xB1, 0x02};
    const Bytes truncatedLongItem{0x85, 0x03, 0xFE, 0x05, 0x10, 0x01};
    EXPECT_EQ(focuserOutputCapacity(truncatedItem.data(), truncatedItem.size()), -1);
    EXPECT_EQ(focuserOutputCapacity(popWithoutPush.data(), popWithoutPush.size()), -1);
    EXPECT_EQ(focuserOutputCapacity(truncatedLongItem.data(), truncatedLongItem.size()), -1);
    EXPECT_EQ(focuserOutputCapacity(nullptr, 10), -1);
    EXPECT_EQ(focuserOutputCapacity(kBootMouse.data(), 0), 1);
}

TEST(ReportDescriptor, ReadingWithoutHidapiSupportUsesSysfsPathsOnly)
{
    unsigned char buf[kMaxReportDescriptorBytes];
    // No device handle and a path that is no hidraw node: nothing to read.
    EXPECT_EQ(readHidReportDescriptor(nullptr, "sim:0", buf, sizeof buf), -1);
    EXPECT_EQ(readHidReportDescriptor(nullptr, "/dev/hidraw../../etc/passwd", buf, sizeof buf), -1);
    EXPECT_EQ(readHidReportDescriptor(nullptr, nullptr, buf, sizeof buf), -1);
}

} // namespace
