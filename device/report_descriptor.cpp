#include "device/report_descriptor.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

struct GlobalState {
    uint32_t reportSize = 0;
    uint32_t reportCount = 0;
    uint32_t reportId = 0;
};

constexpr uint8_t kLongItemPrefix = 0xFE;
constexpr uint8_t kTypeMain = 0;
constexpr uint8_t kTypeGlobal = 1;

constexpr uint8_t kMainInput = 0x8;
constexpr uint8_t kMainOutput = 0x9;
constexpr uint8_t kMainFeature = 0xB;

constexpr uint8_t kGlobalReportSize = 0x7;
constexpr uint8_t kGlobalReportId = 0x8;
constexpr uint8_t kGlobalReportCount = 0x9;
constexpr uint8_t kGlobalPush = 0xA;
constexpr uint8_t kGlobalPop = 0xB;

uint8_t mainTagOf(HidReportKind kind)
{
    switch (kind) {
    case HidReportKind::Input:
        return kMainInput;
    case HidReportKind::Output:
        return kMainOutput;
    case HidReportKind::Feature:
        break;
    }
    return kMainFeature;
}

using GetReportDescriptorFn = int (*)(hid_device *, unsigned char *, size_t);

int readFromSysfs(const char *path, unsigned char *buf, size_t size)
{
    static const char kPrefix[] = "/dev/";
    if (!path || std::strncmp(path, kPrefix, sizeof kPrefix - 1) != 0)
        return -1;
    const char *node = path + sizeof kPrefix - 1;
    if (std::strncmp(node, "hidraw", 6) != 0 || std::strchr(node, '/'))
        return -1;
    char sysPath[300];
    std::snprintf(sysPath, sizeof sysPath, "/sys/class/hidraw/%s/device/report_descriptor", node);
    FILE *file = std::fopen(sysPath, "rb");
    if (!file)
        return -1;
    const size_t got = std::fread(buf, 1, size, file);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed || got == 0)
        return -1;
    return static_cast<int>(got);
}

} // namespace

int hidReportByteSize(const unsigned char *desc, size_t length, HidReportKind kind, uint8_t reportId)
{
    if (!desc)
        return -1;
    const uint8_t wantedTag = mainTagOf(kind);
    GlobalState global;
    std::vector<GlobalState> stack;
    uint64_t bits = 0;
    size_t pos = 0;
    while (pos < length) {
        const uint8_t prefix = desc[pos];
        if (prefix == kLongItemPrefix) {
            // Long item: prefix, data size, tag, data. None of them matter here.
            if (pos + 3 > length)
                return -1;
            const size_t dataSize = desc[pos + 1];
            if (pos + 3 + dataSize > length)
                return -1;
            pos += 3 + dataSize;
            continue;
        }
        const size_t sizeCode = prefix & 0x3;
        const size_t dataSize = sizeCode == 3 ? 4 : sizeCode;
        const uint8_t type = (prefix >> 2) & 0x3;
        const uint8_t tag = prefix >> 4;
        if (pos + 1 + dataSize > length)
            return -1;
        uint32_t value = 0;
        for (size_t i = 0; i < dataSize; ++i)
            value |= static_cast<uint32_t>(desc[pos + 1 + i]) << (8 * i);
        pos += 1 + dataSize;

        if (type == kTypeGlobal) {
            switch (tag) {
            case kGlobalReportSize:
                global.reportSize = value;
                break;
            case kGlobalReportCount:
                global.reportCount = value;
                break;
            case kGlobalReportId:
                global.reportId = value;
                break;
            case kGlobalPush:
                stack.push_back(global);
                break;
            case kGlobalPop:
                if (stack.empty())
                    return -1;
                global = stack.back();
                stack.pop_back();
                break;
            default:
                break;
            }
        } else if (type == kTypeMain && tag == wantedTag && global.reportId == reportId) {
            bits += static_cast<uint64_t>(global.reportSize) * global.reportCount;
        }
    }
    const uint64_t bytes = (bits + 7) / 8;
    return bytes > static_cast<uint64_t>(INT32_MAX) ? -1 : static_cast<int>(bytes);
}

int focuserOutputCapacity(const unsigned char *desc, size_t length)
{
    const int bytes = hidReportByteSize(desc, length, HidReportKind::Feature, 3);
    return bytes < 0 ? -1 : bytes + 1;
}

int readHidReportDescriptor(hid_device *dev, const char *path, unsigned char *buf, size_t size)
{
    // hidapi offers the descriptor from 0.14 on; looked up at run time so that
    // older hidapi builds and a replacement hidapi loaded ahead both work.
    auto getDescriptor = reinterpret_cast<GetReportDescriptorFn>(dlsym(RTLD_DEFAULT, "hid_get_report_descriptor"));
    if (getDescriptor && dev) {
        const int got = getDescriptor(dev, buf, size);
        if (got > 0)
            return got;
    }
    return readFromSysfs(path, buf, size);
}
