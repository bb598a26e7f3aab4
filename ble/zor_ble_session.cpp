// The device object's Bluetooth session: scan, connect, pair, clear the
// pairing, disconnect, the state callbacks, and the all-status query.
#include "device/zor.h"

#include "ble_transport/ble_manager.h"
#include "support/log.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char kLogModule[] = "ZOR";

// ReceiveData's arguments right after a connect; the transport ignores them.
constexpr uint32_t kReceiveReserved1 = 3;
constexpr uint32_t kReceiveReserved2 = 0;

// Firmware thresholds of the Bluetooth features.
constexpr int kPairingFeaturesAbove = 335;
constexpr int kAllInfoFrom = 367;
constexpr int kBleUpdateFrom = 382;
constexpr int kPairedMaxStep = 600000;

// The all-status answer: r[k] is frame byte k + 1.
constexpr size_t kAllInfoMinBytes = 20;
constexpr size_t kAllInfoBatteryAt = 18;
constexpr double kLowestTemperature = -200.0;

// Copies a text into a 64-byte record field: at most 63 bytes, the 64th left
// as the caller had it. No access outside a buffer: only the text's own bytes
// are read, and the rest of the 63 is zero-filled.
template <size_t N> void copyText(char (&field)[N], const std::string &text)
{
    const size_t n = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), n);
    std::memset(field + n, 0, N - 1 - n);
}

int big24(const std::vector<unsigned char> &r, size_t at) { return (r[at] << 16) | (r[at + 1] << 8) | r[at + 2]; }

} // namespace

IBluetoothLEManager &CZOR::bleManager()
{
    if (!m_pBleManager)
        setBleManager(std::unique_ptr<IBluetoothLEManager>(IBluetoothLEManager::CreateBluetoothLEManager()));
    return *m_pBleManager;
}

std::string CZOR::localAddressText()
{
    std::string address;
    if (m_pBleManager)
        m_pBleManager->GetLocalBluetoothMacAddress(address);
    address.erase(std::remove(address.begin(), address.end(), ':'), address.end());
    return address;
}

int CZOR::BLEScan(int durationMs, BLE_DEVICE_INFO *list, int maxCount, int *found)
{
    // Caller mistakes get 3: nowhere to count, a negative time, or a list
    // that cannot be written.
    if (!found || durationMs < 0 || maxCount < 0 || (maxCount > 0 && !list))
        return ZOR_ERROR_INVALID_VALUE;
    IBluetoothLEManager &manager = bleManager();
    if (!manager.IsBluetoothLESupported()) {
        ZOR_LOG("Bluetooth device not supported. error:%d", ZOR_ERROR_BLE_UNAVAILABLE);
        return ZOR_ERROR_BLE_UNAVAILABLE;
    }
    std::vector<IBluetoothLEManager::DeviceInfo> devices;
    manager.ScanForDevices(static_cast<uint32_t>(durationMs), devices);
    const int n = std::min(static_cast<int>(devices.size()), maxCount);
    for (int i = 0; i < n; ++i) {
        const IBluetoothLEManager::DeviceInfo &d = devices[static_cast<size_t>(i)];
        copyText(list[i].Name, d.name);
        copyText(list[i].Address, d.address);
        list[i].RSSI = d.rssi;
        list[i].BluetoothAddress = d.bluetoothAddress;
        ZOR_LOG("Name: %s, Address: %s, Signal Strength: %d, Bluetooth Address: %lld", d.name.c_str(),
                d.address.c_str(), d.rssi, static_cast<long long>(d.bluetoothAddress));
    }
    *found = n;
    return ZOR_SUCCESS;
}

int CZOR::BLEConnect(const char *name, const char *address)
{
    IBluetoothLEManager &manager = bleManager();
    ZOR_LOG("++++++++++++++++++BLEConnect++++++++++++++++++");
    if (!manager.ConnectToDevice(name ? name : "", address ? address : ""))
        return ZOR_ERROR_BLE_CONNECT_FAILED;
    manager.ReceiveData(kReceiveReserved1, kReceiveReserved2);
    m_bBleConnected = true;
    // The object watches its own link from now on, whether or not the
    // application registers a callback: a lost link ends the session.
    watchLink();
    return ZOR_SUCCESS;
}

void CZOR::applyPairingRules()
{
    if (fwVersion <= kPairingFeaturesAbove)
        return;
    m_iMaxStep = kPairedMaxStep;
    m_bRawTempAdc = false;
    m_bBlePaired = true;
    m_bBleSessionReady = true;
    m_bFeatureBle = true;
    m_bFeatureLed = true;
    m_bFeatureBuzzer = true;
    m_bFeatureType = true;
    m_bFeatureBattery = true;
    m_bFeatureErrCode = true;
    m_bFeatureUsbUpdate = true;
    if (fwVersion >= kBleUpdateFrom)
        m_bFeatureFwUpdate = true;
}

int CZOR::BLEPair()
{
    ZOR_LOG("++++++++++++++++++BLEPair++++++++++++++++++");
    const std::string address = localAddressText();
    ZOR_LOG("strLocalMacAddress:%s", address.c_str());
    if (address.empty())
        return ZOR_ERROR_BLE_PAIR_FAILED;
    std::vector<unsigned char> answer;
    if (bleSendData(BLEProtocol::CMD_PAIR, {address.begin(), address.end()}, true, answer) != ZOR_SUCCESS) {
        ZOR_LOG("++++++++++++++++++BLEPair failed++++++++++++++++++");
        if (m_pBleManager)
            dropBleLink();
        return ZOR_ERROR_BLE_PAIR_FAILED;
    }
    ZOR_LOG("++++++++++++++++++ getFwVer ++++++++++++++++++");
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        // Pairing reads the firmware reply as a USB open does (model text,
        // the identity flags, the step limit), so that the calls gated on
        // them work over Bluetooth too; the pairing's own rules come on top.
        Reply reply;
        if (query(0x02, 0x04, true, reply, 7) == ZOR_SUCCESS)
            applyFirmwareReply(reply.bytes);
        applyPairingRules();
        getParams(true);
    }
    ZOR_LOG("++++++++++++++++++BLEPair success++++++++++++++++++");
    return ZOR_SUCCESS;
}

int CZOR::BLEClearPair()
{
    ZOR_LOG("++++++++++++++++++BLEClearPair++++++++++++++++++");
    const std::string address = localAddressText();
    ZOR_LOG("clear pair LocalMacAddress:%s", address.c_str());
    std::vector<unsigned char> answer;
    if (bleSendData(BLEProtocol::CMD_CLEAR_PAIR, {address.begin(), address.end()}, true, answer) != ZOR_SUCCESS) {
        ZOR_LOG("++++++++++++++++++BLEClearPair failed++++++++++++++++++");
        return ZOR_ERROR_BLE_CLEAR_PAIR_FAILED;
    }
    ZOR_LOG("++++++++++++++++++BLEClearPair success++++++++++++++++++");
    return ZOR_SUCCESS;
}

void CZOR::dropBleLink()
{
    // A session that has already ended (its link lost, or taken over by a
    // newer connect) has nothing left to stop or to disconnect: the link may
    // now be another ID's.
    if (!m_bBleConnected)
        return endBleSession();
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_iEnabled == 1)
            stopMove(true);
    }
    // The stop and the disconnect have both reached the link when this returns.
    m_pBleManager->DisconnectFromDevice();
    endBleSession();
}

void CZOR::endBleSession()
{
    m_bBlePaired = false;
    m_bBleSessionReady = false;
    m_bBleConnected = false;
}

int CZOR::BLEDisconnect()
{
    if (!m_pBleManager)
        return ZOR_ERROR_CLOSED;
    dropBleLink();
    return ZOR_SUCCESS;
}

int CZOR::BLERegPairStateCallback(ZORPairStateCallback callback)
{
    if (!m_pBleManager)
        return ZOR_ERROR_CLOSED;
    m_pairStateCallback = callback;
    ZOR_LOG("BLE pairing state callback registered.");
    return ZOR_SUCCESS;
}

int CZOR::BLERegConnStateCallback(ZORConnStateCallback callback)
{
    if (!m_pBleManager)
        return ZOR_ERROR_CLOSED;
    m_connStateCallback = callback;
    ZOR_LOG("BLE connection state callback registered.");
    watchLink();
    return ZOR_SUCCESS;
}

void CZOR::watchLink()
{
    std::shared_ptr<ConnectionGate> gate = m_connectionGate;
    m_pBleManager->ConnectStateCallbackFunc([gate](bool connected) { onConnectionState(*gate, connected); });
}

void CZOR::onConnectionState(ConnectionGate &gate, bool connected)
{
    std::lock_guard<std::recursive_mutex> lock(gate.mutex);
    if (!gate.device)
        return;
    // The session ends before the client hears of it, so that its calls
    // already answer 53 when its callback runs.
    if (!connected)
        gate.device->onLinkLost();
    if (ZORConnStateCallback callback = gate.device->m_connStateCallback) {
        callback(connected);
        ZOR_LOG("BLE connection state changed: %s", connected ? "Connected" : "Disconnected");
    }
}

void CZOR::onLinkLost()
{
    ZOR_LOG_AS("onConnectionState", "BLE disconnected, resetting flags.");
    // Nothing can reach the focuser any more, so nothing is sent: the session
    // ends (its calls answer 53 until a new connect), and a move that ran is
    // reported stopped. The lock is free soon: the transport has already
    // woken every exchange that waited on this link.
    endBleSession();
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_iEnabled = 0;
}

int CZOR::BLEGetAllInfo(ZOR_ALL_INFO *info)
{
    if (fwVersion < kAllInfoFrom)
        return ZOR_ERROR_NOT_SUPPORTED;
    if (!info)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::vector<unsigned char> r;
    const int result =
        bleSendData(BLEProtocol::CMD_EXTENDED, {0x7E, 0x5A, BLEProtocol::EXT_GET_ALL_INFO, 0x00}, true, r);
    // A failed exchange says why, rather than as an answer too short.
    if (result != ZOR_SUCCESS)
        return result;
    if (r.size() < kAllInfoMinBytes) {
        ZOR_LOG("OntputData size %d < %d", static_cast<int>(r.size()), static_cast<int>(kAllInfoMinBytes));
        return ZOR_ERROR_INVALID_VALUE;
    }
    info->IsMoving = m_iEnabled = r[4];
    info->Backlash = m_iBacklash = r[5];
    info->Position = m_iStep = big24(r, 6);
    m_iTempAdc = (r[9] << 8) | r[10];
    const double temperature = m_iTempAdc / 100.0 - 300.0;
    if (temperature >= kLowestTemperature)
        m_fTempLast = static_cast<float>(temperature);
    info->Temperature = m_fTempLast;
    const unsigned char flags = r[11];
    info->Beep = bBeep = flags & 0x01;
    info->Reverse = bReverse = (flags >> 1) & 0x01;
    info->HandControlMoving = m_bStatusBit2 = (flags >> 2) & 0x01;
    info->HandController = m_bHandControl = (flags >> 3) & 0x01;
    info->MaxStep = m_iMaxStep = big24(r, 12);
    info->LedState = m_bLedOn;
    // The record repeats the first status byte in its third place.
    const unsigned char status[] = {r[15], r[16], r[15], r[17]};
    std::memcpy(info->StatusBytes, status, sizeof status);
    parseBatteryInfo(r.data() + kAllInfoBatteryAt, r.size() - kAllInfoBatteryAt, &info->Battery);
    return result;
}
