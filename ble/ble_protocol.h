// Frames of the Bluetooth LE link: one checksummed frame per request, one
// per answer or unsolicited notification, all on one GATT characteristic.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace BLEProtocol {

using Bytes = std::vector<unsigned char>;

constexpr uint8_t FRAME_REQUEST = 0x00;
constexpr uint8_t FRAME_RESPONSE = 0x01;
constexpr uint8_t FRAME_NOTIFICATION = 0x02;

// Response status: the request was carried out, or the device treats the
// link as a new connection.
constexpr uint8_t STATUS_OK = 0x00;
constexpr uint8_t STATUS_NEW_CONNECTION = 0x9B;

// Status of a pairing notification.
constexpr uint8_t PAIR_ACCEPTED = 0x00;
constexpr uint8_t PAIR_REFUSED = 0x01;

enum CommandType : uint8_t {
    CMD_PAIR = 0,
    CMD_CLEAR_PAIR = 1,
    CMD_DEVICE = 2,
    CMD_EXTENDED = 3,
};

// Sub-commands of CMD_EXTENDED payloads (after the 7E 5A marker).
constexpr uint8_t EXT_GET_ALL_INFO = 0x01;
constexpr uint8_t EXT_START_UPDATE = 0x02;

struct ProtoRequest {
    uint8_t frameType = FRAME_REQUEST;
    uint8_t lengthLow = 0;
    uint8_t sequence = 0;
    uint8_t commandType = CMD_DEVICE;
    Bytes payload;
    uint8_t lengthHigh = 0;
    uint8_t reserved[3] = {0, 0, 0};
    uint8_t checksum = 0;

    // Appends the whole frame to `out` (expected empty) and then its checksum.
    void calculateChecksum(Bytes &out);
};

uint8_t calculateChecksum(const unsigned char *data, size_t length);

// A frame from the device: a response or a notification, same fields.
template <uint8_t FrameType>
struct ProtoAnswer {
    uint8_t frameType = FrameType;
    uint8_t length = 0;
    uint8_t sequence = 0;
    uint8_t status = 0;
    Bytes payload;
    uint8_t checksum = 0;

    // Stores the sum of all of `bytes`; appends nothing.
    void calculateChecksum(Bytes &bytes) { checksum = BLEProtocol::calculateChecksum(bytes.data(), bytes.size()); }
};

using ProtoResponse = ProtoAnswer<FRAME_RESPONSE>;
using ProtoNotification = ProtoAnswer<FRAME_NOTIFICATION>;

void encodeRequest(ProtoRequest &request, Bytes &out);
// Both strip the checksum byte from `frame`; 0 when it matched, -1 when not.
// A frame under 4 bytes throws std::out_of_range.
int32_t decodeResponse(Bytes &frame);
int32_t decodeNotification(Bytes &frame);
uint8_t getProtoLength(const ProtoRequest &request);
int32_t checkChecksum(const ProtoRequest &request, unsigned char unused, unsigned char expected);

} // namespace BLEProtocol
