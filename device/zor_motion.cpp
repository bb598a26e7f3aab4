// CZOR's status and control records: the status read every getter starts
// with, the control record every setter ends with, and the temperature
// conversion.
#include "device/zor.h"

#include "device/thermistor.h"
#include "support/log.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

namespace {
constexpr char kLogModule[] = "ZOR";
constexpr int kFwStepBytes24 = 336;
constexpr int kRawAdcLow = 616;
constexpr int kRawAdcHigh = 1020;
constexpr int kHandControlAdcMax = 341;
constexpr float kLowestTemperature = -200.0f;
constexpr int kMaxBacklash = 255;
constexpr int kMaxForce = 15;

int clampStep(int step, int limit)
{
    if (step < 0)
        return 0;
    return step > limit ? limit : step;
}
} // namespace

bool CZOR::isConnected() const { return (m_bOpen && m_hDev) || m_pBleManager; }

int CZOR::checkCanChange()
{
    if (!isConnected())
        return ZOR_ERROR_INVALID_ID;
    if (isBusy())
        return ZOR_ERROR_MOVING;
    return ZOR_SUCCESS;
}

int CZOR::bleDevice(std::vector<unsigned char> payload, bool waitForResponse, std::vector<unsigned char> &reply)
{
    return bleSendData(BLEProtocol::CMD_DEVICE, std::move(payload), waitForResponse, reply);
}

void CZOR::storeStatusReply(const std::vector<unsigned char> &reply)
{
    std::memset(pszInBuf.data(), 0, 8);
    std::copy_n(reply.begin(), std::min(reply.size(), pszInBuf.size()), pszInBuf.begin());
}

void CZOR::parseStatus()
{
    const unsigned char *in = pszInBuf.data();
    m_iEnabled = in[4];
    m_iBacklash = in[5];
    if (fwVersion < kFwStepBytes24) {
        m_iSpeed = (in[6] << 8) | in[7];
        m_iStep = (in[8] << 8) | in[9];
        m_iMaxStep = (in[14] << 8) | in[15];
    } else {
        m_iSpeed = 0;
        m_iStep = (in[7] << 16) | (in[8] << 8) | in[9];
        m_iMaxStep = (in[6] << 16) | (in[14] << 8) | in[15];
    }
    m_iTempAdc = (in[11] << 8) | in[12];
    const unsigned char flags = in[13];
    bBeep = (flags & 0x01) != 0;
    bReverse = (flags & 0x02) != 0;
    m_bStatusBit2 = (flags & 0x04) != 0;
    m_bHandControl = (flags & 0x08) != 0;
    cMaxForce = static_cast<uint8_t>(flags >> 4);
}

int CZOR::getParams(bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (ble) {
        // A failed exchange is not reported: the last good record is parsed again.
        std::vector<unsigned char> reply;
        if (bleDevice({0x7E, 0x5A, 0x02, 0x03}, true, reply) == ZOR_SUCCESS)
            storeStatusReply(reply);
    } else {
        const int result = clearError();
        if (result != ZOR_SUCCESS)
            return result;
    }
    parseStatus();
    return ZOR_SUCCESS;
}

int CZOR::clearError()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!(m_bOpen && m_hDev) && !m_bBleConnected)
        return ZOR_ERROR_INVALID_ID;
    pszOutBuf.fill(0);
    const unsigned char request[] = {kReportIdOut, 0x7E, 0x5A, 0x02, 0x03};
    std::memcpy(pszOutBuf.data(), request, sizeof request);

    if (m_bBleConnected) {
        std::vector<unsigned char> reply;
        const int result = bleDevice({0x7E, 0x5A, 0x02, 0x03}, true, reply);
        if (result == ZOR_SUCCESS)
            storeStatusReply(reply);
        return result;
    }

    int result = hid_send_feature_report(m_hDev, pszOutBuf.data(), static_cast<size_t>(m_iOutputLen));
    pszInBuf.fill(0);
    pszInBuf[0] = kReportIdIn;
    result = hid_get_feature_report(m_hDev, pszInBuf.data(), static_cast<size_t>(m_iInputLen));
    if (pszInBuf[1] == 0x7E && pszInBuf[2] == 0x5A && pszInBuf[3] == 0x03) {
        if (m_bAutoClearError && pszInBuf[4] == kStateError) {
            const unsigned char clear[] = {kReportIdOut, 0x7E, 0x5A, 0x01, 0x0F};
            std::memcpy(pszOutBuf.data(), clear, sizeof clear);
            result = hid_send_feature_report(m_hDev, pszOutBuf.data(), static_cast<size_t>(m_iOutputLen));
        }
        return handleReportErr(result);
    }
    ZOR_LOG("response error [1-3]: %02x %02x %02x", pszInBuf[1], pszInBuf[2], pszInBuf[3]);
    ZOR_LOG("HID Err: %s", hidErrorText().c_str());
    HIDUpdateStatus(true);
    return ZOR_ERROR_GENERAL_ERROR;
}

int CZOR::sendControl(int iReset, bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    unsigned char *out = pszOutBuf.data();
    out[0] = kReportIdOut;
    out[1] = 0x7E;
    out[2] = 0x5A;
    out[3] = 0x03;
    out[4] = static_cast<unsigned char>(m_iEnabled);
    out[5] = static_cast<unsigned char>(m_iBacklash);
    if (fwVersion < kFwStepBytes24) {
        out[6] = static_cast<unsigned char>(m_iSpeed >> 8);
        out[7] = static_cast<unsigned char>(m_iSpeed);
    } else {
        out[6] = static_cast<unsigned char>(m_iMaxStep >> 16);
        out[7] = static_cast<unsigned char>(m_iStep >> 16);
    }
    out[8] = static_cast<unsigned char>(m_iStep >> 8);
    out[9] = static_cast<unsigned char>(m_iStep);
    out[10] = static_cast<unsigned char>(iReset);
    // Bytes 11 and 12 keep what the buffer holds.
    out[13] = static_cast<unsigned char>((cMaxForce << 4) | (bReverse ? 0x02 : 0) | (bBeep ? 0x01 : 0));
    out[14] = static_cast<unsigned char>(m_iMaxStep >> 8);
    out[15] = static_cast<unsigned char>(m_iMaxStep);
    ZOR_LOG("fwVersion:%d, step:%d, maxstep:%d, cMaxForce:%d, enabled:%d, iReset:%d, bBeep:%d, bReverse:%d, "
            "pszOutBuf[13]:%x, bIsBleControl:%d",
            fwVersion, m_iStep, m_iMaxStep, cMaxForce, m_iEnabled, iReset, bBeep, bReverse, out[13], ble);

    if (!ble) {
        if (!m_bOpen || !m_hDev)
            return ZOR_ERROR_INVALID_ID;
        const int written = hid_send_feature_report(m_hDev, out, static_cast<size_t>(m_iOutputLen));
        return handleReportErr(written);
    }
    std::vector<unsigned char> payload(out + 1, out + 16);
    ZOR_LOG("sendControl input:%02x, %02x", payload[2], payload[3]);
    std::vector<unsigned char> reply;
    const int result = bleDevice(std::move(payload), false, reply);
    if (result != ZOR_SUCCESS)
        ZOR_LOG("sendControl bleSendData err:%d", result);
    return result;
}

int CZOR::SetStep(int step, bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    m_iEnabled = 1;
    m_iStep = clampStep(step, m_iMaxStepLimit);
    ZOR_LOG("SetStep move to step: %d, speed: %d", m_iStep, m_iSpeed);
    const int result = sendControl(0, ble);
    if (result == ZOR_SUCCESS)
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return result;
}

int CZOR::stopMove(bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int cleared = clearError();
    if (cleared != ZOR_SUCCESS) {
        ZOR_LOG("stopMove clearError failed");
        return cleared;
    }
    m_iEnabled = 0;
    return sendControl(0, ble);
}

int CZOR::resetStep(int step, bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    m_iStep = clampStep(step, m_iMaxStepLimit);
    return sendControl(1, ble);
}

int CZOR::setMaxStep(int max, bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    m_iMaxStep = clampStep(max, m_iMaxStepLimit);
    return sendControl(2, ble);
}

// Caller mistakes get 3, never a crash: a backlash outside 0..255 or a
// force outside 0..15 is refused before anything is sent.
int CZOR::setBacklash(int backlash, bool ble)
{
    if (backlash < 0 || backlash > kMaxBacklash)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    m_iBacklash = backlash;
    ZOR_LOG("Before sendControl iBacklash:%d", backlash);
    return sendControl(0, ble);
}

int CZOR::setBeep(bool on, bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    bBeep = on;
    return sendControl(0, ble);
}

int CZOR::setReverse(bool on, bool ble)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    bReverse = on;
    return sendControl(0, ble);
}

int CZOR::setMaxForce(int force, bool ble)
{
    if (force < 0 || force > kMaxForce)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    cMaxForce = static_cast<uint8_t>(force);
    return sendControl(0, ble);
}

int CZOR::SetSpeed(int speed)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    m_iSpeed = speed;
    return sendControl(0, false);
}

int CZOR::saveFWConf()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int allowed = checkCanChange();
    if (allowed != ZOR_SUCCESS)
        return allowed;
    m_iEnabled = 0;
    return sendControl(0, false);
}

int CZOR::isMoving(bool *moving, bool *byDevice, bool ble)
{
    if (!moving)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int result = getParams(ble);
    if (result != ZOR_SUCCESS)
        return result;
    *moving = m_iEnabled >= 1 ? true : m_bStatusBit2;
    if (byDevice)
        *byDevice = m_bStatusBit2;
    return ZOR_SUCCESS;
}

int CZOR::isHandControl(bool *handControl, bool ble)
{
    if (!handControl)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int result = getParams(ble);
    if (result != ZOR_SUCCESS)
        return result;
    // Old firmware carries the hand controller on the temperature input.
    if (m_bRawTempAdc)
        *handControl = m_iTempAdc >= 1 && m_iTempAdc <= kHandControlAdcMax;
    else
        *handControl = m_bHandControl;
    return ZOR_SUCCESS;
}

float CZOR::CalculTempuature()
{
    const float kOhm = static_cast<float>(10.0 * m_iTempAdc / (1024 - m_iTempAdc));
    float temp = 0;
    if (thermistorTemperature(kOhm, &temp) && temp >= m_iTempMin && temp <= m_iTempMax)
        m_fTempValid = temp;
    m_fTempLast = m_fTempValid;
    return m_fTempValid;
}

int CZOR::getTemp(float *temp, bool ble)
{
    if (!temp)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int result = getParams(ble);
    if (result != ZOR_SUCCESS)
        return result;
    if (!m_bRawTempAdc) {
        const float t = static_cast<float>(m_iTempAdc / 100.0 - 300.0);
        if (t > kLowestTemperature) {
            m_fTempLast = t;
            *temp = t;
            return ZOR_SUCCESS;
        }
        *temp = m_fTempLast;
        return ZOR_ERROR_GENERAL_ERROR;
    }
    if (m_iTempAdc < kRawAdcLow || m_iTempAdc > kRawAdcHigh) {
        *temp = m_fTempLast;
        return ZOR_ERROR_GENERAL_ERROR;
    }
    *temp = CalculTempuature();
    return ZOR_SUCCESS;
}

int CZOR::getStepRange(int *range, bool)
{
    if (!range)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    *range = m_iMaxStepLimit;
    return ZOR_SUCCESS;
}

template <typename Out, typename Member>
int CZOR::readParam(Out *out, const Member &member, bool ble)
{
    if (!out)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const int result = getParams(ble);
    if (result != ZOR_SUCCESS)
        return result;
    *out = static_cast<Out>(member);
    return ZOR_SUCCESS;
}

int CZOR::getSpeed(int *speed, bool ble) { return readParam(speed, m_iSpeed, ble); }
int CZOR::getStep(int *step, bool ble) { return readParam(step, m_iStep, ble); }
int CZOR::getBeep(bool *on, bool ble) { return readParam(on, bBeep, ble); }
int CZOR::getReverse(bool *on, bool ble) { return readParam(on, bReverse, ble); }
int CZOR::getBacklash(int *backlash, bool ble) { return readParam(backlash, m_iBacklash, ble); }
int CZOR::getMaxStep(int *max, bool ble) { return readParam(max, m_iMaxStep, ble); }
int CZOR::getMaxForce(int *force, bool ble) { return readParam(force, cMaxForce, ble); }

void CZOR::setRepeatTime(int repeatTime)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_iRepeatTime = repeatTime;
}

void CZOR::setAutoClearError(bool autoClear)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_bAutoClearError = autoClear;
}
