// The process's Bluetooth manager on Linux: the portable manager over BlueZ.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/linux/bluez_central.h"
#include "ble_transport/platform_manager.h"

IBluetoothLEManager &platformBluetoothManager()
{
    // Never destroyed: its event thread serves the process to its end.
    static BluetoothLEManager *const manager = new BluetoothLEManager(std::make_unique<BluezCentral>());
    return *manager;
}
