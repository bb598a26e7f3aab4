// Sizes of the reports a HID device declares in its report descriptor, and
// the focuser's request report length derived from them.
#pragma once

#include <hidapi.h>

#include <cstddef>
#include <cstdint>

enum class HidReportKind { Input, Output, Feature };

// Byte size of the data of one report (without its ID byte): the sum of
// size x count over every main item of `kind` declared under `reportId`,
// rounded up to whole bytes. 0 when the descriptor declares no such report,
// -1 when the descriptor is malformed (an item runs past its end, a Pop
// without Push, an unterminated long item).
int hidReportByteSize(const unsigned char *desc, size_t length, HidReportKind kind, uint8_t reportId);

// The length of the requests the focuser accepts: 1 (the ID byte) plus the
// data size of feature report 3. -1 for a malformed descriptor.
int focuserOutputCapacity(const unsigned char *desc, size_t length);

// Reads the report descriptor of an open device: through hidapi's
// hid_get_report_descriptor when the loaded hidapi offers it, else, for a
// /dev/hidrawN path, from sysfs. Returns the descriptor's length, or -1.
int readHidReportDescriptor(hid_device *dev, const char *path, unsigned char *buf, size_t size);

constexpr size_t kMaxReportDescriptorBytes = 4096;
