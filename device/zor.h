// CZOR: one focuser, reached over USB HID or Bluetooth LE. Every command has
// a HID branch and a Bluetooth branch; methods that can run over either link
// take the Bluetooth flag last (false: HID, true: Bluetooth).
#pragma once

#include "ZOR_focuser.h"
#include "ble/ble_protocol.h"

#include <hidapi.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class IBluetoothLEManager;

// Capability IDs as the public interface numbers them (ZOR_CONTROL_TYPE).
constexpr int kNumControlTypes = 8;
// Bytes of a device path, NUL included, in the path tables and in a device object.
constexpr size_t kPathBytes = 256;

class CZOR {
public:
    CZOR();
    ~CZOR();
    CZOR(const CZOR &) = delete;
    CZOR &operator=(const CZOR &) = delete;

    // Lifecycle
    bool open(char *path);
    void close();
    const char *path() const { return m_szPath.data(); }
    bool isOpen() const { return m_bOpen; }

    // HID transport
    int sendCMD(unsigned char *cmd, int len, bool needReply, unsigned char *reply);
    int handleReportErr(int result);
    void HIDUpdateStatus(bool failed);
    void HIDReconnect();

    // Status, motion and parameters
    int getParams(bool ble);
    int clearError();
    int sendControl(int iReset, bool ble);
    int SetStep(int step, bool ble);
    int stopMove(bool ble);
    int resetStep(int step, bool ble);
    int setMaxStep(int max, bool ble);
    int setBacklash(int backlash, bool ble);
    int setBeep(bool on, bool ble);
    int setReverse(bool on, bool ble);
    int setMaxForce(int force, bool ble);
    int SetSpeed(int speed);
    int saveFWConf();
    int isMoving(bool *moving, bool *byDevice, bool ble);
    int isHandControl(bool *handControl, bool ble);
    int getTemp(float *temp, bool ble);
    int getStepRange(int *range, bool ble);
    int getSpeed(int *speed, bool ble);
    int getStep(int *step, bool ble);
    int getBeep(bool *on, bool ble);
    int getReverse(bool *on, bool ble);
    int getBacklash(int *backlash, bool ble);
    int getMaxStep(int *max, bool ble);
    int getMaxForce(int *force, bool ble);
    void setRepeatTime(int repeatTime);
    void setAutoClearError(bool autoClear);

    // Identity, features and status
    int getNumOfControls(int *count, bool ble);
    int getControlCaps(int index, ZOR_CONTROL_CAPS *caps, bool ble);
    int getFwVer(unsigned char *major, unsigned char *minor, unsigned char *build, bool ble);
    int getType(ZOR_TYPE *type, bool ble);
    int getSerialNumber(unsigned char *sn, int len, bool ble);
    int setSerialNumber(unsigned char *sn, int len);
    int getAlias(unsigned char *alias, int len, bool ble);
    int setAlias(unsigned char *alias, int len, bool ble);
    int getErrorCode(ZOR_ERROR_MSG *msg, bool ble);
    int getPowerOffReason(int *reason, bool ble);
    int getBLEName(char *name, int len);
    int setBLEName(char *name, int len, bool ble);
    int setShippingMode(bool ble);
    int setLEDState(bool on, bool ble);
    int getLEDState(bool *on, bool ble);
    int getBatteryInfo(ZOR_BATTERY_INFO *info, bool ble);
    int setFactoryMode();
    int parseBatteryInfo(const unsigned char *data, size_t length, ZOR_BATTERY_INFO *info);

    // USB firmware update
    int HIDStartUpdate();
    int HIDWriteUpdateFile(ZOR_HID_FILE_BUF buf);
    int HIDEndUpdate();

    // Bluetooth exchange
    int bleSendData(BLEProtocol::CommandType type, std::vector<unsigned char> payload, bool waitForResponse,
                    std::vector<unsigned char> &response);
    int BLESendData(int type, char *input, int inputLength, bool waitForResponse, char *output);
    // Takes ownership of the transport; the Bluetooth connect path uses this too.
    void setBleManager(std::unique_ptr<IBluetoothLEManager> manager);
    void setPairStateCallback(ZORPairStateCallback callback) { m_pairStateCallback = callback; }

    // Bluetooth session
    int BLEScan(int durationMs, BLE_DEVICE_INFO *list, int maxCount, int *found);
    int BLEConnect(const char *name, const char *address);
    int BLEPair();
    int BLEClearPair();
    int BLEDisconnect();
    int BLERegPairStateCallback(ZORPairStateCallback callback);
    int BLERegConnStateCallback(ZORConnStateCallback callback);
    int BLEGetAllInfo(ZOR_ALL_INFO *info);
    // From a successful connect until its link is lost, taken over by another
    // connect, or disconnected.
    bool isBleSessionOn() const { return m_bBleConnected; }

    // Bluetooth firmware update
    int BLEStartUpdate(int size);
    int BLEWriteUpdateFile(ZOR_BLE_FILE_BUF buffer);

    // Settings kept on the host
    void InitSubKey();
    void LoadSetting();
    void SaveSetting();

private:
    static constexpr size_t kIoBufferBytes = 128;
    static constexpr unsigned char kReportIdOut = 0x03;
    static constexpr unsigned char kReportIdIn = 0x01;
    // Move state the device reports while it is in its error state.
    static constexpr unsigned char kStateError = 6;
    static constexpr uint8_t kFailuresBeforeReconnect = 4;
    static constexpr uint8_t kMaxReconnects = 3;

    float CalculTempuature();
    bool isConnected() const;
    bool isBusy() const { return m_iEnabled == 1; }
    // 2 when neither link is up, 5 while a move runs, else 0. Call with m_mutex held.
    int checkCanChange();
    // hid_error of the handle as multibyte text, at most 239 characters.
    std::string hidErrorText();
    void parseStatus();
    void storeStatusReply(const std::vector<unsigned char> &reply);
    // One CMD_DEVICE exchange.
    int bleDevice(std::vector<unsigned char> payload, bool waitForResponse, std::vector<unsigned char> &reply);
    // An answer to a query, with the byte positions of a USB reply (data from
    // byte 4), and how many bytes arrived.
    struct Reply {
        unsigned char bytes[kIoBufferBytes];
        size_t length = 0;
    };
    // One request with an answer. `request` is the USB report (ID byte
    // first); over Bluetooth it goes without the ID byte, and with
    // `checkStatus` an answer whose status byte is not 0 gives 50. An answer
    // shorter than `minLength` gives 11.
    int query(const unsigned char *request, size_t len, bool ble, bool checkStatus, Reply &reply,
              size_t minLength = 0);
    int query(unsigned char group, unsigned char code, bool ble, Reply &reply, size_t minLength = 0);
    // One request without an answer: the report over USB, the same bytes
    // without the ID byte over Bluetooth.
    int command(unsigned char *request, size_t len, bool ble);
    bool featureSupported(int id) const;
    template <typename Out, typename Member> int readParam(Out *out, const Member &member, bool ble);
    void applyFirmwareReply(const unsigned char *reply);
    // The transport, made with the factory on first use.
    IBluetoothLEManager &bleManager();
    // The host's Bluetooth address without its ':' separators.
    std::string localAddressText();
    // The rules a successful pairing applies after reading the firmware reply.
    void applyPairingRules();
    // The application ends the session: the motor is stopped if it moves,
    // the transport disconnects and the session flags fall.
    void dropBleLink();
    void endBleSession();
    // Hands the transport this object's connection-state handler.
    void watchLink();
    // The link was lost, or another connect took it over.
    void onLinkLost();

    // What the handler given to the process-wide transport (which outlives
    // this object) reaches the object through. The destructor closes it,
    // waiting for a handler running on another thread; the handler's own
    // thread may pass (a client callback that disconnects from inside).
    struct ConnectionGate {
        std::recursive_mutex mutex;
        CZOR *device;
    };
    static void onConnectionState(ConnectionGate &gate, bool connected);

    hid_device *m_hDev = nullptr;
    std::recursive_mutex m_mutex;
    int m_iOutputLen = 16;
    // Every reply is read at this size, into buffers that hold at least as much.
    static constexpr int m_iInputLen = ZOR_REPLY_BYTES;
    std::array<unsigned char, kIoBufferBytes> pszInBuf{};
    std::array<unsigned char, kIoBufferBytes> pszOutBuf{};
    std::array<char, kPathBytes> m_szPath{};
    bool m_bOpen = false;
    int m_iEnabled = 0;
    int m_iBacklash = 0;
    int m_iSpeed = 3000;
    int m_iStep = 0;
    int m_iMaxStep = 0;
    int m_iTempAdc = 0;
    bool bBeep = false;
    bool bReverse = false;
    bool m_bStatusBit2 = false;
    int m_iReserved = 0;
    int m_iRepeatTime = 3;
    bool m_bAutoClearError = false;
    bool m_bHandControl = false;
    bool m_bRawTempAdc = true;
    bool m_bFwNew = false;
    bool m_bHasModelString = false;
    uint8_t cMaxForce = 0;
    int fwVersion = 0;
    int m_iMaxStepLimit = 60000;
    float m_fTempLast = 0;
    std::mutex m_bleMutex;
    std::string m_strModel;
    // Set and cleared by the client's calls and by the transport's thread.
    std::atomic<bool> m_bBleConnected{false};
    bool m_bLedOn = true;
    // Supported flags, stored in this order (which differs from the IDs'
    // order: Battery info before ZOR Type).
    bool m_bFeatureBle = false;
    bool m_bFeatureLed = false;
    bool m_bFeatureBuzzer = false;
    bool m_bFeatureBattery = false;
    bool m_bFeatureType = false;
    bool m_bFeatureErrCode = false;
    bool m_bFeatureFwUpdate = false;
    bool m_bFeatureUsbUpdate = false;
    int m_aControlIds[64] = {};
    int64_t m_bleWord1 = 0;
    int64_t m_bleWord2 = 0;
    uint8_t m_cErrCount = 0;
    uint8_t m_cReconnectCount = 0;
    // The settings key, made on first use.
    std::array<char, kPathBytes> m_pszKeyPath{};
    // The focuser's own settings key below it, named once its serial was
    // read over USB in this session; empty until then.
    std::string m_strSettingsKey;
    float m_fTempValid = 0;
    int m_iTempMax = 250;
    int m_iTempMin = -20;
    std::unique_ptr<IBluetoothLEManager> m_pBleManager;

    // Bluetooth session: the callbacks are read on the transport's thread
    // and on the requesting thread.
    std::atomic<ZORPairStateCallback> m_pairStateCallback{nullptr};
    std::atomic<ZORConnStateCallback> m_connStateCallback{nullptr};
    std::atomic<bool> m_bBlePaired{false};
    std::atomic<bool> m_bBleSessionReady{false};
    std::shared_ptr<ConnectionGate> m_connectionGate{new ConnectionGate{{}, this}};

    friend class CZORTestAccess;
};
