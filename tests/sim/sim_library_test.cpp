// The unmodified shared library, loaded after the simulator, drives virtual
// focusers through its public calls only.
#include "ZOR_focuser.h"
#include "home_sandbox.h"
#include "sim/sim_control.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

TEST(ThroughTheLibrary, PublicCallsReachVirtualFocusers)
{
    zor_test::sandboxHome();
    zorsim::reset();
    zorsim::useManualClock();
    zorsim::DeviceConfig c;
    c.position = 1234;
    zorsim::addDevice(c);
    zorsim::addDevices("old@321:16");

    ASSERT_EQ(ZORGetNum(), 2);
    int id = -1;
    ASSERT_EQ(ZORGetID(0, &id), ZOR_SUCCESS);
    ASSERT_EQ(ZOROpen(id), ZOR_SUCCESS);
    ZOR_TYPE type{};
    EXPECT_EQ(ZORGetType(id, &type), ZOR_SUCCESS);
    EXPECT_STREQ(type.Type, "ZOR Pro");

    ASSERT_EQ(ZORMove(id, 2234), ZOR_SUCCESS);
    bool moving = false, byDevice = false;
    EXPECT_EQ(ZORIsMoving(id, &moving, &byDevice), ZOR_SUCCESS);
    EXPECT_TRUE(moving);
    zorsim::advance(1s);
    EXPECT_EQ(ZORIsMoving(id, &moving, &byDevice), ZOR_SUCCESS);
    EXPECT_FALSE(moving);
    int position = 0;
    EXPECT_EQ(ZORGetPosition(id, &position), ZOR_SUCCESS);
    EXPECT_EQ(position, 2234);

    EXPECT_EQ(ZORClose(id), ZOR_SUCCESS);
    EXPECT_EQ(zorsim::openHandles(0), 0);
    EXPECT_EQ(zorsim::state(0).position, 2234);
}

} // namespace
