// Test programs' process-wide Bluetooth manager: a scripted transport in
// place of the platform's, which the library alone links. Every handle from
// IBluetoothLEManager::CreateBluetoothLEManager forwards to it.
#pragma once

#include "scripted_transport.h"

namespace zor_test {

ScriptedTransport &platformTransport();

} // namespace zor_test
