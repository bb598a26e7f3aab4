// Reading where a focuser is and whether it moves; shared by move and watch.
#pragma once

namespace zorctl {

struct MotionSample {
    int position = 0;
    bool moving = false;
    bool hand = false; // the hand-control flag of ZORIsMoving
};

MotionSample sampleMotion(int id);
int readPosition(int id);

// Ctrl-C during a move: stops the focuser, says where, returns the position.
int stopAfterInterrupt(int id);

// Throws UserError unless 0 <= step <= the focuser's step range.
void checkStep(int id, int step);

} // namespace zorctl
