// The process-wide platform manager where this library has no Bluetooth
// stack to drive.
#include "ble_transport/platform_manager.h"

#include "ble_transport/unavailable_manager.h"

IBluetoothLEManager &platformBluetoothManager()
{
    // Never destroyed: handles may still forward to it while the process ends.
    static IBluetoothLEManager *const manager = new UnavailableBluetoothLEManager();
    return *manager;
}
