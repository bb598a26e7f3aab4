// move, stop, position and sync.
#include "ble.h"
#include "commands.h"
#include "device.h"
#include "interrupt.h"
#include "json.h"
#include "motion.h"
#include "progress.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace zorctl {
namespace {

using namespace std::chrono_literals;

std::string progressDetail(int position, int target)
{
    return "at " + std::to_string(position) + ", target " + std::to_string(target);
}

// Follows a running move with a progress bar until the focuser stops, or
// stops it on Ctrl-C.
int waitForMove(int id, int start, int target)
{
    ProgressBar bar(stdout, "moving");
    const double distance = std::abs(target - start);
    auto fraction = [&](int position) { return distance == 0 ? 1.0 : std::abs(position - start) / distance; };
    for (;;) {
        const MotionSample s = sampleMotion(id);
        if (interrupted()) {
            const int position = stopAfterInterrupt(id);
            bar.finish(fraction(position), progressDetail(position, target));
            return kInterruptedExit;
        }
        if (!s.moving) {
            bar.finish(fraction(s.position), progressDetail(s.position, target));
            // Stopped by someone else, the hand controller or the maximum
            // step: the command did not do what it was asked.
            if (s.position != target)
                throw UserError("focuser " + std::to_string(id) + " stopped at " +
                                std::to_string(s.position) + " before reaching " + std::to_string(target));
            std::printf("Focuser %d reached %d.\n", id, s.position);
            return 0;
        }
        bar.update(fraction(s.position), progressDetail(s.position, target));
        sleepUnlessInterrupted(100ms);
    }
}

struct MoveArgs {
    int id = 0;
    int step = 0;
    bool wait = false;
};

int runMove(const MoveArgs &a)
{
    // Closing a Bluetooth link stops the motor, so zorctl stays to the end.
    const bool wait = a.wait || isBluetoothId(a.id);
    if (wait)
        catchInterrupt();
    Focuser f(a.id);
    checkStep(a.id, a.step);
    const int start = readPosition(a.id);
    check(ZORMove(a.id, a.step), "starting the move");
    if (!wait) {
        std::printf("Focuser %d is moving from %d to %d.\n", a.id, start, a.step);
        return 0;
    }
    return waitForMove(a.id, start, a.step);
}

int runStop(int id)
{
    Focuser f(id);
    check(ZORStop(id), "stopping the focuser");
    std::printf("Focuser %d stopped at %d.\n", id, readPosition(id));
    return 0;
}

int runPosition(int id, bool json)
{
    Focuser f(id);
    const MotionSample s = sampleMotion(id);
    if (json)
        std::printf(
            "%s\n",
            Json::object().set("id", id).set("position", s.position).set("moving", s.moving).dump().c_str());
    else
        std::printf("%d%s\n", s.position, s.moving ? " (moving)" : "");
    return 0;
}

int runSync(int id, int step)
{
    Focuser f(id);
    checkStep(id, step);
    check(ZORResetPostion(id, step), "redefining the current position");
    std::printf("Focuser %d: the current position is now step %d.\n", id, readPosition(id));
    return 0;
}

} // namespace

void addMotion(CLI::App &app, Commands &commands)
{
    auto move = std::make_shared<MoveArgs>();
    CLI::App *moveCmd = app.add_subcommand("move", "Move a focuser to an absolute step");
    addIdArgument(*moveCmd, move->id);
    addStepArgument(*moveCmd, move->step, "Target position in steps");
    moveCmd->add_flag("-w,--wait", move->wait,
                      "Show a progress bar until the focuser stops; Ctrl-C stops the focuser (always so over Bluetooth, "
                      "where the end of the link stops the motor)");
    commands.push_back({moveCmd, [move] { return runMove(*move); }, &move->id});

    auto stopId = std::make_shared<int>(0);
    CLI::App *stop = app.add_subcommand("stop", "Stop a focuser");
    addIdArgument(*stop, *stopId);
    commands.push_back({stop, [stopId] { return runStop(*stopId); }, stopId.get()});

    struct PositionArgs {
        int id = 0;
        bool json = false;
    };
    auto pos = std::make_shared<PositionArgs>();
    CLI::App *position = app.add_subcommand("position", "Show the current position in steps");
    addIdArgument(*position, pos->id);
    addJsonFlag(*position, pos->json);
    commands.push_back({position, [pos] { return runPosition(pos->id, pos->json); }, &pos->id});

    struct SyncArgs {
        int id = 0;
        int step = 0;
    };
    auto sync = std::make_shared<SyncArgs>();
    CLI::App *syncCmd =
        app.add_subcommand("sync", "Redefine the current position as STEP (the focuser does not move)");
    addIdArgument(*syncCmd, sync->id);
    addStepArgument(*syncCmd, sync->step, "The step number the current position gets");
    commands.push_back({syncCmd, [sync] { return runSync(sync->id, sync->step); }, &sync->id});
}

} // namespace zorctl
