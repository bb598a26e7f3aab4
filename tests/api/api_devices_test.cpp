// Enumeration, IDs, open, close and the property record.
#include "api_fixture.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <functional>

namespace {
// When positive, the call of this number from now fails.
std::atomic<int> failingLockTypeCall{0};
} // namespace

// The program's own definition comes before the system's: it lets the making
// of a lock fail on request.
extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attr, int type)
{
    if (failingLockTypeCall > 0 && --failingLockTypeCall == 0)
        return ENOMEM;
    using Settype = int (*)(pthread_mutexattr_t *, int);
    static const auto system = reinterpret_cast<Settype>(dlsym(RTLD_NEXT, "pthread_mutexattr_settype"));
    return system(attr, type);
}

namespace {

using Devices = ApiTest;

TEST_F(Devices, IdsStayWithTheirDevicesAndFreedIdsAreReused)
{
    const int first = add(), second = add();
    ASSERT_EQ(ZORGetNum(), 2);
    EXPECT_EQ(idAt(0), 0);
    EXPECT_EQ(idAt(1), 1);

    zorsim::unplug(first);
    ASSERT_EQ(ZORGetNum(), 1);
    EXPECT_EQ(idAt(0), 1) << "the remaining device keeps its ID";
    EXPECT_EQ(ZOROpen(0), ZOR_ERROR_INVALID_ID) << "ID 0 is free";
    EXPECT_STREQ(DevPathArray[1], zorsim::devicePath(second).c_str());

    const int third = add();
    ASSERT_EQ(ZORGetNum(), 2);
    EXPECT_STREQ(DevPathArray[0], zorsim::devicePath(third).c_str()) << "a new device takes the lowest free ID";
    EXPECT_STREQ(DevPathArray[1], zorsim::devicePath(second).c_str());
}

// IDs from 50 up select the Bluetooth branch, so a fifty-first USB focuser
// gets no ID and is not counted until an ID is freed.
TEST_F(Devices, UsbIdsStayBelowFifty)
{
    for (int n = 0; n <= ZOR_BLE_ID_BASE; ++n)
        add();
    ASSERT_EQ(ZORGetNum(), ZOR_BLE_ID_BASE);
    for (int index = 0; index < ZOR_BLE_ID_BASE; ++index)
        EXPECT_EQ(idAt(index), index);
    EXPECT_EQ(DevPathArray[ZOR_BLE_ID_BASE][0], '\0');
    int step = 0;
    EXPECT_EQ(ZORGetPosition(ZOR_BLE_ID_BASE, &step), ZOR_ERROR_BLE_NOT_CONNECTED);

    zorsim::unplug(10);
    ASSERT_EQ(ZORGetNum(), ZOR_BLE_ID_BASE);
    EXPECT_STREQ(DevPathArray[10], zorsim::devicePath(ZOR_BLE_ID_BASE).c_str()) << "the last one takes the freed ID";
    EXPECT_EQ(idAt(ZOR_BLE_ID_BASE - 1), 10);
}

TEST_F(Devices, IndexOutsideTheEnumerationLeavesTheIdAlone)
{
    add();
    ASSERT_EQ(ZORGetNum(), 1);
    int id = 77;
    EXPECT_EQ(ZORGetID(1, &id), ZOR_ERROR_INVALID_INDEX);
    EXPECT_EQ(ZORGetID(-1, &id), ZOR_ERROR_INVALID_INDEX);
    EXPECT_EQ(id, 77);
}

TEST_F(Devices, OpenIsIdempotentAndCloseAcceptsKnownIds)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    EXPECT_EQ(ZORClose(0), ZOR_SUCCESS) << "known but not opened";
    EXPECT_EQ(ZORClose(128), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(ZORClose(-1), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(ZOROpen(5), ZOR_ERROR_INVALID_ID);

    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    CZOR *object = pZOR[0];
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    EXPECT_EQ(pZOR[0].load(), object) << "one object";
    EXPECT_EQ(zorsim::openHandles(device), 1);
    EXPECT_TRUE(MutexCamPt[0].Initialised);

    EXPECT_EQ(ZORClose(0), ZOR_SUCCESS);
    EXPECT_EQ(pZOR[0].load(), nullptr);
    EXPECT_FALSE(MutexCamPt[0].Initialised);
    EXPECT_EQ(zorsim::openHandles(device), 0);
}

TEST_F(Devices, FailedOpenLeavesNothingBehind)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    const struct {
        const char *cause;
        std::function<void()> arrange;
        ZOR_ERROR_CODE result;
    } cases[] = {
        {"the device refuses", [&] { zorsim::failNextOpens(device, 1); }, ZOR_ERROR_REMOVED},
        {"the tenth lock cannot be made", [] { failingLockTypeCall = 10; }, ZOR_ERROR_GENERAL_ERROR},
    };
    for (const auto &c : cases) {
        c.arrange();
        EXPECT_EQ(ZOROpen(0), c.result) << c.cause;
        EXPECT_EQ(pZOR[0].load(), nullptr) << c.cause;
        EXPECT_FALSE(MutexCamPt[0].Initialised) << c.cause;
        EXPECT_EQ(zorsim::openHandles(device), 0) << c.cause;
        int step = 0;
        EXPECT_EQ(ZORGetPosition(0, &step), ZOR_ERROR_CLOSED) << c.cause;
    }
    EXPECT_EQ(ZOROpen(0), ZOR_SUCCESS);
    EXPECT_TRUE(MutexCamPt[0].Initialised);
}

TEST_F(Devices, EnumerationClosesAnOpenDeviceThatVanished)
{
    const int device = add(zorsim::Model::N, 370);
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    zorsim::unplug(device);

    EXPECT_EQ(ZORGetNum(), 0);
    EXPECT_EQ(pZOR[0].load(), nullptr);
    EXPECT_EQ(zorsim::openHandles(device), 0);
    int step = 0;
    EXPECT_EQ(ZORGetPosition(0, &step), ZOR_ERROR_INVALID_ID);
}

TEST_F(Devices, PropertyNamesTheDeviceAndClosesWhatItOpened)
{
    zorsim::DeviceConfig config;
    config.alias = "AB";
    const int named = zorsim::addDevice(config);
    const int plain = add(zorsim::Model::N, 370);
    ASSERT_EQ(ZORGetNum(), 2);

    ZOR_INFO info;
    std::memset(&info, 0x55, sizeof info);
    ASSERT_EQ(ZORGetProperty(0, &info), ZOR_SUCCESS);
    EXPECT_EQ(info.ID, 0);
    EXPECT_STREQ(info.Name, "ZOR(AB)");
    EXPECT_EQ(info.MaxStep, 600000);
    EXPECT_EQ(pZOR[0].load(), nullptr) << "closed again";
    EXPECT_EQ(zorsim::openHandles(named), 0);

    ASSERT_EQ(ZOROpen(1), ZOR_SUCCESS);
    ASSERT_EQ(ZORGetProperty(1, &info), ZOR_SUCCESS);
    EXPECT_STREQ(info.Name, "ZOR");
    for (size_t i = 4; i < sizeof info.Name; ++i)
        ASSERT_EQ(info.Name[i], '\0') << i;
    EXPECT_NE(pZOR[1].load(), nullptr) << "a device opened by the caller stays open";
    EXPECT_EQ(zorsim::openHandles(plain), 1);
    EXPECT_FALSE(anyBusy(1));
}

TEST_F(Devices, PropertyOfASilentDeviceFallsBackToTheDefaultRange)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    zorsim::setStalled(device, true);
    ZOR_INFO info;
    ASSERT_EQ(ZORGetProperty(0, &info), ZOR_SUCCESS);
    EXPECT_STREQ(info.Name, "ZOR");
    EXPECT_EQ(info.MaxStep, 60000);

    zorsim::failNextOpens(device, 1);
    ASSERT_EQ(ZORGetProperty(0, &info), ZOR_SUCCESS) << "an open failure still answers";
    EXPECT_STREQ(info.Name, "ZOR");
    EXPECT_EQ(ZORGetProperty(3, &info), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(ZORGetProperty(60, &info), ZOR_ERROR_BLE_NOT_CONNECTED);
}

} // namespace
