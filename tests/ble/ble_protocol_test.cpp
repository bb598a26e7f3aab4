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

TEST(RequestEncoding, EmptyPayloadIsNineBytes)
{
    ProtoRequest request = makeRequest(0x21, CMD_EXTENDED, {});
    Bytes out;
    encodeRequest(request, out);
    EXPECT_EQ(out, (Bytes{0x00, 0x00, 0x21, 0x03, 0x00, 0x00, 0x00, 0x00, 0x24}));
    EXPECT_EQ(request.checksum, 0x24);
}

TEST(RequestEncoding, DeviceCommandFrameAndChecksumWrap)
{
    // 00 04 F0 02 7E 5A 02 03 | 00 | 00 00 00: the sum 0x1D3 wraps to 0xD3.
    ProtoRequest request = makeRequest(0xF0, CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x03});
    Bytes out;
    encodeRequest(request, out);
    EXPECT_EQ(out, (Bytes{0x00, 0x04, 0xF0, 0x02, 0x7E, 0x5A, 0x02, 0x03, 0x00, 0x00, 0x00, 0x00, 0xD3}));
}

TEST(RequestEncoding, LongPayloadPutsLengthHighAfterPayload)
{
    Bytes payload(300);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<unsigned char>(i * 7 + 1);
    ProtoRequest request = makeRequest(9, CMD_EXTENDED, payload);
    Bytes out;
    encodeRequest(request, out);

    ASSERT_EQ(out.size(), 309u);
    EXPECT_EQ(out[1], 0x2C);
    EXPECT_EQ(out[2], 9);
    EXPECT_EQ(out[3], CMD_EXTENDED);
    EXPECT_EQ(Bytes(out.begin() + 4, out.begin() + 304), payload);
    EXPECT_EQ(out[304], 0x01);
    EXPECT_EQ(out[305], 0x00);
    EXPECT_EQ(out[306], 0x00);
    EXPECT_EQ(out[307], 0x00);
    unsigned sum = 0;
    for (size_t i = 0; i < 308; ++i)
        sum += out[i];
    EXPECT_EQ(out[308], sum % 256);
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

TEST(FrameDecoding, GoodFramesLoseOnlyTheirChecksumByte)
{
    // An 8-byte response (empty payload) and a longer one whose sum wraps.
    Bytes shortResponse{0x01, 0x03, 0x07, 0x00, 0xAA, 0xBB, 0xCC, 0x00};
    shortResponse.back() = calculateChecksum(shortResponse.data(), 7);
    Bytes expected(shortResponse.begin(), shortResponse.end() - 1);
    EXPECT_EQ(decodeResponse(shortResponse), 0);
    EXPECT_EQ(shortResponse, expected);

    Bytes longResponse{0x01, 0x08, 0x07, 0x00, 0xF0, 0xF1, 0xF2, 0x11, 0x22, 0x33, 0x44, 0x8D};
    EXPECT_EQ(decodeResponse(longResponse), 0);
    EXPECT_EQ(longResponse.size(), 11u);

    // A 5-byte notification (empty payload) and one with a payload.
    Bytes shortNotification{0x02, 0x00, 0x00, 0x01, 0x03};
    EXPECT_EQ(decodeNotification(shortNotification), 0);
    EXPECT_EQ(shortNotification, (Bytes{0x02, 0x00, 0x00, 0x01}));

    Bytes notification{0x02, 0x02, 0x05, 0x00, 0x80, 0x81, 0x0A};
    EXPECT_EQ(decodeNotification(notification), 0);
    EXPECT_EQ(notification.size(), 6u);
}

TEST(FrameDecoding, FourByteFrameIsCheckedAgainstItsFirstThreeBytes)
{
    Bytes good{0x01, 0x10, 0x20, 0x31};
    EXPECT_EQ(decodeResponse(good), 0);
    EXPECT_EQ(good, (Bytes{0x01, 0x10, 0x20}));

    Bytes bad{0x02, 0x10, 0x20, 0x30};
    EXPECT_EQ(decodeNotification(bad), -1);
    EXPECT_EQ(bad.size(), 3u);
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

TEST(FrameDecoding, WrongChecksumIsLoggedWithTheDecoderName)
{
    zor_test::LogLines log;

    Bytes response{0x01, 0x04, 0x09, 0x00, 0x01, 0x02, 0x03, 0xFA, 0xFF};
    EXPECT_EQ(decodeResponse(response), -1);
    EXPECT_EQ(response, (Bytes{0x01, 0x04, 0x09, 0x00, 0x01, 0x02, 0x03, 0xFA}));

    Bytes notification{0x02, 0x01, 0x00, 0x00, 0xC8, 0x00};
    EXPECT_EQ(decodeNotification(notification), -1);
    EXPECT_EQ(notification.size(), 5u);

    // Both values print as 0-255: 0x0E is the wrapped sum of the response.
    EXPECT_EQ(log.messages("BluetoothLEProtocol", "decodeResponse"),
              std::vector<std::string>{"checksum: 255, calculateChecksum: 14"});
    EXPECT_EQ(log.messages("BluetoothLEProtocol", "decodeNotification"),
              std::vector<std::string>{"checksum: 0, calculateChecksum: 203"});
}
