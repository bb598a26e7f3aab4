// The process's Bluetooth manager on Linux: the portable manager over BlueZ.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/linux/bluez_central.h"
#include "ble_transport/platform_manager.h"

IBluetoothLEManager &platformBluetoothManager()
{
    // Created on first Bluetooth use, not while the library loads, so loading
    // never blocks and USB-only programs never touch Bluetooth. Never
    // destroyed: its event thread serves the process to its end.
    static BluetoothLEManager *const manager = new BluetoothLEManager(std::make_unique<BluezCentral>());
    return *manager;
}
