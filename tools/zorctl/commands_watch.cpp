// watch: position, motion and temperature at an interval until Ctrl-C.
#include "commands.h"
#include "device.h"
#include "interrupt.h"
#include "motion.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

namespace zorctl {
namespace {

struct WatchArgs {
    int id = 0;
    double interval = 1.0;
    int count = 0;
    int moveTo = -1; // -1: watch without starting a move
};

const char *yesNo(bool b) { return b ? "yes" : "no"; }

// A focuser without a working probe answers with an invalid reading; the
// column then shows a dash instead of ending the watch.
std::string temperature(int id)
{
    float celsius = 0;
    const ZOR_ERROR_CODE code = ZORGetTemp(id, &celsius);
    if (code == ZOR_ERROR_GENERAL_ERROR)
        return "-";
    check(code, "reading the temperature");
    char text[16];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(celsius));
    return text;
}

int runWatch(const WatchArgs &a)
{
    catchInterrupt();
    Focuser f(a.id);
    const bool withTarget = a.moveTo >= 0;
    if (withTarget) {
        checkStep(a.id, a.moveTo);
        check(ZORMove(a.id, a.moveTo), "starting the move");
    }
    // The focuser does not report the target of a move; the column exists
    // only for the move this command started.
    if (withTarget)
        std::printf("%7s %9s %9s %6s %5s %8s\n", "TIME", "POSITION", "TARGET", "MOVING", "HAND", "TEMP(C)");
    else
        std::printf("%7s %9s %6s %5s %8s\n", "TIME", "POSITION", "MOVING", "HAND", "TEMP(C)");
    const auto start = std::chrono::steady_clock::now();
    const auto interval = std::chrono::milliseconds(std::lround(a.interval * 1000));
    for (int n = 0; a.count == 0 || n < a.count; ++n) {
        if (n > 0 && !sleepUnlessInterrupted(interval))
            break;
        const MotionSample s = sampleMotion(a.id);
        const std::string temp = temperature(a.id);
        const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (withTarget)
            std::printf("%6.1fs %9d %9d %6s %5s %8s\n", t, s.position, a.moveTo, yesNo(s.moving),
                        yesNo(s.hand), temp.c_str());
        else
            std::printf("%6.1fs %9d %6s %5s %8s\n", t, s.position, yesNo(s.moving), yesNo(s.hand),
                        temp.c_str());
        std::fflush(stdout);
    }
    // Ctrl-C ends a plain watch as it should; with --move it also
    // interrupts the move, as it does for move --wait.
    if (interrupted() && withTarget) {
        stopAfterInterrupt(a.id);
        return kInterruptedExit;
    }
    return 0;
}

} // namespace

void addWatch(CLI::App &app, Commands &commands)
{
    auto args = std::make_shared<WatchArgs>();
    CLI::App *watch = app.add_subcommand(
        "watch", "Print position, motion, hand-control flag and temperature at an interval until Ctrl-C");
    addIdArgument(*watch, args->id);
    watch->add_option("-i,--interval", args->interval, "Seconds between samples (default 1)")
        ->check(CLI::Range(0.05, 3600.0));
    addWholeNumber(*watch, "-n,--count", args->count, "Stop after this many samples (default: until Ctrl-C)",
                   0);
    addWholeNumber(*watch, "--move", args->moveTo,
                   "Start a move to this step first and show its target; Ctrl-C then stops the focuser", 0);
    commands.push_back({watch, [args] { return runWatch(*args); }, &args->id});
}

} // namespace zorctl
