// The process-wide platform manager where this library has no Bluetooth
// stack to drive.
#include "ble_transport/platform_manager.h"

#include "ble_transport/unavailable_manager.h"

IBluetoothLEManager &platformBluetoothManager()
{
    // Made on first Bluetooth use, not while the library loads, so that loading
    // never waits for a radio; never destroyed, since handles may still
    // forward to it while the process ends.
    static IBluetoothLEManager *const manager = new UnavailableBluetoothLEManager();
    return *manager;
}
