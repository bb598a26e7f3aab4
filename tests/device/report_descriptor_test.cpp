#include "device/report_descriptor.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

int capacity(const Bytes &d) { return focuserOutputCapacity(d.data(), d.size()); }

// Vendor page; feature report 1 carries 16 reply bytes, report 3 `request` bytes.
Bytes focuser(unsigned char request)
{
    return {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08, 0x85, 0x01,
            0x95, 0x10, 0x09, 0x01, 0xB1, 0x02, 0x85, 0x03, 0x95, request, 0x09, 0x02, 0xB1, 0x02, 0xC0};
}

// The boot keyboard of the HID class definition: 8 input bytes, 1 output byte.
const Bytes kBootKeyboard{0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x05, 0x07, 0x19, 0xE0, 0x29, 0xE7, 0x15, 0x00,
                          0x25, 0x01, 0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0x95, 0x01, 0x75, 0x08, 0x81, 0x01,
                          0x95, 0x05, 0x75, 0x01, 0x05, 0x08, 0x19, 0x01, 0x29, 0x05, 0x91, 0x02, 0x95, 0x01,
                          0x75, 0x03, 0x91, 0x01, 0x95, 0x06, 0x75, 0x08, 0x15, 0x00, 0x25, 0x65, 0x05, 0x07,
                          0x19, 0x00, 0x29, 0x65, 0x81, 0x00, 0xC0};

TEST(ReportDescriptor, SizesOfRealDescriptors)
{
    EXPECT_EQ(capacity(focuser(15)), 16);
    EXPECT_EQ(capacity(focuser(63)), 64);
    const Bytes d = focuser(63);
    EXPECT_EQ(hidReportByteSize(d.data(), d.size(), HidReportKind::Feature, 1), 16);
    const Bytes &k = kBootKeyboard;
    EXPECT_EQ(hidReportByteSize(k.data(), k.size(), HidReportKind::Input, 0), 8);
    EXPECT_EQ(hidReportByteSize(k.data(), k.size(), HidReportKind::Output, 0), 1);
    EXPECT_EQ(capacity(kBootKeyboard), 1); // no feature report 3
}

TEST(ReportDescriptor, SplitItemsPushPopLongItemsAndBitRounding)
{
    const Bytes d{0x75, 0x08, 0x85, 0x03, 0x95, 0x05, 0xB1, 0x02, // 5 bytes under ID 3
                  0xA4, 0x85, 0x01, 0x75, 0x10, 0x95, 0x04, 0xB1, 0x02, 0xB4, // Push, 8 bytes under ID 1, Pop
                  0xFE, 0x02, 0x10, 0xAA, 0xBB,                   // a long item
                  0x97, 0x0A, 0x00, 0x00, 0x00, 0xB1, 0x02,       // four-byte Report Count 10: 10 bytes
                  0x75, 0x01, 0x95, 0x03, 0xB1, 0x02};            // 3 bits
    EXPECT_EQ(capacity(d), 17);
    EXPECT_EQ(hidReportByteSize(d.data(), d.size(), HidReportKind::Feature, 1), 8);
}

TEST(ReportDescriptor, MalformedDescriptorsAndPathsAreRejected)
{
    EXPECT_EQ(capacity({0x75, 0x08, 0x85, 0x03, 0x96, 0x3F}), -1);             // item cut short
    EXPECT_EQ(capacity({0x75, 0x08, 0xB4, 0x85, 0x03, 0x95, 0x0F, 0xB1, 0x02}), -1); // Pop without Push
    EXPECT_EQ(capacity({0x85, 0x03, 0xFE, 0x05, 0x10, 0x01}), -1);             // long item cut short
    EXPECT_EQ(focuserOutputCapacity(nullptr, 10), -1);
    unsigned char buf[kMaxReportDescriptorBytes];
    for (const char *path : {"sim:0", "/dev/hidraw0/../../etc/passwd", static_cast<const char *>(nullptr)})
        EXPECT_EQ(readHidReportDescriptor(nullptr, path, buf, sizeof buf), -1);
}

} // namespace
