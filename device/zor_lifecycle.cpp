// CZOR: construction, destruction, open and close, and the host-side
// settings restored at open and saved at close.
#include "device/zor.h"

#include "ble_transport/ble_manager.h"
#include "device/report_descriptor.h"
#include "device/thermistor.h"
#include "support/device_settings.h"
#include "support/log.h"

#include <cstdio>
#include <cstring>

namespace {
constexpr char kLogModule[] = "ZOR";
constexpr int kFwNewFrom = 322;
constexpr int kFwSmallRangeUpTo = 335;
constexpr int kSmallStepLimit = 60000;
constexpr int kLargeStepLimit = 600000;
} // namespace

CZOR::CZOR()
{
    hid_init();
    InitLogger();
    ZOR_LOG("CZOR pszInBuf is %p", static_cast<void *>(pszInBuf.data()));
    // The temperature bounds come from the table, both starting at -20.
    m_iTempMin = -20;
    m_iTempMax = -20;
    for (const ThermistorRow &row : kThermistorTable) {
        if (row.tempC < m_iTempMin)
            m_iTempMin = row.tempC;
        if (row.tempC > m_iTempMax)
            m_iTempMax = row.tempC;
    }
}

CZOR::~CZOR()
{
    {
        std::lock_guard<std::recursive_mutex> lock(m_connectionGate->mutex);
        m_connectionGate->device = nullptr;
    }
    m_pBleManager.reset();
    // A handle still open here (the owner skipped close) is released without
    // talking to the device.
    if (m_hDev)
        hid_close(m_hDev);
}

void CZOR::applyFirmwareReply(const unsigned char *reply)
{
    const int major = reply[4];
    const int minor = reply[5];
    const int build = reply[6];
    // Only the earliest firmware (below 4.0.0, no minor or build) reports a
    // raw thermistor ADC value.
    m_bRawTempAdc = major < 4 && minor == 0 && build == 0;
    fwVersion = major * 100 + minor * 10 + build;
    ZOR_LOG("FWVER : %d,Capabilities.OutputReportByteLength = %d.", fwVersion, m_iOutputLen);
    m_bFwNew = fwVersion >= kFwNewFrom;
    m_iMaxStepLimit = fwVersion > kFwSmallRangeUpTo ? kLargeStepLimit : kSmallStepLimit;
    if (reply[7] == 'E') {
        // A model string follows: the newer product line with its features.
        // The text ends at its NUL or at the end of the reply (no access
        // outside a buffer).
        const char *model = reinterpret_cast<const char *>(reply + 8);
        m_strModel.assign(model, strnlen(model, static_cast<size_t>(m_iInputLen) - 8));
        m_bFwNew = true;
        m_bHasModelString = true;
        m_iMaxStepLimit = kLargeStepLimit;
        m_bFeatureBle = true;
        m_bFeatureLed = true;
        m_bFeatureBattery = true;
        m_bFeatureType = true;
        m_bFeatureErrCode = true;
        m_bFeatureUsbUpdate = true;
    }
    m_bFeatureBuzzer = true;
}

bool CZOR::open(char *path)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_bOpen)
        return true;
    if (!path)
        return false;
    hid_device *dev = hid_open_path(path);
    if (!dev)
        return false;
    m_hDev = dev;
    std::snprintf(m_szPath.data(), m_szPath.size(), "%s", path);
    m_bOpen = true;

    unsigned char descriptor[kMaxReportDescriptorBytes];
    const int descriptorLen = readHidReportDescriptor(m_hDev, m_szPath.data(), descriptor, sizeof descriptor);
    const int capacity =
        descriptorLen > 0 ? focuserOutputCapacity(descriptor, static_cast<size_t>(descriptorLen)) : -1;
    if (capacity < 0)
        ZOR_LOG("Hid Get ZOR Input/Output Capacity Failed! Input/Output default value: 16/16.");
    else if (capacity != 16 && capacity != 64)
        ZOR_LOG("Hid Get ZOR Input/Output Capacity Error! Input/Output default value: 16/16.");
    else
        m_iOutputLen = capacity;

    m_bRawTempAdc = true;
    m_bFwNew = false;
    unsigned char request[] = {kReportIdOut, 0x7E, 0x5A, 0x02, 0x04};
    unsigned char reply[kIoBufferBytes] = {};
    if (sendCMD(request, sizeof request, true, reply) == ZOR_SUCCESS)
        applyFirmwareReply(reply);

    getParams(false);
    if (m_iStep == kUnsetPosition) {
        LoadSetting();
        m_iEnabled = 0;
        sendControl(1, false);
    }
    return m_bOpen;
}

void CZOR::close()
{
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (!m_bOpen && !m_hDev)
            return;
        if (m_iEnabled == 1) {
            stopMove(false);
        } else {
            m_iEnabled = 0;
            sendControl(0, false);
        }
        if (m_hDev)
            hid_close(m_hDev);
        m_hDev = nullptr;
        m_bOpen = false;
    }
    SaveSetting();
}

void CZOR::InitSubKey()
{
    if (!m_pszKeyPath[0])
        buildSettingsKeyPath(m_pszKeyPath.data(), m_pszKeyPath.size());
}

void CZOR::LoadSetting()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    InitSubKey();
    DeviceSettings settings;
    // Each focuser keeps its own settings: the serial is read here only when
    // the file holds keys of single focusers and the application has not read
    // it yet, so an ordinary open sends nothing more.
    const auto ownKeyName = [this] {
        if (m_strSettingsKey.empty()) {
            unsigned char serial[8];
            getSerialNumber(serial, sizeof serial, false);
        }
        return m_strSettingsKey;
    };
    // A maximum step never saved takes the device's step range.
    if (!loadDeviceSettings(m_pszKeyPath.data(), m_iMaxStepLimit, settings, ownKeyName))
        return;
    m_iStep = settings.position;
    m_iBacklash = settings.backlash;
    bBeep = settings.beep;
    m_iMaxStep = settings.maxStep;
    bReverse = settings.reverse;
}

void CZOR::SaveSetting()
{
    DeviceSettings settings;
    std::string ownKeyName;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        InitSubKey();
        settings.position = m_iStep;
        settings.backlash = m_iBacklash;
        settings.beep = bBeep;
        settings.maxStep = m_iMaxStep;
        settings.reverse = bReverse;
        ownKeyName = m_strSettingsKey;
    }
    saveDeviceSettings(m_pszKeyPath.data(), settings, ownKeyName);
}
