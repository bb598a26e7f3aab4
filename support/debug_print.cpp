#include "ZOR_focuser.h"

// The library hands its diagnostic messages to this hook; it discards them.
extern "C" void ZORDbgPrint(const char *, const char *, ...) {}
