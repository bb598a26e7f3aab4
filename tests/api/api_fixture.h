// The exported interface over virtual focusers, with the tables behind it in
// view. Each test runs as its own process, so the tables start empty.
#pragma once

#include "ZOR_focuser.h"
#include "api/device_table.h"

#include "home_sandbox.h"
#include "sim/sim_control.h"

#include <gtest/gtest.h>

class ApiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        zor_test::sandboxHome();
        zorsim::reset();
        zorsim::useManualClock();
    }

    void TearDown() override
    {
        for (int id = 0; id < ZOR_BLE_ID_BASE; ++id)
            ZORClose(id);
    }

    static int add(zorsim::Model model = zorsim::Model::Pro, int firmware = 382, int position = 1000)
    {
        zorsim::DeviceConfig config;
        config.model = model;
        config.firmware = firmware;
        config.position = position;
        return zorsim::addDevice(config);
    }

    static int idAt(int index)
    {
        int id = -1;
        EXPECT_EQ(ZORGetID(index, &id), ZOR_SUCCESS);
        return id;
    }

    static bool anyBusy(int id)
    {
        for (const auto &busy : MutexCamPt[id].Busy)
            if (busy != 0)
                return true;
        return false;
    }
};
