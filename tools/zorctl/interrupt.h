// Ctrl-C as a request: commands that run until stopped check for it between
// device calls, so the focuser can be stopped before zorctl exits.
#pragma once

#include <chrono>

namespace zorctl {

// From now on SIGINT and SIGTERM only mark the request.
void catchInterrupt();
bool interrupted();
void clearInterrupt();

// Sleeps for `d`, returning early (false) when an interrupt arrives.
bool sleepUnlessInterrupted(std::chrono::milliseconds d);

// The exit status of a program ended by Ctrl-C.
constexpr int kInterruptedExit = 130;

} // namespace zorctl
