// The process's Bluetooth manager on macOS: the portable manager over
// CoreBluetooth.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/mac/mac_ble_manager_bridge.h"
#include "ble_transport/platform_manager.h"

IBluetoothLEManager &platformBluetoothManager()
{
    // Created on first Bluetooth use, not while the library loads, so loading
    // never blocks on the radio's first state and USB-only programs never
    // touch Bluetooth. Never destroyed: the main queue may still hold its
    // events when the process ends.
    static BluetoothLEManager *const manager =
        new BluetoothLEManager(std::make_unique<MacBLEManagerBridge>());
    return *manager;
}
