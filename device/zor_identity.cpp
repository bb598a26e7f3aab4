// CZOR's identity, feature and status queries: firmware version, model,
// serial number, alias, the capability list, error codes, LED, Bluetooth
// name, battery.
#include "device/zor.h"

#include "support/device_settings.h"
#include "support/log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {
constexpr char kLogModule[] = "ZOR";

struct CapabilityText {
    const char *name;
    const char *description;
    bool writable;
};

const CapabilityText kCapabilityTexts[kNumControlTypes] = {
    {"BLE", "Bluetooth Low Energy support changing the name", true},
    {"LED", "LED control support; 0:off/1:on", true},
    {"BUZZER", "BUZZER control support; 0:off/1:on", true},
    {"ZOR Type", "ZOR type:ZOR Pro or ZORN", false},
    {"Battery info", "Battery information support", false},
    {"ERR Code", "ERR Code: E0,E5,E6,E7,E8", false},
    {"FW Update", "BLE update firmware support", false},
    {"USB update ZOR FW", "USB update firmware support", false},
};
const CapabilityText kUnknownCapability = {"Unknown", "Unknown feature", false};
constexpr int kMaxControlIndex = 8;

constexpr unsigned char kMarkHi = 0x7E;
constexpr unsigned char kMarkLo = 0x5A;
constexpr unsigned char kGroupQuery = 0x02;
constexpr size_t kShortRequest = 16;
constexpr size_t kModelTextMax = 15;
constexpr size_t kSerialBytes = sizeof(ZOR_SN);
// A request report of 16 bytes holds 4 header bytes and at most 12 data bytes.
constexpr int kRequestDataMax = 12;

// Length of a text the caller handed in, never looking past `len` bytes
// (no access outside a buffer: it need not be terminated).
int boundedLen(const char *text, int len) { return static_cast<int>(strnlen(text, static_cast<size_t>(len))); }
} // namespace

bool CZOR::featureSupported(int id) const
{
    switch (id) {
    case ZOR_CONTROL_BLE:
        return m_bFeatureBle;
    case ZOR_CONTROL_LED:
        return m_bFeatureLed;
    case ZOR_CONTROL_BUZZER:
        return m_bFeatureBuzzer;
    case ZOR_CONTROL_MODEL:
        return m_bFeatureType;
    case ZOR_CONTROL_BATTERY:
        return m_bFeatureBattery;
    case ZOR_CONTROL_ERR_CODE:
        return m_bFeatureErrCode;
    case ZOR_CONTROL_BLE_UPDATE:
        return m_bFeatureFwUpdate;
    case ZOR_CONTROL_USB_UPDATE:
        return m_bFeatureUsbUpdate;
    default:
        return false;
    }
}

int CZOR::query(const unsigned char *request, size_t len, bool ble, bool checkStatus, Reply &reply,
                size_t minLength)
{
    std::memset(reply.bytes, 0, sizeof reply.bytes);
    reply.length = 0;
    if (!ble) {
        const int result = sendCMD(const_cast<unsigned char *>(request), static_cast<int>(len), true, reply.bytes);
        if (result != ZOR_SUCCESS)
            return result;
        reply.length = static_cast<size_t>(m_iInputLen);
    } else {
        std::vector<unsigned char> answer;
        const int result = bleDevice(std::vector<unsigned char>(request + 1, request + len), true, answer);
        if (result != ZOR_SUCCESS)
            return result;
        // An answer without even a status byte is a fault of the exchange (throws).
        if (checkStatus && answer.at(2) != 0)
            return ZOR_ERROR_BLE_RESPONSE;
        reply.length = std::min(answer.size(), sizeof reply.bytes);
        if (reply.length)
            std::memcpy(reply.bytes, answer.data(), reply.length);
    }
    return reply.length < minLength ? ZOR_ERROR_BAD_DATA : ZOR_SUCCESS;
}

int CZOR::query(unsigned char group, unsigned char code, bool ble, Reply &reply, size_t minLength)
{
    const unsigned char request[] = {kReportIdOut, kMarkHi, kMarkLo, group, code};
    return query(request, sizeof request, ble, true, reply, minLength);
}

int CZOR::command(unsigned char *request, size_t len, bool ble)
{
    if (!ble)
        return sendCMD(request, static_cast<int>(len), false, nullptr);
    std::vector<unsigned char> unused;
    return bleDevice(std::vector<unsigned char>(request + 1, request + len), false, unused);
}

int CZOR::getNumOfControls(int *count, bool)
{
    if (!count)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    ZOR_LOG("m_strType: %s", m_strModel.c_str());
    int n = 0;
    if (m_strModel == "ZOR Pro") {
        for (int id : {0, 1, 2, 3, 4, 5})
            m_aControlIds[n++] = id;
        if (fwVersion > 369)
            m_aControlIds[n++] = ZOR_CONTROL_USB_UPDATE;
        if (fwVersion >= 382)
            m_aControlIds[n++] = ZOR_CONTROL_BLE_UPDATE;
    } else if (m_strModel == "ZORN") {
        for (int id : {1, 2, 3, 5})
            m_aControlIds[n++] = id;
        if (fwVersion >= 370)
            m_aControlIds[n++] = ZOR_CONTROL_USB_UPDATE;
    } else {
        m_aControlIds[n++] = ZOR_CONTROL_BUZZER;
    }
    *count = n;
    return ZOR_SUCCESS;
}

int CZOR::getControlCaps(int index, ZOR_CONTROL_CAPS *caps, bool)
{
    // The index is checked against the table size, not against the count: a
    // slot past the list reads whatever it holds (zero when unused). A
    // negative index is refused too (no access outside a buffer).
    if (!caps || index < 0 || index > kMaxControlIndex)
        return ZOR_ERROR_INVALID_INDEX;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int id = m_aControlIds[index];
    const CapabilityText &text = (id >= 0 && id < kNumControlTypes) ? kCapabilityTexts[id] : kUnknownCapability;
    std::memset(caps, 0, sizeof *caps);
    // The texts are shorter than their fields; the rest stays zero.
    std::memcpy(caps->Name, text.name, std::min(std::strlen(text.name), sizeof caps->Name - 1));
    std::memcpy(caps->Description, text.description,
                std::min(std::strlen(text.description), sizeof caps->Description - 1));
    caps->ControlType = id;
    caps->IsSupported = featureSupported(id);
    caps->IsWritable = text.writable;
    return ZOR_SUCCESS;
}

int CZOR::getFwVer(unsigned char *major, unsigned char *minor, unsigned char *build, bool ble)
{
    if (!major || !minor || !build)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Reply reply;
    const int result = query(kGroupQuery, 0x04, ble, reply, 7);
    if (result != ZOR_SUCCESS)
        return result;
    *major = reply.bytes[4];
    *minor = reply.bytes[5];
    *build = reply.bytes[6];
    fwVersion = *major * 100 + *minor * 10 + *build;
    ZOR_LOG("*major:%d,*minor:%d,*build:%d", *major, *minor, *build);
    return ZOR_SUCCESS;
}

int CZOR::getType(ZOR_TYPE *type, bool ble)
{
    if (!type)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Reply reply;
    const int result = query(kGroupQuery, 0x04, ble, reply);
    if (result != ZOR_SUCCESS)
        return result;
    std::memset(type->Type, 0, sizeof type->Type);
    if (reply.length > 8) {
        const size_t n = strnlen(reinterpret_cast<const char *>(reply.bytes + 8), std::min(reply.length - 8, kModelTextMax));
        std::memcpy(type->Type, reply.bytes + 8, n);
    }
    ZOR_LOG("ZOR Type:%s", type->Type);
    return ZOR_SUCCESS;
}

// Caller mistakes get 3, never a crash: each query checks the caller's buffer
// before its feature gate, so a null one is answered alike on every device.
int CZOR::getSerialNumber(unsigned char *sn, int len, bool ble)
{
    if (!sn || len < 0)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bFwNew)
        return ZOR_ERROR_NOT_SUPPORTED;
    std::memset(sn, 0, static_cast<size_t>(len));
    Reply reply;
    const int result = query(kGroupQuery, 0x0C, ble, reply);
    if (result != ZOR_SUCCESS)
        return result;
    if (ble) {
        if (reply.length > 4)
            std::memcpy(sn, reply.bytes + 4, std::min(static_cast<size_t>(len), reply.length - 4));
        return ZOR_SUCCESS;
    }
    unsigned char serial[kSerialBytes];
    const unsigned char *r = reply.bytes;
    if (m_bHasModelString) {
        std::memcpy(serial, r + 4, kSerialBytes);
    } else {
        // Older firmware sends the serial as one hexadecimal digit per byte.
        serial[0] = static_cast<unsigned char>(r[4] * 16 + r[5]);
        serial[1] = static_cast<unsigned char>(r[6] * 16 + r[7]);
        serial[2] = static_cast<unsigned char>(r[8] * 16 + r[9]);
        serial[3] = static_cast<unsigned char>((r[10] << 4) | (r[11] >> 4));
        serial[4] = static_cast<unsigned char>((r[11] << 4) | (r[12] >> 4));
        serial[5] = static_cast<unsigned char>((r[12] << 4) | (r[13] >> 4));
        serial[6] = static_cast<unsigned char>((r[13] << 4) | (r[14] >> 4));
        serial[7] = static_cast<unsigned char>(r[14] * 16 + r[15]);
    }
    std::memcpy(sn, serial, std::min(static_cast<size_t>(len), kSerialBytes));
    m_strSettingsKey = focuserKeyName(serial);
    return ZOR_SUCCESS;
}

int CZOR::setSerialNumber(unsigned char *sn, int len)
{
    if (!sn || len < 0)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bFwNew)
        return ZOR_ERROR_NOT_SUPPORTED;
    if (!m_bOpen || !m_hDev)
        return ZOR_ERROR_INVALID_ID;
    unsigned char request[kShortRequest] = {kReportIdOut, kMarkHi, kMarkLo, 0x0C};
    // No access outside a buffer: at most what the 16-byte request holds.
    std::memcpy(request + 4, sn, static_cast<size_t>(std::min(len, kRequestDataMax)));
    return sendCMD(request, sizeof request, false, nullptr);
}

int CZOR::getAlias(unsigned char *alias, int len, bool ble)
{
    if (!alias || len < 0)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bFwNew)
        return ZOR_ERROR_NOT_SUPPORTED;
    std::memset(alias, 0, static_cast<size_t>(len));
    Reply reply;
    const int result = query(kGroupQuery, 0x0D, ble, reply);
    if (result != ZOR_SUCCESS)
        return result;
    // Over USB the alias ends at the first NUL of the reply, looked for only
    // within the reply (no access outside a buffer).
    const size_t end = ble ? reply.length : strnlen(reinterpret_cast<const char *>(reply.bytes), reply.length);
    if (end > 4)
        std::memcpy(alias, reply.bytes + 4, std::min(end - 4, static_cast<size_t>(len)));
    return ZOR_SUCCESS;
}

int CZOR::setAlias(unsigned char *alias, int len, bool ble)
{
    if (!alias || len < 0)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bFwNew)
        return ZOR_ERROR_NOT_SUPPORTED;
    unsigned char request[kShortRequest] = {kReportIdOut, kMarkHi, kMarkLo, 0x0D};
    // No access outside a buffer: at most what the 16-byte request holds.
    std::memcpy(request + 4, alias, static_cast<size_t>(std::min(len, kRequestDataMax)));
    if (ble) {
        std::vector<unsigned char> reply;
        const int result = bleDevice(std::vector<unsigned char>(request + 1, request + kShortRequest), true, reply);
        if (result != ZOR_SUCCESS)
            ZOR_LOG("set alias failed. err:%d", result);
        return result;
    }
    return sendCMD(request, sizeof request, false, nullptr);
}

int CZOR::getErrorCode(ZOR_ERROR_MSG *msg, bool ble)
{
    if (!msg)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bHasModelString)
        return ZOR_ERROR_NOT_SUPPORTED;
    std::memset(msg, 0, sizeof *msg);
    Reply reply;
    const int result = query(kGroupQuery, 0x05, ble, reply, 7);
    if (result != ZOR_SUCCESS)
        return result;
    std::snprintf(msg->MotorErrorCode, sizeof msg->MotorErrorCode, "%c%c", reply.bytes[4], reply.bytes[5]);
    std::snprintf(msg->BatteryErrorCode, sizeof msg->BatteryErrorCode, "%c%c", reply.bytes[4], reply.bytes[6]);
    ZOR_LOG("The ZOR Motor Error Code is : %s ,Battery Error Code is : %s", msg->MotorErrorCode,
            msg->BatteryErrorCode);
    return ZOR_SUCCESS;
}

int CZOR::getPowerOffReason(int *reason, bool ble)
{
    if (!reason)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Reply reply;
    const int result = query(kGroupQuery, 0x06, ble, reply, 5);
    if (result != ZOR_SUCCESS)
        return result;
    *reason = reply.bytes[4];
    ZOR_LOG("The ZOR Pro Power off is : %s", *reason ? "shuipping mode" : "normal");
    return ZOR_SUCCESS;
}

int CZOR::getBLEName(char *name, int len)
{
    if (!name || len <= 0)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bFwNew)
        return ZOR_ERROR_NOT_SUPPORTED;
    Reply reply;
    const int result = query(0x1E, 0x01, false, reply);
    if (result != ZOR_SUCCESS) {
        std::memset(name, 0, static_cast<size_t>(len));
    } else {
        // The reply as a text, bounded by the reply (no access outside a buffer).
        const size_t textLen = strnlen(reinterpret_cast<const char *>(reply.bytes), reply.length);
        // A reply holding only its header means no name is set: the caller's
        // buffer is left as it was.
        if (textLen != 4) {
            std::string full = m_strModel + "_";
            if (textLen > 4)
                full.append(reinterpret_cast<const char *>(reply.bytes + 4), textLen - 4);
            // No access outside a buffer: at most len bytes, NUL included.
            const size_t n = std::min(full.size(), static_cast<size_t>(len) - 1);
            std::memcpy(name, full.data(), n);
            name[n] = '\0';
        }
    }
    ZOR_LOG("The ZOR ble name is : %.*s", boundedLen(name, len), name);
    return result;
}

int CZOR::setBLEName(char *name, int len, bool ble)
{
    if (!name)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bFwNew)
        return ZOR_ERROR_NOT_SUPPORTED;
    // 5 header bytes and at most 11 name bytes fill a 16-byte report.
    if (len >= 12 || len < 0) {
        ZOR_LOG("set zor ble name len invalid. len:%d", len);
        return ZOR_ERROR_INVALID_VALUE;
    }
    ZOR_LOG("set name is :%.*s", boundedLen(name, len), name);
    unsigned char request[kShortRequest] = {kReportIdOut, kMarkHi, kMarkLo, 0x1E, 0x00};
    std::memcpy(request + 5, name, static_cast<size_t>(len));
    // Over USB the whole request goes, so zeros follow the name in the report.
    const int result = command(request, ble ? 5 + static_cast<size_t>(len) : sizeof request, ble);
    if (result != ZOR_SUCCESS)
        ZOR_LOG("set zor ble name failed. err:%d", result);
    return result;
}

int CZOR::setShippingMode(bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bHasModelString)
        return ZOR_ERROR_NOT_SUPPORTED;
    unsigned char request[] = {kReportIdOut, kMarkHi, kMarkLo, 0x1F, 0x00};
    return command(request, sizeof request, ble);
}

int CZOR::setLEDState(bool on, bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bHasModelString)
        return ZOR_ERROR_NOT_SUPPORTED;
    m_bLedOn = on;
    unsigned char request[] = {kReportIdOut, kMarkHi, kMarkLo, 0x20, static_cast<unsigned char>(on ? 1 : 0)};
    return command(request, sizeof request, ble);
}

int CZOR::getLEDState(bool *on, bool ble)
{
    if (!on)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bHasModelString)
        return ZOR_ERROR_NOT_SUPPORTED;
    const unsigned char request[kShortRequest] = {kReportIdOut, kMarkHi, kMarkLo, kGroupQuery, 0x1F};
    Reply reply;
    const int result = query(request, sizeof request, ble, true, reply, 5);
    if (result != ZOR_SUCCESS)
        return result;
    *on = reply.bytes[4] != 0;
    m_bLedOn = *on;
    return ZOR_SUCCESS;
}

int CZOR::getBatteryInfo(ZOR_BATTERY_INFO *info, bool ble)
{
    if (!info)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bHasModelString)
        return ZOR_ERROR_NOT_SUPPORTED;
    const unsigned char request[kShortRequest] = {kReportIdOut, kMarkHi, kMarkLo, kGroupQuery, 0x1E};
    Reply reply;
    const int result = query(request, sizeof request, ble, false, reply);
    if (result != ZOR_SUCCESS)
        return result;
    // The block starts at reply byte 4 over both links: a Bluetooth answer has
    // the USB reply's byte positions from byte 3 on.
    const size_t blockLength = ble ? (reply.length > 4 ? reply.length - 4 : 0) : 16;
    return parseBatteryInfo(reply.bytes + 4, blockLength, info);
}

int CZOR::setFactoryMode()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_bHasModelString)
        return ZOR_ERROR_NOT_SUPPORTED;
    if (!m_bOpen || !m_hDev)
        return ZOR_ERROR_INVALID_ID;
    unsigned char request[] = {kReportIdOut, kMarkHi, kMarkLo, 0x22, 0x01, 0x00};
    return sendCMD(request, sizeof request, false, nullptr);
}

int CZOR::parseBatteryInfo(const unsigned char *data, size_t length, ZOR_BATTERY_INFO *info)
{
    if (!data || !info)
        return ZOR_ERROR_INVALID_VALUE;
    if (length < 11)
        return ZOR_ERROR_BAD_DATA;
    // Twelve bytes are decoded; one the caller did not provide reads as 0
    // (no access outside a buffer).
    auto at = [&](size_t i) -> int { return i < length ? data[i] : 0; };
    info->battery_temp = at(1) - 100;
    info->battery_vol = at(2) * 256 + at(3);
    info->battery_charge_curr = at(4) * 256 + at(5);
    info->battery_percentage = at(6);
    info->battery_discharge_curr = at(7) * 256 + at(8);
    info->battery_health = at(9);
    info->battery_charge_vol = at(10) * 256 + at(11);
    info->Reserved = 0;
    int result = ZOR_SUCCESS;
    // Valid raw temperatures are 60..187 (-40..87 degrees).
    if (static_cast<int8_t>(static_cast<uint8_t>(at(1) - 60)) < 0) {
        ZOR_LOG("battery_temp(-40.0 ~ 87.5):%d", info->battery_temp);
        std::memset(info, 0xFF, sizeof *info);
        result = ZOR_ERROR_BATTERY_DATA;
    }
    ZOR_LOG("battery_temp:%d, battery_vol:%d, battery_charge_curr:%d, battery_percentage:%d, "
            "battery_discharge_curr:%d, battery_health:%d, battery_charge_vol:%d",
            info->battery_temp, info->battery_vol, info->battery_charge_curr, info->battery_percentage,
            info->battery_discharge_curr, info->battery_health, info->battery_charge_vol);
    return result;
}
