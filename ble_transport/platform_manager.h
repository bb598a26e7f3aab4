// The one platform Bluetooth manager of the process. Every handle made by
// IBluetoothLEManager::CreateBluetoothLEManager forwards to it, so all device
// objects share one link, one receive buffer and one connection-state
// callback.
#pragma once

#include "ble_transport/ble_manager.h"

// Created on first use (so loading the library never touches Bluetooth),
// never destroyed. Each platform defines it in a file of its own, linked into
// the library; test programs link a definition of their own instead.
IBluetoothLEManager &platformBluetoothManager();
