// Firmware update over Bluetooth: announce the image size, then send the
// image chunk by chunk, each acknowledged with the number of bytes taken.
// The application cuts the image; the device object keeps no update state.
#include "device/zor.h"

#include <mutex>

namespace {

constexpr int kBleUpdateFrom = 382;
// In the acknowledgement r (frame byte k + 1 at r[k]): the count accepted,
// most significant byte first.
constexpr size_t kAckHigh = 3;
constexpr size_t kAckLow = 4;
constexpr size_t kAckMinBytes = 4;

} // namespace

int CZOR::BLEStartUpdate(int size)
{
    if (fwVersion < kBleUpdateFrom)
        return ZOR_ERROR_NOT_SUPPORTED;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto byte = [size](int shift) { return static_cast<unsigned char>(static_cast<uint32_t>(size) >> shift); };
    std::vector<unsigned char> answer;
    return bleSendData(BLEProtocol::CMD_EXTENDED,
                       {0x7E, 0x5A, BLEProtocol::EXT_START_UPDATE, byte(24), byte(16), byte(8), byte(0)}, true,
                       answer);
}

int CZOR::BLEWriteUpdateFile(ZOR_BLE_FILE_BUF buffer)
{
    if (fwVersion < kBleUpdateFrom)
        return ZOR_ERROR_NOT_SUPPORTED;
    // A caller's length outside the chunk buffer gets 3 (no access outside a buffer).
    if (buffer.Length < 0 || static_cast<size_t>(buffer.Length) > sizeof buffer.Data)
        return ZOR_ERROR_INVALID_VALUE;
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::vector<unsigned char> r;
    const int result =
        bleSendData(BLEProtocol::CMD_EXTENDED, {buffer.Data, buffer.Data + buffer.Length}, true, r);
    if (result != ZOR_SUCCESS)
        return result;
    if (r.size() < kAckMinBytes)
        return ZOR_ERROR_BAD_DATA;
    // Four bytes suffice although the count's low byte is the fifth; a
    // missing one reads as 0 (no access outside a buffer).
    const int accepted = r[kAckHigh] * 256 + (r.size() > kAckLow ? r[kAckLow] : 0);
    return accepted == buffer.Length ? ZOR_SUCCESS : ZOR_ERROR_BLE_UPDATE_ACK;
}
