#include "result_codes.h"

#include "ZOR_focuser.h"

namespace zorctl {
namespace {

struct Entry {
    int code;
    ResultText text;
};

#define ZORCTL_RESULT(code, meaning)                                                                         \
    {                                                                                                        \
        code, { #code, meaning }                                                                             \
    }

const Entry kResults[] = {
    ZORCTL_RESULT(ZOR_SUCCESS, "done"),
    ZORCTL_RESULT(ZOR_ERROR_INVALID_INDEX,
                  "no focuser at that place in the list; it may have been unplugged"),
    ZORCTL_RESULT(ZOR_ERROR_INVALID_ID,
                  "no focuser has this ID; 'zorctl list' shows the IDs of the focusers found"),
    ZORCTL_RESULT(ZOR_ERROR_INVALID_VALUE, "the focuser refused the value as out of range"),
    ZORCTL_RESULT(ZOR_ERROR_REMOVED,
                  "the focuser could not be reached over USB: it was unplugged, or this user may not open it "
                  "(see the udev rule in the README)"),
    ZORCTL_RESULT(ZOR_ERROR_MOVING, "the focuser is moving; stop it or wait until it has stopped"),
    ZORCTL_RESULT(ZOR_ERROR_ERROR_STATE,
                  "the focuser did not enter firmware-update mode (is it moving, or in an error state?)"),
    ZORCTL_RESULT(ZOR_ERROR_GENERAL_ERROR, "a USB transfer failed, or the focuser sent an invalid reading"),
    ZORCTL_RESULT(ZOR_ERROR_NOT_SUPPORTED, "this focuser's model or firmware does not have this feature"),
    ZORCTL_RESULT(ZOR_ERROR_CLOSED, "the focuser is not open"),
    ZORCTL_RESULT(ZOR_ERROR_BATTERY_DATA, "the battery reading is invalid"),
    ZORCTL_RESULT(ZOR_ERROR_BAD_DATA, "a reply or a block of data had the wrong length"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_RESPONSE,
                  "the focuser's Bluetooth reply reported a failure or could not be read"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_SEND, "sending over Bluetooth failed"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_CONNECT_FAILED, "the Bluetooth connection could not be made"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_NOT_CONNECTED, "no focuser is connected over Bluetooth with this ID"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_PAIR_FAILED, "pairing failed"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_CLEAR_PAIR_FAILED, "clearing the pairing failed"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_PAIR_REJECTED, "the focuser rejected the pairing"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_TIMEOUT, "the Bluetooth link did not answer in time"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_UNAVAILABLE, "Bluetooth cannot be used on this computer"),
    ZORCTL_RESULT(ZOR_ERROR_INVALID_CALLBACK, "no callback function was given"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_NEW_CONNECTION, "the focuser reports a new Bluetooth connection"),
    ZORCTL_RESULT(ZOR_ERROR_BLE_UPDATE_ACK,
                  "the focuser acknowledged a different amount of firmware data than was sent"),
};

#undef ZORCTL_RESULT

} // namespace

ResultText describeResult(int code)
{
    for (const Entry &e : kResults)
        if (e.code == code)
            return e.text;
    return {"unknown result", "the library answered with a code this version of zorctl does not know"};
}

std::string formatResult(int code)
{
    const ResultText text = describeResult(code);
    return std::string(text.name) + " (" + std::to_string(code) + "): " + text.meaning;
}

} // namespace zorctl
