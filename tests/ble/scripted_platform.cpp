#include "scripted_platform.h"

#include "ble_transport/platform_manager.h"

namespace zor_test {

ScriptedTransport &platformTransport()
{
    static ScriptedTransport *const transport = new ScriptedTransport();
    return *transport;
}

} // namespace zor_test

IBluetoothLEManager &platformBluetoothManager() { return zor_test::platformTransport(); }
