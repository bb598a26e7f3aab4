// Helpers for driving virtual focusers through hidapi's own functions.
#pragma once

#include "sim/sim_control.h"

#include <gtest/gtest.h>
#include <hidapi.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#if HID_API_VERSION < HID_API_MAKE_VERSION(0, 14, 0)
extern "C" int hid_get_report_descriptor(hid_device *dev, unsigned char *buf, size_t buf_size);
#endif

using Report = std::array<uint8_t, 17>;

inline std::string narrow(const wchar_t *w)
{
    std::string s;
    for (; w && *w; ++w)
        s += static_cast<char>(*w);
    return s;
}

// Every case starts with no devices and a clock that stands still.
class SimTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        zorsim::reset();
        zorsim::useManualClock();
    }
    void TearDown() override
    {
        for (hid_device *h : handles_)
            hid_close(h);
    }

    hid_device *open(int device)
    {
        hid_device *h = hid_open_path(zorsim::devicePath(device).c_str());
        EXPECT_NE(h, nullptr) << narrow(hid_error(nullptr));
        if (h)
            handles_.push_back(h);
        return h;
    }
    void close(hid_device *h)
    {
        handles_.erase(std::remove(handles_.begin(), handles_.end(), h), handles_.end());
        hid_close(h);
    }

    // Writes report 03 with 7E 5A and `body`, zero-padded to `size` bytes.
    static int send(hid_device *h, const std::vector<uint8_t> &body, size_t size = 64)
    {
        std::vector<uint8_t> report(size, 0);
        report[0] = 0x03;
        report[1] = 0x7E;
        report[2] = 0x5A;
        std::copy(body.begin(), body.end(), report.begin() + 3);
        return hid_send_feature_report(h, report.data(), report.size());
    }
    static Report read(hid_device *h, int *result = nullptr)
    {
        Report r{};
        r[0] = 0x01;
        int n = hid_get_feature_report(h, r.data(), r.size());
        if (result)
            *result = n;
        else
            EXPECT_EQ(n, 17) << narrow(hid_error(h));
        return r;
    }
    static Report ask(hid_device *h, uint8_t code, size_t size = 64)
    {
        EXPECT_EQ(send(h, {0x02, code}, size), static_cast<int>(size));
        return read(h);
    }
    // The control record in the layout of firmware 336 and later.
    static std::vector<uint8_t> control(uint8_t enabled, long step, uint8_t reset = 0, long maxStep = 0,
                                        uint8_t backlash = 0, uint8_t flags = 0)
    {
        auto b = [](long v, int shift) { return static_cast<uint8_t>(v >> shift); };
        return {0x03, enabled, backlash, b(maxStep, 16), b(step, 16), b(step, 8),   b(step, 0),
                reset, 0,       0,        flags,          b(maxStep, 8), b(maxStep, 0)};
    }
    static int word(const Report &r, int at) { return r[at] << 8 | r[at + 1]; }

    std::vector<hid_device *> handles_;
};
