/*
 * ZOR focuser SDK: the public interface.
 *
 * Every call names a focuser by an integer ID and returns a ZOR_ERROR_CODE
 * (ZOR_result_codes.h, beside this header, gives each code's name and a
 * plain meaning for showing to people). Records are plain structures with
 * natural alignment, filled into memory the caller owns; the library never
 * hands out memory the caller must free.
 *
 * Usable from C99 and C++. A few functions carry C++ (type-encoded) symbol
 * names; they are declared only when this header is compiled as C++.
 *
 * IDs. 0 to 49 are focusers on USB, numbered by ZORGetNum; a focuser keeps
 * its ID while it stays plugged in. 50 and up are focusers connected over
 * Bluetooth LE, handed out by ZORBLEConnect. The tables have ZOR_MAX_NUM
 * (128) entries: an ID outside 0 to 127 is answered with
 * ZOR_ERROR_INVALID_ID (2).
 *
 * Typical use: ZORGetNum, ZORGetID for each index, ZOROpen, control calls,
 * ZORClose. Over Bluetooth: ZORBLEScan, ZORBLEConnect, ZORBLEPair, control
 * calls with the ID handed out, ZORBLEDisconnect.
 *
 * Results every control call can give, besides those listed at each call:
 *  - On a USB ID (0 to 49): 2 when the ID is negative or no focuser was
 *    found at it (or its object lost its USB handle when a reopening
 *    failed); 9 when it was found but is not open; 4 when the focuser was
 *    unplugged (a transfer failed with -1); 7 when a transfer failed
 *    otherwise, or a status reply lacked its marks. After four failures in
 *    a row the library reopens the device by its path, at most three times
 *    until a transfer succeeds again.
 *  - On a Bluetooth ID (50 and up): 2 when the ID is beyond 127; 53 at
 *    once when no focuser is connected at the ID, when its link was lost,
 *    or when a later ZORBLEConnect took the link over; 51 when the request
 *    could not be written; 57 when no answer came in time; 50 when the
 *    answer reported a failure or could not be decoded.
 *  - Caller mistakes are answered with ZOR_ERROR_INVALID_VALUE (3) and send
 *    nothing to the device: a null pointer where a call reads or writes a
 *    record or buffer, a negative length, a backlash outside 0..255 or a
 *    maximum force outside 0..15. Positions and the maximum step are
 *    clamped to the device's step range instead. ZORGetControlCaps answers
 *    a null record, like an index outside 0..8, with
 *    ZOR_ERROR_INVALID_INDEX (1).
 *  - A value not in ZOR_ERROR_CODE must be treated as a failure.
 *
 * Blocking. Every call runs on the caller's thread and returns when its
 * exchanges are done. A USB exchange is one feature report written and,
 * for queries, one read back: a few milliseconds; a focuser that stops
 * answering fails it when the system's USB timeout ends (about 5 s on
 * Linux). A Bluetooth exchange waits at most 5 s for its answer and
 * returns as soon as it has come; once the focuser has reported a new
 * connection (the first pairing on a fresh link) up to 12 more waits of
 * 5 s are allowed. The first Bluetooth call of a process also waits for the
 * system to report the radio's state. Calls marked "no transfer" answer
 * from what the library already knows and never wait for a focuser.
 *
 * Threads. Any thread may make any call. Calls of different kinds on one
 * USB ID run side by side (the library serialises the transfers); two of
 * the same kind wait for each other. ZORGetNum, ZOROpen and ZORClose are
 * meant for one thread. The connection-state callback is called on a
 * thread the library owns when a link is lost; the pair-state callback on
 * the thread of the call that received the pairing answer. Keep callbacks
 * short, and make no call that waits for a focuser from the
 * connection-state callback: its answer would have to arrive on that very
 * thread.
 */
#ifndef ZOR_FOCUSER_H
#define ZOR_FOCUSER_H

#include <stdbool.h>
#include <stdint.h>

#if defined(ZOR_BUILDING_LIBRARY)
#define ZOR_API __attribute__((visibility("default")))
#else
#define ZOR_API
#endif

/* The USB vendor ID is set per deployment (CMake cache variable ZOR_VENDOR_ID). */
#define ZOR_VENDOR_ID 0x1209
#define ZOR_PRODUCT_ID 0x1F10
#define ZOR_SDK_VERSION "1, 7, 7, 0"

#define ZOR_BLE_ID_BASE 50
#define ZOR_MAX_NUM 128

/* Bytes of a device reply that ZORSendCMD writes into pOut: report ID 0x01,
 * the marks 7E 5A, the echoed command and the data. */
#define ZOR_REPLY_BYTES 17

/* What the calls that report a status return. The values are fixed. */
typedef enum _ZOR_ERROR_CODE {
    /* The call succeeded. */
    ZOR_SUCCESS = 0,
    /* No focuser at that enumeration index, or a capability index outside 0..8. */
    ZOR_ERROR_INVALID_INDEX = 1,
    /* No focuser has this ID, or the ID is outside 0..127. */
    ZOR_ERROR_INVALID_ID = 2,
    /* An argument is out of range or a pointer is null; or an answer was too short to read. */
    ZOR_ERROR_INVALID_VALUE = 3,
    /* The USB focuser is gone (unplugged), or could not be opened (permissions). */
    ZOR_ERROR_REMOVED = 4,
    /* Refused because the focuser is moving. */
    ZOR_ERROR_MOVING = 5,
    /* The focuser did not enter USB firmware-update mode. */
    ZOR_ERROR_ERROR_STATE = 6,
    /* A USB transfer failed, or the focuser sent an invalid reading. */
    ZOR_ERROR_GENERAL_ERROR = 7,
    /* This focuser's model or firmware lacks the feature. */
    ZOR_ERROR_NOT_SUPPORTED = 8,
    /* The USB focuser was found but is not open; or the object at the ID has no Bluetooth link. */
    ZOR_ERROR_CLOSED = 9,
    /* The battery reading is invalid; the record is filled with -1. */
    ZOR_ERROR_BATTERY_DATA = 10,
    /* A reply or a firmware chunk has the wrong length. */
    ZOR_ERROR_BAD_DATA = 11,
    /* The focuser's Bluetooth answer reported a failure or could not be decoded. */
    ZOR_ERROR_BLE_RESPONSE = 50,
    /* Writing the request to the Bluetooth link failed. */
    ZOR_ERROR_BLE_SEND = 51,
    /* The Bluetooth connection could not be made (or no ID is left). */
    ZOR_ERROR_BLE_CONNECT_FAILED = 52,
    /* No Bluetooth focuser is connected at this ID (never connected, link lost or taken over). */
    ZOR_ERROR_BLE_NOT_CONNECTED = 53,
    /* Pairing failed. */
    ZOR_ERROR_BLE_PAIR_FAILED = 54,
    /* Clearing the pairing failed. */
    ZOR_ERROR_BLE_CLEAR_PAIR_FAILED = 55,
    /* The focuser rejected the pairing (given to the pair-state callback). */
    ZOR_ERROR_BLE_PAIR_REJECTED = 56,
    /* No Bluetooth answer came within the wait limits. */
    ZOR_ERROR_BLE_TIMEOUT = 57,
    /* Bluetooth cannot be used on this computer (no adapter, or it is off). */
    ZOR_ERROR_BLE_UNAVAILABLE = 58,
    /* A null callback was passed for registration. */
    ZOR_ERROR_INVALID_CALLBACK = 59,
    /* Never returned; given to the pair-state callback when the focuser reports a new connection. */
    ZOR_ERROR_BLE_NEW_CONNECTION = 60,
    /* The focuser acknowledged a different byte count for a Bluetooth firmware chunk. */
    ZOR_ERROR_BLE_UPDATE_ACK = 62
} ZOR_ERROR_CODE;

typedef enum _ZOR_CONTROL_TYPE {
    ZOR_CONTROL_BLE = 0,
    ZOR_CONTROL_LED = 1,
    ZOR_CONTROL_BUZZER = 2,
    ZOR_CONTROL_MODEL = 3,
    ZOR_CONTROL_BATTERY = 4,
    ZOR_CONTROL_ERR_CODE = 5,
    ZOR_CONTROL_BLE_UPDATE = 6,
    ZOR_CONTROL_USB_UPDATE = 7
} ZOR_CONTROL_TYPE;

/* Pairing news of a Bluetooth focuser: 0 when it accepted the pairing, 56
 * when it rejected it, 60 when it reports a new connection (a pairing
 * answer follows). Called on the thread of the call whose exchange received
 * the news (ZORBLEPair, usually), before that call returns. */
typedef void (*ZORPairStateCallback)(ZOR_ERROR_CODE code);
/* The Bluetooth link went down (false) or came up (true). false comes when
 * the link is lost, on a library-owned thread (the Bluetooth event thread),
 * or when a later ZORBLEConnect takes the link over, on that call's thread;
 * ZORBLEDisconnect does not call it. See "Threads" above. */
typedef void (*ZORConnStateCallback)(bool connected);

typedef struct _ZOR_INFO {
    int32_t ID;
    char Name[64];   /* "ZOR", or "ZOR(alias)" */
    int32_t MaxStep; /* 60000 when the device does not answer */
} ZOR_INFO;

typedef struct _ZOR_ID {
    unsigned char id[8];
} ZOR_ID;
typedef ZOR_ID ZOR_SN;

typedef struct _ZOR_TYPE {
    char Type[16]; /* "ZOR Pro" or "ZORN" */
} ZOR_TYPE;

typedef struct _ZOR_ERROR_MSG {
    char MotorErrorCode[3];
    char BatteryErrorCode[3];
} ZOR_ERROR_MSG;

/* All eight fields are -1 when the reading is invalid. */
typedef struct _ZOR_BATTERY_INFO {
    int32_t battery_temp; /* whole degrees Celsius, valid -40 to 87 */
    int32_t battery_vol;
    int32_t battery_charge_curr;
    int32_t battery_percentage;
    int32_t battery_discharge_curr;
    int32_t battery_health;
    int32_t battery_charge_vol;
    int32_t Reserved;
} ZOR_BATTERY_INFO;

typedef struct _ZOR_CONTROL_CAPS {
    char Name[32];
    char Description[128];
    bool IsSupported;
    bool IsWritable;
    int32_t Reserved[3];
    int32_t ControlType; /* a ZOR_CONTROL_TYPE */
    char Unused[32];
} ZOR_CONTROL_CAPS;

typedef struct _ZOR_ALL_INFO {
    int32_t IsMoving;
    int32_t Backlash;
    int32_t Position;
    float Temperature;
    int32_t Beep;
    int32_t Reverse;
    int32_t HandControlMoving;
    int32_t HandController;
    int32_t MaxStep;
    int32_t LedState;
    unsigned char StatusBytes[4];
    ZOR_BATTERY_INFO Battery;
} ZOR_ALL_INFO;

typedef struct _BLE_DEVICE_INFO {
    char Name[64];
    char Address[64];
    int32_t RSSI;
    int64_t BluetoothAddress;
} BLE_DEVICE_INFO;

typedef struct _ZOR_HID_FILE_BUF {
    int32_t Length; /* 1 to 55 */
    unsigned char Data[60];
} ZOR_HID_FILE_BUF;

typedef struct _ZOR_BLE_FILE_BUF {
    int32_t Length;
    unsigned char Data[480];
} ZOR_BLE_FILE_BUF;

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Version, product and debug hook. No transfer; these never fail.
 * ------------------------------------------------------------------------ */

/* The SDK version, ZOR_SDK_VERSION ("1, 7, 7, 0"): a constant string the
 * caller must not free. */
ZOR_API const char *ZORGetSDKVersion(void);
/* Writes ZOR_PRODUCT_ID into pPIDs[0] unless pPIDs is null. Returns the
 * number of product IDs (1), not a result code: pass null first to learn
 * how large an array to pass. */
ZOR_API int ZORGetProductIDs(int *pPIDs);
/* 1 when iVID is ZOR_VENDOR_ID and iPID is ZOR_PRODUCT_ID, else 0. */
ZOR_API int ZORCheck(int iVID, int iPID);
/* The library's debug-print hook: func is the calling function's name, fmt
 * a printf format. Discards everything; the library calls it with its
 * failure messages. */
ZOR_API void ZORDbgPrint(const char *func, const char *fmt, ...);

/* ------------------------------------------------------------------------
 * Enumeration, open and close (USB)
 * ------------------------------------------------------------------------ */

/* Looks for the USB focusers plugged in and returns how many were found (a
 * count, not a result code). A focuser keeps its ID while it stays plugged
 * in; a new one takes the lowest free ID. IDs stay below 50: a fifty-first
 * focuser is not counted until an ID is free. An open focuser that is no
 * longer found is closed (ZORClose). Blocks for the USB enumeration only. */
ZOR_API int ZORGetNum(void);
/* Writes the ID of the index-th focuser of the last ZORGetNum into *ID.
 * index: 0 to ZORGetNum() - 1. No transfer.
 * Returns 0; 1 when index is outside that range (*ID untouched) or its
 * focuser has no ID (*ID is -1); 3 when ID is null. */
ZOR_API ZOR_ERROR_CODE ZORGetID(int index, int *ID);
/* Fills *pInfo: ID, Name "ZOR" or "ZOR(<alias>)", and MaxStep, the step
 * range (60000 when the focuser does not answer). A USB focuser that is not
 * open is opened for the call and closed again (see ZOROpen, ZORClose).
 * Returns 0, also when a USB focuser could not be opened (then only ID and
 * Name "ZOR" are filled); 2 for a USB ID without a focuser or an ID beyond
 * 127; 53 for a Bluetooth ID without a connected focuser; 3 when pInfo is
 * null. Blocks for the alias query. */
ZOR_API ZOR_ERROR_CODE ZORGetProperty(int ID, ZOR_INFO *pInfo);
/* Opens the USB focuser with this ID: reads its firmware version and
 * status. A focuser that reports the unset position 30000 (it lost power)
 * gets the settings saved when it was last closed (position, backlash,
 * beep, maximum step, reverse) from ~/.KVO/ZORconfig.xml: its own, when the
 * file holds a key for its serial number (which is then read), else the
 * shared ones. Opening an open focuser does nothing and returns 0.
 * Returns 0; 2 when no focuser was found at the ID (call ZORGetNum first);
 * 4 when the device cannot be opened (unplugged, or this user lacks the
 * permission: see the udev rule); 7 when the ID's locks cannot be made.
 * Blocks for a few USB exchanges and the settings file. */
ZOR_API ZOR_ERROR_CODE ZOROpen(int ID);
/* Closes the USB focuser: waits until the calls in progress on this ID
 * have returned (calls waiting to start then get 9), stops a running move,
 * and saves its settings (the shared values, and under its own key when its
 * serial number was read while it was open: by ZORGetSerialNumber, or by
 * ZOROpen). Closing a focuser that is not open does nothing.
 * Returns 0; 2 when no focuser was found at the ID. */
ZOR_API ZOR_ERROR_CODE ZORClose(int ID);

/* ------------------------------------------------------------------------
 * Motion and parameters: both links. Positions are in motor steps, 0 to
 * the step range (ZORStepRange). "Refused while moving" means 5 while the
 * last status read, or a move this library started, shows the motor
 * running: poll ZORIsMoving, or call ZORStop.
 * ------------------------------------------------------------------------ */

/* Starts a move to the absolute position iStep (clamped to 0..step range)
 * and returns once it has started: 200 ms after the request went out. Poll
 * ZORIsMoving or ZORGetPosition to follow it. Refused while moving (5). */
ZOR_API ZOR_ERROR_CODE ZORMove(int ID, int iStep);
/* Stops the motor: reads the status, then sends the stop. Blocks for two
 * exchanges. */
ZOR_API ZOR_ERROR_CODE ZORStop(int ID);
/* *pbVal: true while the motor runs, commanded or by the hand controller.
 * *pbHandControl (may be null): true while the hand controller moves it.
 * One status exchange. 3 when pbVal is null. */
ZOR_API ZOR_ERROR_CODE ZORIsMoving(int ID, bool *pbVal, bool *pbHandControl);
/* *piStep: the current position in steps. One status exchange.
 * Over Bluetooth a status exchange that fails leaves the values of the last
 * one read and still returns 0; this holds for every status query
 * (ZORIsMoving, ZORGetPosition, ZORGetTemp, the ZORGet... of the settings
 * below). */
ZOR_API ZOR_ERROR_CODE ZORGetPosition(int ID, int *piStep);
/* Declares the current position to be iStep (clamped to 0..step range)
 * without moving the motor. Refused while moving (5). */
ZOR_API ZOR_ERROR_CODE ZORResetPostion(int ID, int iStep);
/* *pfTemp: the probe's temperature in degrees Celsius. One status exchange.
 * 7 when the reading is invalid (no probe): *pfTemp then holds the last
 * valid reading. */
ZOR_API ZOR_ERROR_CODE ZORGetTemp(int ID, float *pfTemp);
/* Switches the buzzer on (true) or off. Refused while moving (5). */
ZOR_API ZOR_ERROR_CODE ZORSetBeep(int ID, bool bVal);
/* *pbVal: true when the buzzer is on. One status exchange. */
ZOR_API ZOR_ERROR_CODE ZORGetBeep(int ID, bool *pbVal);
/* Sets the largest position the focuser may move to, in steps (clamped to
 * 0..step range). Refused while moving (5). */
ZOR_API ZOR_ERROR_CODE ZORSetMaxStep(int ID, int iVal);
/* *piVal: the largest position the focuser may move to. One status exchange. */
ZOR_API ZOR_ERROR_CODE ZORGetMaxStep(int ID, int *piVal);
/* *piVal: the step range, the largest position the firmware takes: 60000
 * (firmware up to 3.3.5) or 600000. No transfer. */
ZOR_API ZOR_ERROR_CODE ZORStepRange(int ID, int *piVal);
/* Sets the backlash compensation, 0 to 255 steps (else 3). Refused while
 * moving (5). */
ZOR_API ZOR_ERROR_CODE ZORSetBacklash(int ID, int iVal);
/* *piVal: the backlash in steps. One status exchange. */
ZOR_API ZOR_ERROR_CODE ZORGetBacklash(int ID, int *piVal);
/* Reverses the direction of motion (true) or not. Refused while moving (5). */
ZOR_API ZOR_ERROR_CODE ZORSetReverse(int ID, bool bVal);
/* *pbVal: true when the direction is reversed. One status exchange. */
ZOR_API ZOR_ERROR_CODE ZORGetReverse(int ID, bool *pbVal);

/* ------------------------------------------------------------------------
 * Identity, features and status: both links unless marked USB only.
 * ------------------------------------------------------------------------ */

/* The firmware version, e.g. 3.8.2 as 3, 8, 2. One exchange. 3 when a
 * pointer is null; 11 when the answer is too short. */
ZOR_API ZOR_ERROR_CODE ZORGetFirmwareVersion(int ID, unsigned char *major, unsigned char *minor,
                                             unsigned char *build);
/* The 8-byte serial number. Over USB it also names the focuser's own
 * settings key, used when it is closed (see ZORClose). One exchange.
 * 8 for firmware before 3.2.2. */
ZOR_API ZOR_ERROR_CODE ZORGetSerialNumber(int ID, ZOR_SN *pSN);
/* Writes the alias, up to 8 characters (shown by ZORGetProperty). One
 * exchange. 8 for firmware before 3.2.2. */
ZOR_API ZOR_ERROR_CODE ZORSetID(int ID, ZOR_ID alias);
/* Reads the battery record (ZOR Pro). One exchange. 8 on models without a
 * model text (before the ZOR Pro and ZORN); 10 when the reading is invalid
 * (every field is then -1); 11 when the answer is too short. */
ZOR_API ZOR_ERROR_CODE ZORGetBatteryInfo(int ID, ZOR_BATTERY_INFO *pInfo);
/* The model name, "ZOR Pro" or "ZORN"; empty when the firmware reports
 * none (older models). One exchange. */
ZOR_API ZOR_ERROR_CODE ZORGetType(int ID, ZOR_TYPE *pType);
/* USB only (IDs 0 to 127). The Bluetooth name as the focuser advertises
 * it, "<model>_<name>", into pName, a buffer of at least 16 bytes (NUL
 * included); left as it was when no name is set, all zero when the query
 * failed. One exchange. 8 for firmware before 3.2.2. */
ZOR_API ZOR_ERROR_CODE ZORGetBLEName(int ID, char *pName);
/* Sets the Bluetooth name: pName, NUL-terminated, at most 11 bytes (else
 * 3). One request, no answer awaited. 8 for firmware before 3.2.2. */
ZOR_API ZOR_ERROR_CODE ZORSetBLEName(int ID, char *pName);
/* Puts the focuser into shipping mode: it switches off and stays off on
 * its battery. One request, no answer awaited. 8 on models without a model
 * text. */
ZOR_API ZOR_ERROR_CODE ZORSetShippingMode(int ID);
/* *pbVal: true when the LED is on. One exchange. 8 on models without a
 * model text. */
ZOR_API ZOR_ERROR_CODE ZORGetLedState(int ID, bool *pbVal);
/* Switches the LED on (true) or off. One request, no answer awaited. 8 on
 * models without a model text. */
ZOR_API ZOR_ERROR_CODE ZORSetLedState(int ID, bool bVal);
/* *piNum: how many capabilities ZORGetControlCaps lists for this model and
 * firmware. No transfer. */
ZOR_API ZOR_ERROR_CODE ZORGetNumOfControls(int ID, int *piNum);
/* Fills *pCaps with capability iIndex, 0 to ZORGetNumOfControls() - 1
 * (ZORGetNumOfControls must have been called first). No transfer. 1 when
 * iIndex is outside 0..8 or pCaps is null. */
ZOR_API ZOR_ERROR_CODE ZORGetControlCaps(int ID, int iIndex, ZOR_CONTROL_CAPS *pCaps);
/* The motor and battery error codes as text (for example "E0", "E5"). One
 * exchange. 8 on models without a model text; 11 when the answer is too
 * short. */
ZOR_API ZOR_ERROR_CODE ZORGetErrorCode(int ID, ZOR_ERROR_MSG *pMsg);
/* *piReason: why the focuser last switched off: 0 normally, any other
 * value shipping mode. One exchange. 11 when the answer is too short. */
ZOR_API ZOR_ERROR_CODE ZORGetReason(int ID, int *piReason);

/* ------------------------------------------------------------------------
 * Bluetooth LE. No call here takes a lock of the USB IDs.
 * ------------------------------------------------------------------------ */

/* Scans for iScanTime milliseconds (0 or more) and fills up to iMax
 * entries of pList with the named peripherals seen, in the order first
 * seen; *piFound gets the number filled. No ID is involved and nothing
 * stays connected. Blocks for the scan time.
 * Returns 0; 58 when Bluetooth cannot be used (no adapter, or it is off);
 * 3 when piFound is null, iScanTime or iMax is negative, or pList is null
 * with iMax above 0. */
ZOR_API ZOR_ERROR_CODE ZORBLEScan(int iScanTime, BLE_DEVICE_INFO *pList, int iMax, int *piFound);
/* Connects to the peripheral named pName (as the scan listed it; pAddress
 * is the address the scan gave) and writes its new ID into *ID: 50 for the
 * first, then one more each, taken back by ZORBLEDisconnect. The transport
 * has one current peripheral: connecting ends the session of the ID
 * connected before, whose calls then answer 53. Blocks until the link is
 * ready: at most 10 s for the connection, then the focuser's 2 s settling
 * time. Pair next (ZORBLEPair).
 * Returns 0; 52 when the connection could not be made (the ID is not
 * used), or when no ID below 128 is left; 3 when ID is null. */
ZOR_API ZOR_ERROR_CODE ZORBLEConnect(const char *pName, const char *pAddress, int *ID);
/* Ends the Bluetooth session of this ID and frees it: stops a running move,
 * disconnects (both have reached the link when it returns), and waits until
 * the calls in progress on the ID have returned. After a lost link or a
 * takeover nothing is sent, and it succeeds as well. IDs are taken back as
 * a stack: disconnect in the reverse order of connecting.
 * Returns 0; 2 when no focuser is connected at the ID or the ID is beyond
 * 127; 9 when the object at the ID has no Bluetooth link (pass only IDs
 * from ZORBLEConnect). */
ZOR_API ZOR_ERROR_CODE ZORBLEDisconnect(int ID);
/* Pairs with the connected focuser (it learns this computer's Bluetooth
 * address), then reads its firmware and status so that the feature calls
 * work. The focuser may report a new connection first (60 to the
 * pair-state callback), which lets the wait run up to 65 s; acceptance or
 * rejection also goes to the pair-state callback.
 * Returns 0; 54 when pairing failed or was rejected (the link is then
 * dropped); 53 when no focuser is connected at the ID; 2 beyond 127. */
ZOR_API ZOR_ERROR_CODE ZORBLEPair(int ID);
/* Makes the focuser forget this computer's pairing. One exchange.
 * Returns 0; 55 when it failed; 53 when no focuser is connected at the ID;
 * 2 beyond 127. */
ZOR_API ZOR_ERROR_CODE ZORBLEClearPair(int ID);
/* Registers the pair-state callback of this ID (replacing the previous
 * one). No transfer. Returns 0; 59 when cb is null; 2 when no focuser is
 * connected at the ID or it is beyond 127; 9 when the object at the ID has
 * no Bluetooth link. */
ZOR_API ZOR_ERROR_CODE ZORBLERegPairStateCallback(int ID, ZORPairStateCallback cb);
/* Registers the connection-state callback of this ID (replacing the
 * previous one). The library watches the link whether or not one is
 * registered. No transfer. Results as ZORBLERegPairStateCallback. */
ZOR_API ZOR_ERROR_CODE ZORBLERegConnStateCallback(int ID, ZORConnStateCallback cb);
/* Writes iLen bytes of pData to the link as they are (no framing; iCmd is
 * not used) and, with bRead, waits up to 5 s for the next answer and copies
 * it into pOut, which must hold iLen bytes (a longer answer is not copied).
 * The exchange's own result is not reported: returns 0 once the request
 * was handed on; 2 when no object is at the ID or the ID is beyond 127; 3
 * when iLen is negative, pData is null with iLen above 0, or pOut is null
 * with bRead. */
ZOR_API ZOR_ERROR_CODE ZORBLESendData(int ID, int iCmd, char *pData, int iLen, bool bRead, char *pOut);
/* Reads position, motion, settings, temperature, LED and battery in one
 * exchange into *pInfo (cleared first). Bluetooth IDs only.
 * Returns 0 (an invalid battery reading fills the battery record with -1);
 * 2 for an ID below 50 or beyond 127; 53 when no focuser is connected at
 * the ID; 8 for firmware without this query; 3 when pInfo is null or the
 * answer was too short; 51, 57 or 50 when the exchange failed. */
ZOR_API ZOR_ERROR_CODE ZORBLEgetAllInfo(int ID, ZOR_ALL_INFO *pInfo);

/* ------------------------------------------------------------------------
 * Firmware update. Over Bluetooth: ZORBLEStartUpdate, then the image in
 * chunks with ZORBLEWriteUpdateFile. Over USB: ZORHidStartUpdate, the image
 * in chunks with ZORHidWriteUpdateFile, ZORHidEndUpdate.
 * ------------------------------------------------------------------------ */

/* Announces a Bluetooth update of iArg bytes (the image's size). One
 * exchange. Bluetooth IDs only: 2 below 50 or beyond 127; 53 when no
 * focuser is connected at the ID; 8 when its firmware cannot be updated
 * over Bluetooth. */
ZOR_API ZOR_ERROR_CODE ZORBLEStartUpdate(int ID, int iArg);
/* Sends one chunk (buf.Length bytes, 0 to 480) and checks the byte count
 * the focuser acknowledges. One exchange. Results as ZORBLEStartUpdate,
 * and 3 when buf.Length is outside 0..480; 11 when the acknowledgement is
 * too short; 62 when it names another count. */
ZOR_API ZOR_ERROR_CODE ZORBLEWriteUpdateFile(int ID, ZOR_BLE_FILE_BUF buf);
/* USB only (IDs 0 to 127). Puts the focuser into update mode. One
 * exchange. 8 for firmware before 3.7.0; 6 when the focuser did not enter
 * update mode (it refuses while moving). */
ZOR_API ZOR_ERROR_CODE ZORHidStartUpdate(int ID);
/* USB only. Sends one chunk of buf.Length bytes, 1 to 55 (else 11): one
 * report, or several on 16-byte reports. No answer is awaited. */
ZOR_API ZOR_ERROR_CODE ZORHidWriteUpdateFile(int ID, ZOR_HID_FILE_BUF buf);
/* USB only. Ends the update; the focuser restarts into the new image and
 * leaves the bus, so close it and enumerate again. Returns 0 when it
 * restarted; 12 (no ZOR_ERROR_CODE) when it answered the end request
 * instead, which means the update did not take. */
ZOR_API ZOR_ERROR_CODE ZORHidEndUpdate(int ID);

#ifdef __cplusplus
} /* extern "C" */

/* C++ linkage: these symbols carry their argument types in their names. */

/* The SDK version, as ZORGetSDKVersion. */
ZOR_API const char *get_ZOR_SDK_Ver();
/* Sets the motor's maximum force, 0 to 15 (else 3). Both links. Refused
 * while moving (5). */
ZOR_API ZOR_ERROR_CODE ZORSetMaxForce(int ID, int iVal);
/* *piVal: the maximum force, 0 to 15. One status exchange. Both links. */
ZOR_API ZOR_ERROR_CODE ZORGetMaxForce(int ID, int *piVal);
/* *piVal: the speed word of firmware before 3.3.6; 0 on later firmware,
 * which has none. One status exchange. Both links. */
ZOR_API ZOR_ERROR_CODE ZORGetSpeed(int ID, int *piVal);
/* USB only (IDs 0 to 127). Sets the speed word of firmware before 3.3.6
 * (its low 16 bits are sent; later firmware ignores it). Refused while
 * moving (5). */
ZOR_API ZOR_ERROR_CODE ZORSetSpeed(int ID, int iVal);
/* USB only (IDs 0 to 127). Sends iLen bytes of pCmd (1 or more; the report
 * ID 0x03 first; cut to the report size) as one request. With bRead and a
 * pOut, the reply is read into pOut, which must hold ZOR_REPLY_BYTES bytes;
 * nothing is written past them. Without bRead, or with a null pOut, only
 * the request is sent and its result returned. One exchange.
 * 3 when pCmd is null or iLen is below 1. */
ZOR_API ZOR_ERROR_CODE ZORSendCMD(int ID, unsigned char *pCmd, int iLen, bool bRead, unsigned char *pOut);
/* USB only (IDs 0 to 127). Stores a repeat count in the focuser's object,
 * kept for compatibility; nothing uses it. No transfer: 0, or 2 / 9. */
ZOR_API ZOR_ERROR_CODE ZORSetRepeatTime(int ID, int iVal);
/* USB only (IDs 0 to 127). With true, every USB status read that finds the
 * motor in its error state also sends the request that clears it. No
 * transfer: 0, or 2 / 9. */
ZOR_API ZOR_ERROR_CODE ZORSetClearErr(int ID, bool bVal);
#endif

#endif /* ZOR_FOCUSER_H */
