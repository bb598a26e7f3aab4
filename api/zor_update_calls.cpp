// Firmware update over USB: enter update mode, send the image piece by
// piece, leave update mode.
#include "api/call_guard.h"

using namespace zor::api;

namespace {
enum Family { kStartUpdate = 40, kWriteUpdate = 41, kEndUpdate = 42 };
}

extern "C" {

ZOR_ERROR_CODE ZORHidStartUpdate(int ID)
{
    return onUsbOnly(__func__, ID, kStartUpdate, [](CZOR &z) { return z.HIDStartUpdate(); });
}

ZOR_ERROR_CODE ZORHidWriteUpdateFile(int ID, ZOR_HID_FILE_BUF buf)
{
    return onUsbOnly(__func__, ID, kWriteUpdate, [&](CZOR &z) { return z.HIDWriteUpdateFile(buf); });
}

ZOR_ERROR_CODE ZORHidEndUpdate(int ID)
{
    return onUsbOnly(__func__, ID, kEndUpdate, [](CZOR &z) { return z.HIDEndUpdate(); });
}

} // extern "C"
