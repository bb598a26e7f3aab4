// The hidapi side: enumeration, handles, report conventions and the calls a
// focuser has no use for.
#include "sim_test_util.h"

#include "ZOR_focuser.h"
#include "device/report_descriptor.h"

#include <dlfcn.h>

#include <atomic>
#include <thread>
#include <tuple>

using zorsim::DeviceConfig;

namespace {

class Usb : public SimTest {};

std::vector<std::string> listed(unsigned short vid = ZOR_VENDOR_ID, unsigned short pid = ZOR_PRODUCT_ID)
{
    std::vector<std::string> out;
    hid_device_info *list = hid_enumerate(vid, pid);
    for (hid_device_info *i = list; i; i = i->next) {
        EXPECT_EQ(i->vendor_id, ZOR_VENDOR_ID);
        EXPECT_EQ(i->product_id, ZOR_PRODUCT_ID);
        EXPECT_EQ(i->bus_type, HID_API_BUS_USB);
        out.push_back(std::string(i->path) + " " + narrow(i->manufacturer_string) + " " +
                      narrow(i->product_string));
    }
    hid_free_enumeration(list);
    return out;
}

TEST_F(Usb, EnumerationListsPluggedFocusersInOrder)
{
    zorsim::addDevices("pro@382,n@370,old@321:16");
    const std::vector<std::string> all{"sim:0 ZOR ZOR Pro", "sim:1 ZOR ZORN", "sim:2 ZOR ZOR Focuser"};
    EXPECT_EQ(listed(), all);
    EXPECT_EQ(listed(0, 0), all);
    EXPECT_TRUE(listed(ZOR_VENDOR_ID, ZOR_PRODUCT_ID + 1).empty());
    zorsim::unplug(1);
    EXPECT_EQ(listed(), (std::vector<std::string>{all[0], all[2]}));
    zorsim::plug(1);
    EXPECT_EQ(listed(), all);
}

TEST_F(Usb, OpenByIdsTakesTheFirstOrTheOneWithTheSerialNumber)
{
    DeviceConfig tagged;
    tagged.serial = {0, 0, 0, 0, 0, 0, 0, 0x42};
    zorsim::addDevice();
    zorsim::addDevice(tagged);
    hid_device *first = hid_open(ZOR_VENDOR_ID, ZOR_PRODUCT_ID, nullptr);
    hid_device *chosen = hid_open(ZOR_VENDOR_ID, ZOR_PRODUCT_ID, L"0000000000000042");
    ASSERT_TRUE(first && chosen);
    EXPECT_STREQ(hid_get_device_info(first)->path, "sim:0");
    EXPECT_STREQ(hid_get_device_info(chosen)->path, "sim:1");
    EXPECT_EQ(hid_open(ZOR_VENDOR_ID, ZOR_PRODUCT_ID, L"nope"), nullptr);
    hid_close(first);
    hid_close(chosen);
}

TEST_F(Usb, ReportDescriptorDeclaresBothFeatureReports)
{
    zorsim::addDevices("pro:64,old:16");
    for (int dev : {0, 1}) {
        unsigned char d[HID_API_MAX_REPORT_DESCRIPTOR_SIZE];
        const int n = hid_get_report_descriptor(open(dev), d, sizeof d);
        ASSERT_GT(n, 0);
        // As the library reads it.
        EXPECT_EQ(hidReportByteSize(d, static_cast<size_t>(n), HidReportKind::Feature, 1), 16) << dev;
        EXPECT_EQ(focuserOutputCapacity(d, static_cast<size_t>(n)), dev == 0 ? 64 : 16) << dev;
    }
}

TEST_F(Usb, FeatureReportsFollowHidrawConventions)
{
    zorsim::addDevices("old:16");
    hid_device *h = open(0);
    send(h, {0x02, 0x04}, 16);
    unsigned char small[5] = {0x01};
    EXPECT_EQ(hid_get_feature_report(h, small, sizeof small), 5); // cut to the buffer
    EXPECT_EQ(small[4], 3);
    unsigned char big[64] = {0x01};
    EXPECT_EQ(hid_get_feature_report(h, big, sizeof big), 17); // the count includes the report ID

    EXPECT_EQ(send(h, {0x02, 0x03}, 8), 8); // a short request is padded
    EXPECT_EQ(read(h)[3], 0x03);
    EXPECT_EQ(send(h, {0x02, 0x04}, 64), -1); // longer than the report: stalled
    EXPECT_EQ(narrow(hid_error(h)), "ioctl (SFEATURE): Broken pipe");
    unsigned char wrongId[17] = {0x03};
    EXPECT_EQ(hid_get_feature_report(h, wrongId, sizeof wrongId), -1);
    EXPECT_EQ(narrow(hid_error(h)), "ioctl (GFEATURE): Broken pipe");
    ask(h, 0x03, 16);
    EXPECT_EQ(narrow(hid_error(h)), "Success");

    // Every transfer is recorded in order, with its result; only accepted
    // sends count as received reports.
    const std::vector<zorsim::Transfer> log = zorsim::transfers(0);
    ASSERT_EQ(log.size(), 9u);
    EXPECT_EQ(std::make_tuple(log[0].kind, log[0].bytes.size(), log[0].bytes[4]),
              std::make_tuple(zorsim::Transfer::SendFeature, size_t{16}, uint8_t{0x04}));
    EXPECT_EQ(std::make_tuple(log[1].kind, log[1].result, log[1].bytes[3]),
              std::make_tuple(zorsim::Transfer::GetFeature, 5, uint8_t{0x04}));
    EXPECT_EQ(zorsim::receivedReports(0).size(), 3u);
    zorsim::clearTransfers(0);
    EXPECT_TRUE(zorsim::transfers(0).empty());
}

TEST_F(Usb, CallsForReportsTheDeviceLacksFailAsHidrawMakesThem)
{
    zorsim::addDevice();
    hid_device *h = open(0);
    unsigned char buf[64] = {0x00};
    EXPECT_EQ(hid_write(h, buf, sizeof buf), -1);
    EXPECT_EQ(narrow(hid_error(h)), "write: Broken pipe");
    EXPECT_EQ(hid_get_input_report(h, buf, sizeof buf), -1);
    EXPECT_EQ(hid_read_timeout(h, buf, sizeof buf, 0), 0);
    EXPECT_EQ(hid_read(h, buf, sizeof buf), -1); // would wait for ever
    hid_set_nonblocking(h, 1);
    EXPECT_EQ(hid_read(h, buf, sizeof buf), 0);

    wchar_t product[32], maker[3], serial[32];
    EXPECT_EQ(hid_get_indexed_string(h, 1, product, 32), -1);
    EXPECT_EQ(hid_get_product_string(h, product, 32) | hid_get_manufacturer_string(h, maker, 3) |
                  hid_get_serial_number_string(h, serial, 32),
              0);
    EXPECT_EQ(narrow(product) + " " + narrow(maker) + " " + narrow(serial), "ZOR Pro ZO 5A4F525000000100");
    EXPECT_EQ(hid_version()->minor, 14);
}

TEST_F(Usb, StaleHandlesAreCountedAndNeverFollowed)
{
    zorsim::addDevice();
    hid_device *h = hid_open_path("sim:0");
    EXPECT_EQ(zorsim::openHandles(0), 1);
    hid_close(h);
    EXPECT_EQ(zorsim::openHandles(0), 0);
    unsigned char buf[17] = {0x01};
    EXPECT_EQ(hid_get_feature_report(h, buf, sizeof buf), -1);
    hid_close(h);
    EXPECT_EQ(zorsim::invalidHandleUses(), 2);

    hid_device *kept = open(0);
    zorsim::reset(); // its device is gone, the handle can still be closed
    EXPECT_EQ(hid_get_feature_report(kept, buf, sizeof buf), -1);
    EXPECT_EQ(narrow(hid_error(kept)), "ioctl (GFEATURE): No such device");
}

TEST_F(Usb, ConcurrentClientsGetWholeReplies)
{
    zorsim::addDevices("2*pro");
    zorsim::useWallClock();
    std::atomic<int> broken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            hid_device *h = hid_open_path(zorsim::devicePath(t % 2).c_str());
            for (int i = 0; i < 200; ++i) {
                if (t == 0 && i % 40 == 0)
                    send(h, control(1, 30000 + 10 * i));
                Report r = ask(h, t < 2 ? 0x03 : 0x04);
                if (r[1] != 0x7E || r[2] != 0x5A || (r[3] != 0x03 && r[3] != 0x04))
                    ++broken;
                if (t == 3 && i % 50 == 0)
                    hid_free_enumeration(hid_enumerate(0, 0));
            }
            hid_close(h);
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(broken, 0);
}

TEST(LinkOrder, SimulatorFunctionsComeBeforeTheRealHidapi)
{
    // The real hidapi is loaded as well, linked after the simulator...
    void *real = dlopen("libhidapi-hidraw.so.0", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(real, nullptr);
    // ...yet the global lookup, which every library's hid_* call goes through, finds the simulator.
    for (const char *name : {"hid_init", "hid_enumerate", "hid_open_path", "hid_send_feature_report",
                             "hid_get_feature_report", "hid_error", "hid_close", "hid_get_report_descriptor"}) {
        Dl_info info{};
        ASSERT_NE(dladdr(dlsym(RTLD_DEFAULT, name), &info), 0) << name;
        EXPECT_NE(std::string(info.dli_fname).find("libzor_hidsim"), std::string::npos)
            << name << " comes from " << info.dli_fname;
    }
    dlclose(real);
}

} // namespace
