// Device objects opened on virtual focusers.
#pragma once

#include "device/zor.h"

#include "home_sandbox.h"
#include "scripted_transport.h"
#include "sim/sim_control.h"
#include "zor_test_access.h"

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

// The same commands over either link, the link being the test's parameter
// (true: Bluetooth). A device object is opened over USB, so that it knows its
// focuser; on the Bluetooth side it also gets a link whose requests reach the
// same virtual focuser as reports, answered with the USB reply's bytes from
// byte 3 on, as the device's Bluetooth side answers.
class LinkTest : public UsbDeviceTest, public ::testing::WithParamInterface<bool> {
protected:
    void TearDown() override
    {
        EXPECT_TRUE(!ble() || m_bridged > 0) << "the Bluetooth link was used";
        for (hid_device *handle : m_bridges)
            hid_close(handle);
    }

    bool ble() const { return GetParam(); }

    std::unique_ptr<CZOR> openOnLink(int n, size_t reportSize = 64)
    {
        std::unique_ptr<CZOR> device = open(n);
        if (!ble())
            return device;
        hid_device *handle = hid_open_path(zorsim::devicePath(n).c_str());
        m_bridges.push_back(handle);
        auto transport = std::make_unique<zor_test::ScriptedTransport>();
        link = transport.get();
        transport->setResponder([this, handle, reportSize](const Bytes &frame) {
            ++m_bridged;
            Bytes report{0x03};
            report.insert(report.end(), frame.begin() + 4, frame.end() - 5); // the frame's payload
            report.resize(reportSize);
            hid_send_feature_report(handle, report.data(), report.size());
            if (!link->isReadCalls().back())
                return std::vector<Bytes>{};
            Bytes reply(ZOR_REPLY_BYTES);
            reply[0] = 0x01;
            hid_get_feature_report(handle, reply.data(), reply.size());
            return std::vector<Bytes>{
                zor_test::responseFrame(zor_test::sequenceOf(frame), 0, Bytes(reply.begin() + 3, reply.end()))};
        });
        device->setBleManager(std::move(transport));
        CZORTestAccess::setBleConnected(*device);
        return device;
    }

    // What the last Bluetooth request carried, and whether it waited for an answer.
    Bytes lastPayload() const { return slice(link->sent().back(), 4, link->sent().back().size() - 5); }
    bool lastWaited() const { return link->isReadCalls().back(); }

    zor_test::ScriptedTransport *link = nullptr;

private:
    std::vector<hid_device *> m_bridges;
    int m_bridged = 0;
};

inline std::string linkName(const ::testing::TestParamInfo<bool> &info) { return info.param ? "Bluetooth" : "Usb"; }

