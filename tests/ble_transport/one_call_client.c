/* A client that makes its last Bluetooth call and ends at once, as a script
 * does: "scan", or "stop NAME" (connect, pair, start a move, stop it) or
 * "disconnect NAME" (connect, pair, disconnect). Exits 0 when every call
 * succeeded. */
#include "ZOR_focuser.h"

#include <string.h>

static int connectAndPair(const char *name, int *id)
{
    BLE_DEVICE_INFO found[8];
    int count = 0;
    if (ZORBLEScan(300, found, 8, &count) != ZOR_SUCCESS || ZORBLEConnect(name, "", id) != ZOR_SUCCESS)
        return 0;
    return ZORBLEPair(*id) == ZOR_SUCCESS;
}

int main(int argc, char **argv)
{
    int id = -1;
    if (argc == 2 && strcmp(argv[1], "scan") == 0) {
        BLE_DEVICE_INFO found[8];
        int count = 0;
        return ZORBLEScan(300, found, 8, &count) == ZOR_SUCCESS ? 0 : 1;
    }
    if (argc != 3 || !connectAndPair(argv[2], &id))
        return 1;
    if (strcmp(argv[1], "stop") == 0)
        return ZORMove(id, 400000) == ZOR_SUCCESS && ZORStop(id) == ZOR_SUCCESS ? 0 : 1;
    if (strcmp(argv[1], "disconnect") == 0)
        return ZORBLEDisconnect(id) == ZOR_SUCCESS ? 0 : 1;
    return 1;
}
