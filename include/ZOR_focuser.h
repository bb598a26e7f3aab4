/*
 * ZOR focuser SDK: the public interface.
 *
 * Every call names a focuser by an integer ID (0-49 USB, 50 and up Bluetooth
 * LE) and returns a ZOR_ERROR_CODE. Records are plain structures with natural
 * alignment, filled into memory the caller owns; the library never hands out
 * memory the caller must free.
 *
 * Usable from C99 and C++. A few functions carry C++ (type-encoded) symbol
 * names; they are declared only when this header is compiled as C++.
 *
 * Caller mistakes are answered with ZOR_ERROR_INVALID_VALUE (3) and send
 * nothing to the device: a null pointer where a call reads or writes a
 * record or buffer, a negative length, a backlash outside 0..255 or a
 * maximum force outside 0..15. Positions and the maximum step are clamped to
 * the device's step range instead. ZORGetControlCaps answers a null record,
 * like an index above 8, with ZOR_ERROR_INVALID_INDEX (1).
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

typedef enum _ZOR_ERROR_CODE {
    ZOR_SUCCESS = 0,
    ZOR_ERROR_INVALID_INDEX = 1,
    ZOR_ERROR_INVALID_ID = 2,
    ZOR_ERROR_INVALID_VALUE = 3,
    ZOR_ERROR_REMOVED = 4,
    ZOR_ERROR_MOVING = 5,
    ZOR_ERROR_ERROR_STATE = 6,
    ZOR_ERROR_GENERAL_ERROR = 7,
    ZOR_ERROR_NOT_SUPPORTED = 8,
    ZOR_ERROR_CLOSED = 9,
    ZOR_ERROR_BATTERY_DATA = 10,
    ZOR_ERROR_BAD_DATA = 11,
    ZOR_ERROR_BLE_RESPONSE = 50,
    ZOR_ERROR_BLE_SEND = 51,
    ZOR_ERROR_BLE_CONNECT_FAILED = 52,
    ZOR_ERROR_BLE_NOT_CONNECTED = 53,
    ZOR_ERROR_BLE_PAIR_FAILED = 54,
    ZOR_ERROR_BLE_CLEAR_PAIR_FAILED = 55,
    ZOR_ERROR_BLE_PAIR_REJECTED = 56,
    ZOR_ERROR_BLE_TIMEOUT = 57,
    ZOR_ERROR_BLE_UNAVAILABLE = 58,
    ZOR_ERROR_INVALID_CALLBACK = 59,
    ZOR_ERROR_BLE_NEW_CONNECTION = 60,
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

/* 0 = paired, otherwise the failure code (for example 56). */
typedef void (*ZORPairStateCallback)(ZOR_ERROR_CODE code);
/* true = connected, false = disconnected. */
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

/* Version, product and debug hook */
ZOR_API const char *ZORGetSDKVersion(void);
ZOR_API int ZORGetProductIDs(int *pPIDs);
ZOR_API int ZORCheck(int iVID, int iPID);
ZOR_API void ZORDbgPrint(const char *func, const char *fmt, ...);

/* Enumeration, open and close */
/* USB focusers get IDs 0-49; one found beyond fifty is not counted until an ID is free. */
ZOR_API int ZORGetNum(void);
ZOR_API ZOR_ERROR_CODE ZORGetID(int index, int *ID);
ZOR_API ZOR_ERROR_CODE ZORGetProperty(int ID, ZOR_INFO *pInfo);
ZOR_API ZOR_ERROR_CODE ZOROpen(int ID);
ZOR_API ZOR_ERROR_CODE ZORClose(int ID);

/* Motion and parameters */
ZOR_API ZOR_ERROR_CODE ZORMove(int ID, int iStep);
ZOR_API ZOR_ERROR_CODE ZORStop(int ID);
ZOR_API ZOR_ERROR_CODE ZORIsMoving(int ID, bool *pbVal, bool *pbHandControl);
ZOR_API ZOR_ERROR_CODE ZORGetPosition(int ID, int *piStep);
ZOR_API ZOR_ERROR_CODE ZORResetPostion(int ID, int iStep);
ZOR_API ZOR_ERROR_CODE ZORGetTemp(int ID, float *pfTemp);
ZOR_API ZOR_ERROR_CODE ZORSetBeep(int ID, bool bVal);
ZOR_API ZOR_ERROR_CODE ZORGetBeep(int ID, bool *pbVal);
ZOR_API ZOR_ERROR_CODE ZORSetMaxStep(int ID, int iVal);
ZOR_API ZOR_ERROR_CODE ZORGetMaxStep(int ID, int *piVal);
ZOR_API ZOR_ERROR_CODE ZORStepRange(int ID, int *piVal);
ZOR_API ZOR_ERROR_CODE ZORSetBacklash(int ID, int iVal);
ZOR_API ZOR_ERROR_CODE ZORGetBacklash(int ID, int *piVal);
ZOR_API ZOR_ERROR_CODE ZORSetReverse(int ID, bool bVal);
ZOR_API ZOR_ERROR_CODE ZORGetReverse(int ID, bool *pbVal);

/* Identity, features and status */
ZOR_API ZOR_ERROR_CODE ZORGetFirmwareVersion(int ID, unsigned char *major, unsigned char *minor,
                                             unsigned char *build);
ZOR_API ZOR_ERROR_CODE ZORGetSerialNumber(int ID, ZOR_SN *pSN);
ZOR_API ZOR_ERROR_CODE ZORSetID(int ID, ZOR_ID alias);
ZOR_API ZOR_ERROR_CODE ZORGetBatteryInfo(int ID, ZOR_BATTERY_INFO *pInfo);
ZOR_API ZOR_ERROR_CODE ZORGetType(int ID, ZOR_TYPE *pType);
/* pName: a buffer of at least 16 bytes; it receives "<model>_<name>". */
ZOR_API ZOR_ERROR_CODE ZORGetBLEName(int ID, char *pName);
/* pName: a NUL-terminated name of at most 11 bytes. */
ZOR_API ZOR_ERROR_CODE ZORSetBLEName(int ID, char *pName);
ZOR_API ZOR_ERROR_CODE ZORSetShippingMode(int ID);
ZOR_API ZOR_ERROR_CODE ZORGetLedState(int ID, bool *pbVal);
ZOR_API ZOR_ERROR_CODE ZORSetLedState(int ID, bool bVal);
ZOR_API ZOR_ERROR_CODE ZORGetNumOfControls(int ID, int *piNum);
ZOR_API ZOR_ERROR_CODE ZORGetControlCaps(int ID, int iIndex, ZOR_CONTROL_CAPS *pCaps);
ZOR_API ZOR_ERROR_CODE ZORGetErrorCode(int ID, ZOR_ERROR_MSG *pMsg);
ZOR_API ZOR_ERROR_CODE ZORGetReason(int ID, int *piReason);

/* Bluetooth LE */
ZOR_API ZOR_ERROR_CODE ZORBLEScan(int iScanTime, BLE_DEVICE_INFO *pList, int iMax, int *piFound);
ZOR_API ZOR_ERROR_CODE ZORBLEConnect(const char *pName, const char *pAddress, int *ID);
ZOR_API ZOR_ERROR_CODE ZORBLEDisconnect(int ID);
ZOR_API ZOR_ERROR_CODE ZORBLEPair(int ID);
ZOR_API ZOR_ERROR_CODE ZORBLEClearPair(int ID);
ZOR_API ZOR_ERROR_CODE ZORBLERegPairStateCallback(int ID, ZORPairStateCallback cb);
ZOR_API ZOR_ERROR_CODE ZORBLERegConnStateCallback(int ID, ZORConnStateCallback cb);
ZOR_API ZOR_ERROR_CODE ZORBLESendData(int ID, int iCmd, char *pData, int iLen, bool bRead, char *pOut);
ZOR_API ZOR_ERROR_CODE ZORBLEgetAllInfo(int ID, ZOR_ALL_INFO *pInfo);

/* Firmware update */
ZOR_API ZOR_ERROR_CODE ZORBLEStartUpdate(int ID, int iArg);
ZOR_API ZOR_ERROR_CODE ZORBLEWriteUpdateFile(int ID, ZOR_BLE_FILE_BUF buf);
ZOR_API ZOR_ERROR_CODE ZORHidStartUpdate(int ID);
ZOR_API ZOR_ERROR_CODE ZORHidWriteUpdateFile(int ID, ZOR_HID_FILE_BUF buf);
/* 0 when the device restarted into the new image; 12 when it answered the
 * end request instead, which means the update did not take. */
ZOR_API ZOR_ERROR_CODE ZORHidEndUpdate(int ID);

#ifdef __cplusplus
} /* extern "C" */

/* C++ linkage: these symbols carry their argument types in their names. */
ZOR_API const char *get_ZOR_SDK_Ver();
ZOR_API ZOR_ERROR_CODE ZORSetMaxForce(int ID, int iVal);
ZOR_API ZOR_ERROR_CODE ZORGetMaxForce(int ID, int *piVal);
ZOR_API ZOR_ERROR_CODE ZORGetSpeed(int ID, int *piVal);
ZOR_API ZOR_ERROR_CODE ZORSetSpeed(int ID, int iVal);
/* Sends iLen bytes of pCmd (1 or more; the report ID 0x03 first; cut to the
 * report size) as one request. With bRead, the reply is read into pOut,
 * which must hold ZOR_REPLY_BYTES bytes; nothing is written past them.
 * Without bRead, pOut is not used and may be null. */
ZOR_API ZOR_ERROR_CODE ZORSendCMD(int ID, unsigned char *pCmd, int iLen, bool bRead, unsigned char *pOut);
ZOR_API ZOR_ERROR_CODE ZORSetRepeatTime(int ID, int iVal);
ZOR_API ZOR_ERROR_CODE ZORSetClearErr(int ID, bool bVal);
#endif

#endif /* ZOR_FOCUSER_H */
