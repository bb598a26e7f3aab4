#include "motion.h"

#include "ble.h"
#include "device.h"

#include <cstdio>

namespace zorctl {

MotionSample sampleMotion(int id)
{
    throwIfLinkLost(id);
    MotionSample s;
    try {
        check(ZORIsMoving(id, &s.moving, &s.hand), "reading the motion state");
        s.position = readPosition(id);
    } catch (const Failure &) {
        throwIfLinkLost(id); // the cause, rather than the call that timed out
        throw;
    }
    return s;
}

int readPosition(int id)
{
    int position = 0;
    check(ZORGetPosition(id, &position), "reading the position");
    return position;
}

int stopAfterInterrupt(int id)
{
    check(ZORStop(id), "stopping the focuser");
    const int position = readPosition(id);
    std::printf("Interrupted: focuser %d stopped at %d.\n", id, position);
    return position;
}

void checkStep(int id, int step)
{
    int range = 0;
    check(ZORStepRange(id, &range), "reading the step range");
    if (step < 0 || step > range)
        throw UserError("step " + std::to_string(step) + " is outside this focuser's range 0 to " +
                        std::to_string(range));
}

} // namespace zorctl
