// CZOR's firmware update over USB: a start request, the image in data
// reports, an end request after which the device restarts.
#include "device/zor.h"

#include "support/log.h"

#include <cstring>

namespace {
constexpr char kLogModule[] = "ZOR";
constexpr int kFwUsbUpdateFrom = 370;
constexpr int kMaxPieceBytes = 55;
constexpr int kShortReportData = 11;
constexpr int kShortReportBytes = 16;
constexpr int kUpdateNotTaken = 12;
} // namespace

int CZOR::HIDStartUpdate()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (fwVersion < kFwUsbUpdateFrom)
        return ZOR_ERROR_NOT_SUPPORTED;
    unsigned char request[] = {kReportIdOut, 0x7E, 0x5A, 0x0F};
    unsigned char reply[kIoBufferBytes] = {};
    const int result = sendCMD(request, sizeof request, true, reply);
    if (result != ZOR_SUCCESS)
        return result;
    if (reply[3] == 1 && reply[4] == 0)
        return ZOR_SUCCESS;
    ZOR_LOG("Start Upgrade, err = %d. Outbuf[0-4] = 0x%02X, 0x%02X,0x%02X,0x%02X,0x%02X.", 0, reply[0], reply[1],
            reply[2], reply[3], reply[4]);
    return ZOR_ERROR_ERROR_STATE;
}

int CZOR::HIDWriteUpdateFile(ZOR_HID_FILE_BUF buf)
{
    if (buf.Length < 1 || buf.Length > kMaxPieceBytes)
        return ZOR_ERROR_BAD_DATA;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    int result = ZOR_SUCCESS;
    if (m_iOutputLen > kShortReportBytes) {
        // The whole piece fits one report.
        unsigned char report[sizeof buf.Data + 5] = {kReportIdOut, 0x7E, 0x5A, 0x10,
                                                     static_cast<unsigned char>(buf.Length)};
        std::memcpy(report + 5, buf.Data, static_cast<size_t>(buf.Length));
        result = sendCMD(report, buf.Length + 5, false, nullptr);
    } else {
        for (int offset = 0; offset < buf.Length && result == ZOR_SUCCESS; offset += kShortReportData) {
            const int chunk = buf.Length - offset < kShortReportData ? buf.Length - offset : kShortReportData;
            unsigned char report[kShortReportBytes] = {kReportIdOut, 0x7E, 0x5A, 0x10,
                                                       static_cast<unsigned char>(chunk)};
            std::memcpy(report + 5, buf.Data + offset, static_cast<size_t>(chunk));
            result = sendCMD(report, sizeof report, false, nullptr);
        }
    }
    if (result != ZOR_SUCCESS)
        ZOR_LOG("USB Upgrade is interrupted!");
    return result;
}

int CZOR::HIDEndUpdate()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    unsigned char request[] = {kReportIdOut, 0x7E, 0x5A, 0x12};
    unsigned char reply[kIoBufferBytes] = {};
    const int result = sendCMD(request, sizeof request, true, reply);
    // The device restarts into the new firmware and stops answering.
    if (result == ZOR_ERROR_REMOVED || result == ZOR_ERROR_GENERAL_ERROR)
        return ZOR_SUCCESS;
    ZOR_LOG("End Upgrade, err = %d. Outbuf[0-7] = 0x%02X, 0x%02X, 0x%02X, 0x%02X, 0x%02X, 0x%02X, 0x%02X, 0x%02X.",
            result, reply[0], reply[1], reply[2], reply[3], reply[4], reply[5], reply[6], reply[7]);
    return result == ZOR_SUCCESS ? kUpdateNotTaken : result;
}
