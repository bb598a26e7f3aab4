/*
 * ZOR focuser SDK: the name and a plain meaning of every result code of
 * ZOR_focuser.h, for programs that show results to people.
 *
 * ZOR_RESULT_CODES(X) expands X(name, meaning) once per code, in the order
 * of the enumeration. The meanings are neutral; a program adds its own hints
 * (which command lists the IDs, what to check) on top of them.
 *
 * ZORResultName(5) is "ZOR_ERROR_MOVING", ZORResultMeaning(5) "the focuser
 * is moving"; both are NULL for a number that is no result code. The lookups
 * switch over the enumeration, so a code missing from the table is a -Wswitch
 * warning and a code listed twice does not compile.
 *
 * Usable from C99 and C++; nothing here is exported by the library.
 */
#ifndef ZOR_RESULT_CODES_H
#define ZOR_RESULT_CODES_H

#include "ZOR_focuser.h"

#define ZOR_RESULT_CODES(X)                                                                                  \
    X(ZOR_SUCCESS, "the call succeeded")                                                                     \
    X(ZOR_ERROR_INVALID_INDEX, "no focuser or entry at that index")                                          \
    X(ZOR_ERROR_INVALID_ID, "no focuser has this ID")                                                        \
    X(ZOR_ERROR_INVALID_VALUE, "a value or argument is out of range, or the answer could not be read")       \
    X(ZOR_ERROR_REMOVED, "the focuser could not be reached over USB: unplugged, or not permitted to open")   \
    X(ZOR_ERROR_MOVING, "the focuser is moving")                                                             \
    X(ZOR_ERROR_ERROR_STATE, "the focuser did not enter firmware-update mode")                               \
    X(ZOR_ERROR_GENERAL_ERROR, "a USB transfer failed, or the focuser sent an invalid reading")              \
    X(ZOR_ERROR_NOT_SUPPORTED, "this focuser's model or firmware does not have this feature")                \
    X(ZOR_ERROR_CLOSED, "the focuser is not open")                                                           \
    X(ZOR_ERROR_BATTERY_DATA, "the battery reading is invalid")                                              \
    X(ZOR_ERROR_BAD_DATA, "a reply or a block of data had the wrong length")                                 \
    X(ZOR_ERROR_BLE_RESPONSE, "the focuser's Bluetooth answer reported a failure or could not be read")      \
    X(ZOR_ERROR_BLE_SEND, "sending over Bluetooth failed")                                                   \
    X(ZOR_ERROR_BLE_CONNECT_FAILED, "the Bluetooth connection could not be made")                            \
    X(ZOR_ERROR_BLE_NOT_CONNECTED, "no focuser is connected over Bluetooth with this ID")                    \
    X(ZOR_ERROR_BLE_PAIR_FAILED, "pairing failed")                                                           \
    X(ZOR_ERROR_BLE_CLEAR_PAIR_FAILED, "clearing the pairing failed")                                        \
    X(ZOR_ERROR_BLE_PAIR_REJECTED, "the focuser rejected the pairing")                                       \
    X(ZOR_ERROR_BLE_TIMEOUT, "the focuser did not answer over Bluetooth in time")                            \
    X(ZOR_ERROR_BLE_UNAVAILABLE, "Bluetooth cannot be used on this computer")                                \
    X(ZOR_ERROR_INVALID_CALLBACK, "no callback function was given")                                          \
    X(ZOR_ERROR_BLE_NEW_CONNECTION, "the focuser reports a new Bluetooth connection")                        \
    X(ZOR_ERROR_BLE_UPDATE_ACK, "the focuser acknowledged a different amount of firmware data than was sent")

#define ZOR_RESULT_NAME_CASE_(name, meaning)                                                                 \
    case name:                                                                                               \
        return #name;
#define ZOR_RESULT_MEANING_CASE_(name, meaning)                                                              \
    case name:                                                                                               \
        return meaning;

static inline const char *ZORResultName(int code)
{
    switch ((ZOR_ERROR_CODE)code) {
        ZOR_RESULT_CODES(ZOR_RESULT_NAME_CASE_)
    }
    return 0;
}

static inline const char *ZORResultMeaning(int code)
{
    switch ((ZOR_ERROR_CODE)code) {
        ZOR_RESULT_CODES(ZOR_RESULT_MEANING_CASE_)
    }
    return 0;
}

#undef ZOR_RESULT_NAME_CASE_
#undef ZOR_RESULT_MEANING_CASE_

#endif /* ZOR_RESULT_CODES_H */
