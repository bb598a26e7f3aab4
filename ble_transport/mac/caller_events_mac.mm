// On macOS the main thread serves its run loop during Bluetooth waits.
#include "ble_transport/caller_events.h"

#import <Foundation/Foundation.h>

#include <CoreFoundation/CoreFoundation.h>

bool serviceCallerEvents()
{
    if (![NSThread isMainThread])
        return false;
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true);
    return true;
}
