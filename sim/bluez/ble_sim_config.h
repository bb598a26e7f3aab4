// The virtual Bluetooth focusers a ZOR_BLE_SIM description names.
#pragma once

#include "sim/focuser_model.h"

#include <string>
#include <vector>

namespace zorsim {

struct BlePeripheralConfig {
    DeviceConfig device; // its bleName is the name the focuser advertises
    std::string address; // "AA:BB:CC:DD:EE:FF", upper-case as BlueZ writes it
    int rssi = -60;
};

// A ZOR_SIM description whose entries may also carry "/name=TEXT" (the
// advertised name, 11 characters at most, as "/ble=TEXT"), "/address=MAC",
// "/battery=PERCENT" and "/rssi=DBM". Throws std::invalid_argument.
std::vector<BlePeripheralConfig> parseBleDescription(const std::string &description);

} // namespace zorsim
