// The device object's request/response exchange over Bluetooth LE, and the
// raw pass-through beside it.
#include "device/zor.h"

#include "ble_transport/ble_manager.h"
#include "support/log.h"

#include <atomic>
#include <cstring>

namespace {

constexpr char kLogModule[] = "ZOR";

// Arguments of every SendData call; the transport ignores them.
constexpr uint32_t kSendReserved1 = 3;
constexpr uint32_t kSendReserved2 = 0;

// Failed waits tolerated once the device has reported a new connection.
constexpr int kNewConnectionWaits = 12;

// The exchange's helpers log under the exchange's own name.
#define EXCHANGE_LOG(...) ::zor::logInfoFormatted(kLogModule, __LINE__, "bleSendData", __VA_ARGS__)

} // namespace

void CZOR::setBleManager(std::unique_ptr<IBluetoothLEManager> manager)
{
    // Under the exchange lock, so that no request is in flight on the old one.
    std::lock_guard<std::mutex> lock(m_bleMutex);
    m_pBleManager = std::move(manager);
}

namespace {

// What one received frame means for the exchange in progress.
enum class Next { Wait, Return };

// The waits of one exchange. Once the device has reported a new connection,
// a number of empty waits are tolerated over the rest of the exchange.
class ExchangeWaits {
public:
    explicit ExchangeWaits(IBluetoothLEManager &manager) : m_manager(manager) {}

    bool next()
    {
        if (!m_newConnection)
            return m_manager.WaitForDataAndProcess();
        while (!m_manager.WaitForDataAndProcess()) {
            if (m_waitNums > kNewConnectionWaits)
                return false;
            EXCHANGE_LOG("This is bIsNewConnect, iWaitNums%d", m_waitNums);
            ++m_waitNums;
        }
        return true;
    }

    void newConnection() { m_newConnection = true; }

private:
    IBluetoothLEManager &m_manager;
    bool m_newConnection = false; // bIsNewConnect
    int m_waitNums = 1;           // iWaitNums
};

void notifyPairState(ZORPairStateCallback callback, ZOR_ERROR_CODE code)
{
    if (callback)
        callback(code);
}

// A notification that arrives during a request: pairing accepted or refused
// ends the exchange; any other status is dropped.
Next onNotification(std::vector<unsigned char> &rx, ZORPairStateCallback callback, int &result)
{
    EXCHANGE_LOG("bleSendData recv Notification data");
    const int32_t ret = BLEProtocol::decodeNotification(rx);
    if (ret < 0) {
        EXCHANGE_LOG("decodeNotification ret:%d", ret);
        result = ZOR_ERROR_BLE_RESPONSE;
        return Next::Return;
    }
    // rx has lost its checksum byte: a 4-byte notification throws here.
    const uint8_t status = rx.at(3);
    if (status == BLEProtocol::PAIR_REFUSED) {
        notifyPairState(callback, ZOR_ERROR_BLE_PAIR_REJECTED);
        result = ZOR_ERROR_BLE_PAIR_REJECTED;
        return Next::Return;
    }
    if (status == BLEProtocol::PAIR_ACCEPTED) {
        // Ends the exchange although the request itself is unanswered.
        notifyPairState(callback, ZOR_SUCCESS);
        result = ZOR_SUCCESS;
        return Next::Return;
    }
    return Next::Wait;
}

} // namespace

int CZOR::bleSendData(BLEProtocol::CommandType type, std::vector<unsigned char> payload, bool waitForResponse,
                      std::vector<unsigned char> &response)
{
    // One counter for the whole library: every device's requests draw from it,
    // and it wraps from 255 to 0.
    static std::atomic<uint8_t> iCommandId{0};

    std::lock_guard<std::mutex> lock(m_bleMutex);
    IBluetoothLEManager *manager = m_pBleManager.get();
    if (!manager)
        return ZOR_ERROR_BLE_NOT_CONNECTED;

    const uint8_t commandId = iCommandId.fetch_add(1);
    BLEProtocol::ProtoRequest request;
    request.lengthLow = static_cast<uint8_t>(payload.size() & 0xFF);
    request.sequence = commandId;
    request.commandType = type;
    request.payload = payload;
    request.lengthHigh = static_cast<uint8_t>((payload.size() >> 8) & 0xFF);
    BLEProtocol::Bytes frame;
    BLEProtocol::encodeRequest(request, frame);

    manager->setIsRead(waitForResponse);
    // The command bytes of the payload; the tail of a firmware image can be
    // shorter, and its missing bytes are logged as 0 (no access outside a
    // buffer).
    const auto logged = [&payload](size_t at) { return at < payload.size() ? payload[at] : 0; };
    ZOR_LOG("input:%02x, %02x, iCommandId:%d", logged(2), logged(3), static_cast<int>(commandId));
    if (!manager->SendData(frame, kSendReserved1, kSendReserved2))
        return ZOR_ERROR_BLE_SEND;
    if (!waitForResponse)
        return ZOR_SUCCESS;

    ExchangeWaits waits(*manager);
    for (;;) {
        if (!waits.next())
            return ZOR_ERROR_BLE_TIMEOUT;
        std::vector<unsigned char> rx;
        manager->GetReceivedData(rx);

        if (rx.at(0) == BLEProtocol::FRAME_NOTIFICATION) {
            int result = ZOR_SUCCESS;
            if (onNotification(rx, m_pairStateCallback, result) == Next::Return)
                return result;
            continue;
        }
        if (rx.at(2) != commandId) {
            ZOR_LOG("Received outdated response, expected command ID: %d, but got: %d, discarding and waiting for "
                    "next response...",
                    static_cast<int>(commandId), static_cast<int>(rx.at(2)));
            continue;
        }
        if (rx.at(0) == BLEProtocol::FRAME_RESPONSE && rx.at(3) == BLEProtocol::STATUS_OK) {
            const int32_t ret = BLEProtocol::decodeResponse(rx);
            ZOR_LOG("decodeResponse ret:%d", ret);
            if (ret < 0)
                return ZOR_ERROR_BLE_RESPONSE;
        } else if (rx.at(0) == BLEProtocol::FRAME_RESPONSE && rx.at(3) == BLEProtocol::STATUS_NEW_CONNECTION) {
            notifyPairState(m_pairStateCallback, ZOR_ERROR_BLE_NEW_CONNECTION);
            ZOR_LOG("This is a new connection.");
            waits.newConnection();
            continue;
        }
        // A checked answer without its checksum byte; any other status, or a
        // frame of another type, handed over unchecked with it.
        response.assign(rx.begin() + 1, rx.end());
        return ZOR_SUCCESS;
    }
}

int CZOR::BLESendData(int type, char *input, int inputLength, bool waitForResponse, char *output)
{
    (void)type;
    // An exchange like any other: no framed request may interleave with it.
    std::lock_guard<std::mutex> lock(m_bleMutex);
    IBluetoothLEManager *manager = m_pBleManager.get();
    if (!manager)
        return ZOR_ERROR_BLE_NOT_CONNECTED;

    // No access outside the caller's buffers: a negative length is no bytes.
    const size_t length = inputLength > 0 ? static_cast<size_t>(inputLength) : 0;
    std::vector<unsigned char> vInputData;
    if (length > 0)
        vInputData.assign(reinterpret_cast<unsigned char *>(input), reinterpret_cast<unsigned char *>(input) + length);
    ZOR_LOG("vInputData.size:%d", static_cast<int>(vInputData.size()));

    manager->SendData(vInputData, kSendReserved1, kSendReserved2);
    if (!waitForResponse)
        return ZOR_SUCCESS;

    manager->WaitForDataAndProcess();
    std::vector<unsigned char> receivedData;
    manager->GetReceivedData(receivedData);
    // The output buffer is taken to be as large as the input.
    if (receivedData.size() <= length) {
        if (!receivedData.empty())
            std::memcpy(output, receivedData.data(), receivedData.size());
        ZOR_LOG("receivedData.size:%d", static_cast<int>(receivedData.size()));
        return ZOR_SUCCESS;
    }
    ZOR_LOG("Output buffer too small for received data");
    return ZOR_ERROR_INVALID_VALUE;
}
