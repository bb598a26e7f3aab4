#include "ble/ble_protocol.h"

#include "log_lines.h"

#include <gtest/gtest.h>

#include <stdexcept>

using BLEProtocol::Bytes;
using namespace BLEProtocol;

namespace {

ProtoRequest makeRequest(uint8_t sequence, CommandType type, const Bytes &payload)
{
    ProtoRequest request;
    request.sequence = sequence;
    request.commandType = type;
    request.payload = payload;
    request.lengthLow = static_cast<uint8_t>(payload.size() & 0xFF);
    request.lengthHigh = static_cast<uint8_t>((payload.size() >> 8) & 0xFF);
    return request;
}

} // namespace

TEST(RequestEncoding, FramesCarryLengthSequenceTypePayloadAndSum)
{
    // Over 255 bytes the length's high byte follows the payload.
    Bytes longPayload(300);
    for (size_t i = 0; i < longPayload.size(); ++i)
        longPayload[i] = static_cast<unsigned char>(i * 7 + 1);
    Bytes longFrame{0x00, 0x2C, 9, CMD_EXTENDED};
    longFrame.insert(longFrame.end(), longPayload.begin(), longPayload.end());
    longFrame.insert(longFrame.end(), {0x01, 0x00, 0x00, 0x00});
    unsigned sum = 0;
    for (unsigned char b : longFrame)
        sum += b;
    longFrame.push_back(static_cast<unsigned char>(sum));

    struct Case {
        uint8_t sequence;
        CommandType type;
        Bytes payload;
        Bytes frame;
    };
    const Case cases[] = {
        {0x21, CMD_EXTENDED, {}, {0x00, 0x00, 0x21, 0x03, 0x00, 0x00, 0x00, 0x00, 0x24}},
        // The sum 0x1D3 wraps to 0xD3.
        {0xF0, CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x03},
         {0x00, 0x04, 0xF0, 0x02, 0x7E, 0x5A, 0x02, 0x03, 0x00, 0x00, 0x00, 0x00, 0xD3}},
        {9, CMD_EXTENDED, longPayload, longFrame},
    };
    for (const Case &c : cases) {
        ProtoRequest request = makeRequest(c.sequence, c.type, c.payload);
        Bytes out;
        encodeRequest(request, out);
        EXPECT_EQ(out, c.frame) << c.payload.size();
        EXPECT_EQ(request.checksum, c.frame.back());
    }
}

TEST(ChecksumFunctions, ByteSumAndRequestHelpers)
{
    const unsigned char bytes[] = {0xFF, 0x02, 0x10};
    EXPECT_EQ(calculateChecksum(bytes, 0), 0);
    EXPECT_EQ(calculateChecksum(bytes, 3), 0x11);

    ProtoRequest request = makeRequest(0x03, CMD_DEVICE, {0x7E, 0x5A});
    request.lengthLow = 0xFE;
    EXPECT_EQ(getProtoLength(request), 0x01);
    request.lengthLow = 0x10;
    EXPECT_EQ(getProtoLength(request), 0x13);

    // Frame type, length low, sequence and payload only: 0x10 + 0x03 + 0x7E + 0x5A = 0xEB.
    request.lengthHigh = 0x44;
    EXPECT_EQ(checkChecksum(request, 0x99, 0xEB), 0);
    EXPECT_EQ(checkChecksum(request, 0xEB, 0xEB), 0);
    EXPECT_EQ(checkChecksum(request, 0xEB, 0xEB + 0x02), -1);
}

TEST(ChecksumFunctions, ReceivedRecordsStoreSumAndAppendNothing)
{
    Bytes bytes{0x01, 0x02, 0xFF};
    ProtoResponse response;
    response.calculateChecksum(bytes);
    EXPECT_EQ(response.checksum, 0x02);
    ProtoNotification notification;
    Bytes empty;
    notification.checksum = 0x55;
    notification.calculateChecksum(empty);
    EXPECT_EQ(notification.checksum, 0);
    EXPECT_EQ(bytes.size(), 3u);
    EXPECT_TRUE(empty.empty());
}

// Every frame of 4 bytes or more loses its last byte, the checksum, which
// must equal the sum of the bytes before it; a wrong one is logged with the
// decoder's name.
TEST(FrameDecoding, FramesLoseTheirChecksumByteWhichMustMatch)
{
    zor_test::LogLines log;
    struct Case {
        bool notification;
        Bytes frame;
        int32_t result;
    };
    const Case cases[] = {
        {false, {0x01, 0x03, 0x07, 0x00, 0xAA, 0xBB, 0xCC, 0x3C}, 0},
        {false, {0x01, 0x08, 0x07, 0x00, 0xF0, 0xF1, 0xF2, 0x11, 0x22, 0x33, 0x44, 0x8D}, 0}, // the sum wraps
        {true, {0x02, 0x00, 0x00, 0x01, 0x03}, 0},
        {true, {0x02, 0x02, 0x05, 0x00, 0x80, 0x81, 0x0A}, 0},
        {false, {0x01, 0x10, 0x20, 0x31}, 0},
        {true, {0x02, 0x10, 0x20, 0x30}, -1},
        {false, {0x01, 0x04, 0x09, 0x00, 0x01, 0x02, 0x03, 0xFA, 0xFF}, -1},
        {true, {0x02, 0x01, 0x00, 0x00, 0xC8, 0x00}, -1},
    };
    for (const Case &c : cases) {
        Bytes frame = c.frame;
        EXPECT_EQ(c.notification ? decodeNotification(frame) : decodeResponse(frame), c.result);
        EXPECT_EQ(frame, Bytes(c.frame.begin(), c.frame.end() - 1));
    }
    // Both values print as 0-255: 0x0E is the wrapped sum of the response.
    EXPECT_EQ(log.messages("BluetoothLEProtocol", "decodeResponse"),
              std::vector<std::string>{"checksum: 255, calculateChecksum: 14"});
    EXPECT_EQ(log.messages("BluetoothLEProtocol", "decodeNotification"),
              (std::vector<std::string>{"checksum: 48, calculateChecksum: 50", "checksum: 0, calculateChecksum: 203"}));
}

TEST(FrameDecoding, FramesUnderFourBytesThrowAndStayIntact)
{
    for (size_t size = 0; size < 4; ++size) {
        Bytes frame(size, 0x01);
        EXPECT_THROW(decodeResponse(frame), std::out_of_range) << size;
        EXPECT_EQ(frame.size(), size);
        EXPECT_THROW(decodeNotification(frame), std::out_of_range) << size;
        EXPECT_EQ(frame.size(), size);
    }
}
