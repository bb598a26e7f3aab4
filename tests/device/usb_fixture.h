// Device objects opened on virtual focusers.
#pragma once

#include "device/zor.h"

#include "home_sandbox.h"
#include "sim/sim_control.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

class UsbDeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        zorsim::reset();
        zorsim::useManualClock();
        std::remove(settingsFile().c_str());
    }

    static std::string settingsFile() { return zor_test::sandboxHome() + "/.KVO/ZORconfig.xml"; }

    static int add(zorsim::Model model, int firmware, int reportSize = 64, int position = 1000)
    {
        zorsim::DeviceConfig c;
        c.model = model;
        c.firmware = firmware;
        c.reportSize = reportSize;
        c.position = position;
        return zorsim::addDevice(c);
    }

    static std::unique_ptr<CZOR> open(int n)
    {
        auto device = std::make_unique<CZOR>();
        std::string path = zorsim::devicePath(n);
        EXPECT_TRUE(device->open(path.data()));
        return device;
    }

    // The requests that reached the focuser since the last call.
    static std::vector<Bytes> takeReports(int n)
    {
        std::vector<Bytes> reports = zorsim::receivedReports(n);
        zorsim::clearTransfers(n);
        return reports;
    }

    static Bytes slice(const Bytes &b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }
};
