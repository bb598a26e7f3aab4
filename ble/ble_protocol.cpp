#include "ble/ble_protocol.h"

#include "support/log.h"

namespace BLEProtocol {

namespace {

constexpr char kLogModule[] = "BluetoothLEProtocol";

// Payload offsets of the two received frame kinds: a response keeps three
// content bytes between its status and its payload, a notification does not.
constexpr size_t kResponsePayloadStart = 7;
constexpr size_t kNotificationPayloadStart = 4;

// Fills `record` from `frame`, strips the received checksum byte from `frame`
// and reports the received checksum through `received`. True when it matches
// the sum of the remaining bytes. Throws std::out_of_range under 4 bytes.
template <typename Record>
bool decodeInto(Record &record, Bytes &frame, size_t payloadStart, uint8_t &received)
{
    record.length = frame.at(1);
    record.sequence = frame.at(2);
    record.status = frame.at(3);
    // The payload ends before the checksum byte, the frame's last.
    if (frame.size() > payloadStart + 1)
        record.payload.assign(frame.begin() + static_cast<std::ptrdiff_t>(payloadStart), frame.end() - 1);
    received = frame.back();
    frame.pop_back();
    record.calculateChecksum(frame);
    return record.checksum == received;
}

// Decodes one received frame; a checksum mismatch is logged under `func`.
template <typename Record>
int32_t decodeFrame(Bytes &frame, size_t payloadStart, const char *func)
{
    Record record;
    uint8_t received = 0;
    if (decodeInto(record, frame, payloadStart, received))
        return 0;
    zor::logInfoFormatted(kLogModule, __LINE__, func, "checksum: %d, calculateChecksum: %d",
                          static_cast<int>(received), static_cast<int>(record.checksum));
    return -1;
}

} // namespace

uint8_t calculateChecksum(const unsigned char *data, size_t length)
{
    uint8_t sum = 0;
    for (size_t i = 0; i < length; ++i)
        sum = static_cast<uint8_t>(sum + data[i]);
    return sum;
}

void ProtoRequest::calculateChecksum(Bytes &out)
{
    out.push_back(frameType);
    out.push_back(lengthLow);
    out.push_back(sequence);
    out.push_back(commandType);
    out.insert(out.end(), payload.begin(), payload.end());
    // The high length byte travels after the payload, not next to the low one.
    out.push_back(lengthHigh);
    out.insert(out.end(), reserved, reserved + sizeof reserved);
    checksum = BLEProtocol::calculateChecksum(out.data(), out.size());
    out.push_back(checksum);
}

void encodeRequest(ProtoRequest &request, Bytes &out) { request.calculateChecksum(out); }

int32_t decodeResponse(Bytes &frame) { return decodeFrame<ProtoResponse>(frame, kResponsePayloadStart, __func__); }

int32_t decodeNotification(Bytes &frame)
{
    return decodeFrame<ProtoNotification>(frame, kNotificationPayloadStart, __func__);
}

uint8_t getProtoLength(const ProtoRequest &request) { return static_cast<uint8_t>(request.lengthLow + 3); }

int32_t checkChecksum(const ProtoRequest &request, unsigned char /*unused*/, unsigned char expected)
{
    uint8_t sum = static_cast<uint8_t>(request.frameType + request.lengthLow + request.sequence);
    sum = static_cast<uint8_t>(sum + calculateChecksum(request.payload.data(), request.payload.size()));
    return sum == expected ? 0 : -1;
}

} // namespace BLEProtocol
