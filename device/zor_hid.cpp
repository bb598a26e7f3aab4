// CZOR's USB link: one feature report written per command, optionally one
// read back, hidapi results mapped to result codes, and the reopening of a
// device whose reports keep failing.
#include "device/zor.h"

#include "support/log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace {
constexpr char kLogModule[] = "ZOR";
constexpr size_t kHidErrorChars = 240;
} // namespace

std::string CZOR::hidErrorText()
{
    char text[kHidErrorChars] = {};
    const wchar_t *error = hid_error(m_hDev);
    if (error) {
        const size_t n = std::wcstombs(text, error, sizeof text - 1);
        if (n == static_cast<size_t>(-1))
            text[0] = '\0';
    }
    return text;
}

int CZOR::sendCMD(unsigned char *cmd, int len, bool needReply, unsigned char *reply)
{
    int result;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (!m_bOpen || !m_hDev)
            return ZOR_ERROR_INVALID_ID;
        if (cmd != pszOutBuf.data() && cmd && len > 0)
            std::memcpy(pszOutBuf.data(), cmd, static_cast<size_t>(std::min(len, m_iOutputLen)));
        result = hid_send_feature_report(m_hDev, pszOutBuf.data(), static_cast<size_t>(m_iOutputLen));
        if (reply && needReply && result >= 0) {
            std::memset(reply, 0, static_cast<size_t>(m_iInputLen));
            reply[0] = kReportIdIn;
            result = hid_get_feature_report(m_hDev, reply, static_cast<size_t>(m_iInputLen));
        }
    }
    return handleReportErr(result);
}

int CZOR::handleReportErr(int result)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (result >= 0) {
        m_cErrCount = 0;
        m_cReconnectCount = 0;
        return ZOR_SUCCESS;
    }
    ZOR_LOG("HID Err: %s", hidErrorText().c_str());
    if (result == -1)
        return ZOR_ERROR_REMOVED;
    HIDUpdateStatus(true);
    return ZOR_ERROR_GENERAL_ERROR;
}

void CZOR::HIDUpdateStatus(bool failed)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!failed) {
        m_cErrCount = 0;
        m_cReconnectCount = 0;
        return;
    }
    if (m_cReconnectCount >= kMaxReconnects)
        return;
    ++m_cErrCount;
    if (m_cErrCount >= kFailuresBeforeReconnect) {
        ZOR_LOG("%s try to reconnect [%u:%u]", m_szPath.data(), static_cast<unsigned>(m_cErrCount),
                static_cast<unsigned>(m_cReconnectCount));
        HIDReconnect();
        ++m_cReconnectCount;
    }
}

void CZOR::HIDReconnect()
{
    bool reopened;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (!m_bOpen)
            return;
        m_bOpen = false;
        hid_close(m_hDev);
        m_hDev = hid_open_path(m_szPath.data());
        if (m_hDev)
            m_bOpen = true;
        reopened = m_bOpen;
    }
    if (!reopened)
        ZOR_LOG("%s reconnect fail", m_szPath.data());
}
