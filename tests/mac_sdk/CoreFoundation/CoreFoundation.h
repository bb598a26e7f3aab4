// The CoreFoundation run loop, as the macOS sources use it.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t SInt32;
typedef unsigned char Boolean;
typedef double CFTimeInterval;
typedef const struct __CFString *CFStringRef;
typedef CFStringRef CFRunLoopMode;

enum {
    kCFRunLoopRunFinished = 1,
    kCFRunLoopRunStopped = 2,
    kCFRunLoopRunTimedOut = 3,
    kCFRunLoopRunHandledSource = 4
};

extern const CFRunLoopMode kCFRunLoopDefaultMode;

SInt32 CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean returnAfterSourceHandled);

#ifdef __cplusplus
}
#endif
