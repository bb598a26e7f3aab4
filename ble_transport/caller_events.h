// Where the platform delivers work to a thread through a loop of its own (the
// main run loop on macOS), a thread blocked in a Bluetooth wait keeps that
// loop serving, so that a program's main thread never freezes in a call.
#pragma once

// Runs what the calling thread's own loop has ready, without waiting; false
// when the calling thread has no such loop (then nothing ran).
bool serviceCallerEvents();
