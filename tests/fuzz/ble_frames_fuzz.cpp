// Fuzzes the two frame decoders, the battery decoder and the device object's
// handling of whatever the Bluetooth link delivers. The only exception
// allowed out is std::out_of_range from a checked access on a short frame;
// anything else, and any memory error, crashes.
//
// Input: a header byte, then records.
//   header bits 5-6: 0 the exchange, as below; 1 the all-status query, 2 the
//          battery query, 3 an update chunk, each answered with the first
//          record's bytes as a well-formed answer
//   header bit 0: the request wants an answer
//          bit 1: use the raw pass-through instead of the framed exchange
//          bit 2: the transport refuses the send
//          bits 3-4: command type
//   record: a flags byte; flags bit 0 means "this wait fails" and ends the
//   record; otherwise a length byte and that many frame bytes follow (cut at
//   the end of the input). Flags bit 1 stamps the request's sequence number
//   into frame byte 2, bit 2 makes the last byte the correct checksum.
#include "ble/ble_protocol.h"
#include "device/zor.h"
#include "scripted_transport.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <vector>

using zor_test::Bytes;
using zor_test::ScriptedTransport;

class CZORTestAccess {
public:
    static std::mutex &bleMutex(CZOR &device) { return device.m_bleMutex; }
    static void knowFirmware(CZOR &device)
    {
        device.fwVersion = 382;
        device.m_bHasModelString = true;
    }
};

namespace {

struct Record {
    bool failedWait = false;
    bool stampSequence = false;
    bool fixChecksum = false;
    Bytes bytes;
};

void require(bool condition)
{
    if (!condition)
        std::abort();
}

void checkPairState(ZOR_ERROR_CODE code)
{
    require(code == ZOR_SUCCESS || code == ZOR_ERROR_BLE_PAIR_REJECTED || code == ZOR_ERROR_BLE_NEW_CONNECTION);
}

CZOR &device()
{
    static CZOR instance;
    return instance;
}

std::vector<Record> parseRecords(const uint8_t *data, size_t size)
{
    std::vector<Record> records;
    for (size_t i = 0; i < size;) {
        const uint8_t flags = data[i++];
        Record record{(flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0, {}};
        if (!record.failedWait) {
            if (i >= size)
                break;
            const size_t length = std::min<size_t>(data[i], size - i - 1);
            record.bytes.assign(data + i + 1, data + i + 1 + length);
            i += 1 + length;
        }
        records.push_back(std::move(record));
    }
    return records;
}

Bytes finish(const Record &record, uint8_t sequence)
{
    Bytes frame = record.bytes;
    if (record.stampSequence && frame.size() > 2)
        frame[2] = sequence;
    if (record.fixChecksum && !frame.empty())
        frame.back() = BLEProtocol::calculateChecksum(frame.data(), frame.size() - 1);
    return frame;
}

void fuzzDecoders(const uint8_t *data, size_t size)
{
    for (int notification = 0; notification < 2; ++notification) {
        Bytes frame(data, data + size);
        try {
            const int32_t ret =
                notification ? BLEProtocol::decodeNotification(frame) : BLEProtocol::decodeResponse(frame);
            require(ret == 0 || ret == -1);
            require(size >= 4 && frame.size() == size - 1);
        } catch (const std::out_of_range &) {
            require(size < 4 && frame.size() == size);
        }
    }
}

void fuzzBatteryDecoder(const uint8_t *data, size_t size)
{
    // Exactly as long as the input, so that a read past it is caught.
    const Bytes block(data, data + size);
    ZOR_BATTERY_INFO info;
    const int ret = device().parseBatteryInfo(block.data(), block.size(), &info);
    // An empty vector may have no storage at all: a null block.
    require(ret == ZOR_SUCCESS || ret == ZOR_ERROR_BATTERY_DATA || (ret == ZOR_ERROR_BAD_DATA && size < 11) ||
            (ret == ZOR_ERROR_INVALID_VALUE && size == 0));
}

// The decoders behind one query, fed a well-formed answer of any content.
void fuzzAnswerDecoders(int query, const std::vector<Record> &records)
{
    CZOR &zor = device();
    CZORTestAccess::knowFirmware(zor);
    auto owned = std::make_unique<ScriptedTransport>();
    const Bytes content = records.empty() ? Bytes{} : records[0].bytes;
    owned->setResponder([content](const Bytes &sent) {
        return std::vector<Bytes>{zor_test::responseFrame(zor_test::sequenceOf(sent), 0, content)};
    });
    zor.setBleManager(std::move(owned));

    ZOR_ALL_INFO all;
    ZOR_BATTERY_INFO battery;
    const int ret = query == 1   ? zor.BLEGetAllInfo(&all)
                    : query == 2 ? zor.getBatteryInfo(&battery, true)
                                 : zor.BLEWriteUpdateFile(ZOR_BLE_FILE_BUF{480, {}});
    // Refused by its length or content, never a crash.
    require(ret == ZOR_SUCCESS || ret == ZOR_ERROR_INVALID_VALUE || ret == ZOR_ERROR_BATTERY_DATA ||
            ret == ZOR_ERROR_BAD_DATA || ret == ZOR_ERROR_BLE_UPDATE_ACK);
}

void fuzzExchange(uint8_t header, const std::vector<Record> &records)
{
    CZOR &zor = device();
    auto owned = std::make_unique<ScriptedTransport>();
    ScriptedTransport *transport = owned.get();
    zor.setBleManager(std::move(owned));
    transport->setSendAccepted(!(header & 4));

    const bool wait = header & 1;
    const auto type = static_cast<BLEProtocol::CommandType>((header >> 3) & 3);
    const Bytes untouched{0xA5};
    Bytes response = untouched;

    if (header & 2) {
        // Raw pass-through: the first record is the input, the rest arrive.
        Bytes input = records.empty() ? Bytes{} : records[0].bytes;
        for (size_t r = 1; r < records.size(); ++r) {
            transport->scriptWaits({!records[r].failedWait});
            if (!records[r].failedWait)
                transport->queueFrame(records[r].bytes);
        }
        // Exactly as large as the input, so that a write past it is caught.
        std::vector<char> output(input.size());
        const int ret = zor.BLESendData(type, reinterpret_cast<char *>(input.data()), static_cast<int>(input.size()),
                                        wait, output.data());
        require(ret == ZOR_SUCCESS || ret == ZOR_ERROR_INVALID_VALUE);
        return;
    }

    for (const Record &record : records)
        transport->scriptWaits({!record.failedWait});
    transport->setResponder([&records](const Bytes &sent) {
        std::vector<Bytes> frames;
        for (const Record &record : records) {
            if (!record.failedWait)
                frames.push_back(finish(record, zor_test::sequenceOf(sent)));
        }
        return frames;
    });

    int ret = -1;
    try {
        ret = zor.bleSendData(type, {0x7E, 0x5A, 0x02, 0x03}, wait, response);
    } catch (const std::out_of_range &) {
        ret = -1;
    }
    std::mutex &lock = CZORTestAccess::bleMutex(zor);
    require(lock.try_lock());
    lock.unlock();
    if (ret == -1)
        return;
    require(ret == ZOR_SUCCESS || ret == ZOR_ERROR_BLE_RESPONSE || ret == ZOR_ERROR_BLE_SEND ||
            ret == ZOR_ERROR_BLE_PAIR_REJECTED || ret == ZOR_ERROR_BLE_TIMEOUT);
    if (ret != ZOR_SUCCESS)
        require(response == untouched);
    if (!wait || ret == ZOR_ERROR_BLE_SEND)
        require(transport->waitCalls() == 0);
    // Every wait but the new-connection ones consumes a scripted outcome.
    require(transport->waitCalls() <= static_cast<int>(records.size()) + 13);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Keep the device object's log away from the real home directory.
    setenv("HOME", ZOR_FUZZ_HOME, 1);
    device().setPairStateCallback(checkPairState);
    // Messages are still formatted, but not written: the file writes would
    // dominate the run time.
    spdlog::default_logger()->set_level(spdlog::level::off);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzDecoders(data, size);
    fuzzBatteryDecoder(data, size);
    if (size == 0)
        return 0;
    const int query = (data[0] >> 5) & 3;
    if (query)
        fuzzAnswerDecoders(query, parseRecords(data + 1, size - 1));
    else
        fuzzExchange(data[0], parseRecords(data + 1, size - 1));
    return 0;
}
