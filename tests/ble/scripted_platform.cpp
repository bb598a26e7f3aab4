#include "ble_transport/platform_manager.h"
#include "scripted_transport.h"

namespace zor_test {

ScriptedTransport &platformTransport()
{
    static ScriptedTransport *const transport = new ScriptedTransport();
    return *transport;
}

} // namespace zor_test

IBluetoothLEManager &platformBluetoothManager() { return zor_test::platformTransport(); }
