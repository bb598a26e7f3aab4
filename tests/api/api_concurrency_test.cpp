// Calls from several threads on one device, a close while calls are in
// flight, and a device that disappears mid-move.
#include "api_fixture.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

using Concurrency = ApiTest;
using namespace std::chrono_literals;

// Callers of different families, and two of the same family (the position
// poll and the backlash write share one).
std::vector<std::function<ZOR_ERROR_CODE()>> mixedCallers()
{
    return {
        [] { int v; return ZORGetPosition(0, &v); },
        [] { int v; return ZORGetPosition(0, &v); },
        [] { return ZORSetBacklash(0, 17); },
        [] { bool m, h; return ZORIsMoving(0, &m, &h); },
        [] { float t; return ZORGetTemp(0, &t); },
        [] { int v; return ZORGetMaxStep(0, &v); },
    };
}

TEST_F(Concurrency, CallersOfManyFamiliesShareOneDevice)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    zorsim::setLatency(device, 100us);

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (auto &call : mixedCallers())
        threads.emplace_back([&failures, call] {
            for (int i = 0; i < 100; ++i)
                if (call() != ZOR_SUCCESS)
                    ++failures;
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_FALSE(anyBusy(0));
    EXPECT_EQ(zorsim::state(device).backlash, 17);
}

TEST_F(Concurrency, CloseWaitsForCallsInFlightAndLateCallersFindItClosed)
{
    const int device = add();
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    zorsim::setLatency(device, 200us);

    std::atomic<int> started{0};
    std::vector<ZOR_ERROR_CODE> last(mixedCallers().size(), ZOR_SUCCESS);
    std::vector<std::thread> threads;
    auto callers = mixedCallers();
    for (size_t n = 0; n < callers.size(); ++n)
        threads.emplace_back([&, n] {
            ++started;
            for (int i = 0; i < 5000; ++i) {
                last[n] = callers[n]();
                if (last[n] != ZOR_SUCCESS)
                    break;
            }
        });
    while (started < static_cast<int>(threads.size()))
        std::this_thread::yield();
    std::this_thread::sleep_for(20ms);

    EXPECT_EQ(ZORClose(0), ZOR_SUCCESS);
    for (auto &t : threads)
        t.join();

    for (size_t n = 0; n < last.size(); ++n)
        EXPECT_EQ(last[n], ZOR_ERROR_CLOSED) << "caller " << n;
    EXPECT_FALSE(MutexCamPt[0].Initialised);
    EXPECT_FALSE(anyBusy(0));
    EXPECT_EQ(zorsim::openHandles(device), 0);
}

TEST_F(Concurrency, DeviceUnpluggedMidMoveFailsCallsUntilEnumerationClosesIt)
{
    const int device = add(zorsim::Model::N, 370);
    ASSERT_EQ(ZORGetNum(), 1);
    ASSERT_EQ(ZOROpen(0), ZOR_SUCCESS);
    ASSERT_EQ(ZORMove(0, 50000), ZOR_SUCCESS);
    zorsim::unplug(device);

    int step = 0;
    bool moving = false, hand = false;
    float temp = 0;
    const ZOR_ERROR_CODE results[] = {ZORGetPosition(0, &step), ZORIsMoving(0, &moving, &hand),
                                      ZORGetTemp(0, &temp), ZORStop(0), ZORGetPosition(0, &step)};
    // Transfer failures, until the failed reopen leaves the handle closed.
    EXPECT_TRUE(results[0] == ZOR_ERROR_REMOVED || results[0] == ZOR_ERROR_GENERAL_ERROR) << results[0];
    for (size_t i = 1; i < std::size(results); ++i)
        EXPECT_TRUE(results[i] == ZOR_ERROR_REMOVED || results[i] == ZOR_ERROR_GENERAL_ERROR ||
                    results[i] == ZOR_ERROR_INVALID_ID)
            << "call " << i << " gave " << results[i];

    EXPECT_EQ(ZORGetNum(), 0);
    EXPECT_EQ(pZOR[0].load(), nullptr);
    EXPECT_EQ(ZORGetPosition(0, &step), ZOR_ERROR_INVALID_ID);
}

} // namespace
