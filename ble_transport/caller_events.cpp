// Platforms whose threads have no loop of their own to serve.
#include "ble_transport/caller_events.h"

bool serviceCallerEvents() { return false; }
