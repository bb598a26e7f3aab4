#include "interrupt.h"

#include <algorithm>
#include <csignal>
#include <thread>

namespace zorctl {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void onInterrupt(int) { g_interrupted = 1; }

} // namespace

void catchInterrupt()
{
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() { return g_interrupted != 0; }

void clearInterrupt() { g_interrupted = 0; }

bool sleepUnlessInterrupted(std::chrono::milliseconds d)
{
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + d;
    // Short slices: a signal may land on another thread of the process.
    while (!interrupted()) {
        const auto now = Clock::now();
        if (now >= end)
            return true;
        std::this_thread::sleep_for(std::min<Clock::duration>(end - now, std::chrono::milliseconds(20)));
    }
    return false;
}

} // namespace zorctl
