#include "device/zor.h"

#include "home_sandbox.h"
#include "log_lines.h"
#include "scripted_transport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

using zor_test::Bytes;
using zor_test::corrupted;
using zor_test::notificationFrame;
using zor_test::responseFrame;
using zor_test::ScriptedTransport;
using zor_test::sequenceOf;

class CZORTestAccess {
public:
    static std::mutex &bleMutex(CZOR &device) { return device.m_bleMutex; }
};

namespace {

const Bytes kGetParams{0x7E, 0x5A, 0x02, 0x03};

// Pair states the device object reported. Only requests that meet
// notifications report them, and none of those run on several threads.
std::vector<int> g_pairCodes;
void recordPairState(ZOR_ERROR_CODE code) { g_pairCodes.push_back(code); }

// Answers every request with the frames `make` builds from its sequence.
ScriptedTransport::Responder answer(std::function<std::vector<Bytes>(uint8_t)> make)
{
    return [make](const Bytes &sent) { return make(sequenceOf(sent)); };
}

bool lockIsFree(CZOR &device)
{
    std::mutex &mutex = CZORTestAccess::bleMutex(device);
    if (!mutex.try_lock())
        return false;
    mutex.unlock();
    return true;
}

class BleExchange : public ::testing::Test {
protected:
    void SetUp() override
    {
        zor_test::sandboxHome();
        device = std::make_unique<CZOR>();
        transport = attach(*device);
        g_pairCodes.clear();
        device->setPairStateCallback(recordPairState);
    }

    template <class Transport = ScriptedTransport> static Transport *attach(CZOR &target)
    {
        auto owned = std::make_unique<Transport>();
        Transport *raw = owned.get();
        target.setBleManager(std::move(owned));
        return raw;
    }

    int request(Bytes &response, bool wait = true, const Bytes &payload = kGetParams)
    {
        return device->bleSendData(BLEProtocol::CMD_DEVICE, payload, wait, response);
    }

    std::vector<std::string> exchangeLog() const { return log.messages("ZOR", "bleSendData"); }

    std::unique_ptr<CZOR> device;
    ScriptedTransport *transport = nullptr;
    zor_test::LogLines log;
};

} // namespace

TEST_F(BleExchange, FramedRequestsWaitOnlyWhenAskedAndFailuresLeaveResponseAlone)
{
    transport->queueFrame(responseFrame(0, 0));
    Bytes response{0xEE};
    ASSERT_EQ(request(response, false), ZOR_SUCCESS);

    ASSERT_EQ(transport->sent().size(), 1u);
    const uint8_t seq = sequenceOf(transport->sent()[0]);
    EXPECT_EQ(transport->sent()[0], zor_test::withChecksum({0x00, 0x04, seq, 0x02, 0x7E, 0x5A, 0x02, 0x03, 0, 0, 0, 0}));
    EXPECT_EQ(transport->sendArguments(), (std::vector<std::pair<uint32_t, uint32_t>>{{3, 0}}));
    EXPECT_EQ(transport->isReadCalls(), std::vector<bool>{false});
    EXPECT_EQ(transport->waitCalls(), 0);
    EXPECT_EQ(transport->receiveCalls(), 0);
    EXPECT_EQ(response, Bytes{0xEE});
    EXPECT_EQ(exchangeLog(), std::vector<std::string>{"input:02, 03, iCommandId:" + std::to_string(seq)});

    // A refused send and a failed wait leave the response alone too.
    transport->setResponder(answer([](uint8_t s) { return std::vector<Bytes>{responseFrame(s, 0)}; }));
    transport->setSendAccepted(false);
    EXPECT_EQ(request(response), ZOR_ERROR_BLE_SEND);
    EXPECT_EQ(transport->waitCalls(), 0);
    EXPECT_EQ(transport->isReadCalls(), (std::vector<bool>{false, true}));

    transport->setSendAccepted(true);
    transport->scriptWaits({false});
    EXPECT_EQ(request(response), ZOR_ERROR_BLE_TIMEOUT);
    EXPECT_EQ(transport->waitCalls(), 1);
    EXPECT_EQ(transport->receiveCalls(), 0);
    EXPECT_EQ(response, Bytes{0xEE});
}

// What arrives after a request, and what the request makes of it. `answer`
// is what the caller gets back (from the request's sequence), or nothing
// when its vector is to stay untouched.
TEST_F(BleExchange, AnswersNotificationsAndTheirOutcomes)
{
    using Frames = std::function<std::vector<Bytes>(uint8_t)>;
    struct Case {
        const char *what;
        Frames frames;
        int result;
        std::function<Bytes(uint8_t)> answer;
        std::vector<int> pairCodes;
        std::string lastLine;
    };
    const Bytes untouched{0xEE};
    const auto stripped = [](Bytes frame) { return Bytes(frame.begin() + 1, frame.end()); };
    const Case cases[] = {
        {"a checked answer loses its type and checksum",
         [](uint8_t s) { return std::vector<Bytes>{responseFrame(s, 0, {0xA1, 0xA2, 0xA3, 0x10})}; }, ZOR_SUCCESS,
         [](uint8_t s) { return Bytes{0x04, s, 0x00, 0xA1, 0xA2, 0xA3, 0x10}; }, {}, "decodeResponse ret:0"},
        {"a wrong checksum", [](uint8_t s) { return std::vector<Bytes>{corrupted(responseFrame(s, 0, {0x01}))}; },
         ZOR_ERROR_BLE_RESPONSE, nullptr, {}, "decodeResponse ret:-1"},
        {"another status passes unchecked, checksum and all",
         [](uint8_t s) { return std::vector<Bytes>{corrupted(responseFrame(s, 0x05, {0x31, 0x32, 0x33}))}; },
         ZOR_SUCCESS, [&](uint8_t s) { return stripped(corrupted(responseFrame(s, 0x05, {0x31, 0x32, 0x33}))); }, {},
         "input:02, 03, iCommandId:"},
        {"an unknown type too short for a status",
         [](uint8_t s) { return std::vector<Bytes>{Bytes{0x07, 0x00, s}}; }, ZOR_SUCCESS,
         [](uint8_t s) { return Bytes{0x00, s}; }, {}, "input:02, 03, iCommandId:"},
        {"a stale answer is dropped",
         [](uint8_t s) {
             return std::vector<Bytes>{responseFrame(uint8_t(s - 1), 0, {1}), responseFrame(s, 0, {2})};
         },
         ZOR_SUCCESS, [](uint8_t s) { return Bytes{0x01, s, 0x00, 2}; }, {}, "decodeResponse ret:0"},
        {"other notifications are skipped",
         [](uint8_t s) { return std::vector<Bytes>{notificationFrame(0x07, {0x01}), responseFrame(s, 0, {9})}; },
         ZOR_SUCCESS, [](uint8_t s) { return Bytes{0x01, s, 0x00, 9}; }, {}, "decodeResponse ret:0"},
        {"a notification with a wrong checksum",
         [](uint8_t s) { return std::vector<Bytes>{corrupted(notificationFrame(0x00)), responseFrame(s, 0)}; },
         ZOR_ERROR_BLE_RESPONSE, nullptr, {}, "decodeNotification ret:-1"},
        {"a refused pairing ends the request",
         [](uint8_t s) { return std::vector<Bytes>{notificationFrame(0x01), responseFrame(s, 0, {5})}; },
         ZOR_ERROR_BLE_PAIR_REJECTED, nullptr, {ZOR_ERROR_BLE_PAIR_REJECTED}, "bleSendData recv Notification data"},
        {"so does an accepted one, unanswered",
         [](uint8_t s) { return std::vector<Bytes>{notificationFrame(0x00), responseFrame(s, 0, {5})}; }, ZOR_SUCCESS,
         nullptr, {ZOR_SUCCESS}, "bleSendData recv Notification data"},
    };
    for (const Case &c : cases) {
        transport = attach(*device);
        transport->setResponder(answer(c.frames));
        g_pairCodes.clear();
        Bytes response = untouched;
        EXPECT_EQ(request(response), c.result) << c.what;
        const uint8_t seq = sequenceOf(transport->sent().back());
        EXPECT_EQ(response, c.answer ? c.answer(seq) : untouched) << c.what;
        EXPECT_EQ(g_pairCodes, c.pairCodes) << c.what;
        EXPECT_EQ(exchangeLog().back().rfind(c.lastLine, 0), 0u) << c.what << ": " << exchangeLog().back();
    }
    const std::vector<std::string> lines = exchangeLog();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string &l) { return l.rfind("Received outdated response, expected", 0) == 0; }),
              1);
}

// A new connection tolerates twelve empty waits, counted over the whole exchange.
TEST_F(BleExchange, NewConnectionToleratesTwelveFailedWaits)
{
    transport->setResponder(
        answer([](uint8_t seq) { return std::vector<Bytes>{responseFrame(seq, BLEProtocol::STATUS_NEW_CONNECTION)}; }));
    Bytes response{0xEE};
    EXPECT_EQ(request(response), ZOR_ERROR_BLE_TIMEOUT);
    EXPECT_EQ(g_pairCodes, std::vector<int>{ZOR_ERROR_BLE_NEW_CONNECTION});
    EXPECT_EQ(transport->waitCalls(), 14);
    EXPECT_EQ(response, Bytes{0xEE});

    std::vector<std::string> expected{"This is a new connection."};
    for (int i = 1; i <= 12; ++i)
        expected.push_back("This is bIsNewConnect, iWaitNums" + std::to_string(i));
    auto lines = exchangeLog();
    lines.erase(lines.begin(), std::find(lines.begin(), lines.end(), expected.front()));
    EXPECT_EQ(lines, expected);

    // The real answer after three empty waits.
    transport->setResponder(answer([](uint8_t seq) {
        return std::vector<Bytes>{responseFrame(seq, BLEProtocol::STATUS_NEW_CONNECTION), responseFrame(seq, 0, {7})};
    }));
    transport->scriptWaits({true, false, false, false});
    ASSERT_EQ(request(response), ZOR_SUCCESS);
    EXPECT_EQ(response.back(), 7);
    EXPECT_EQ(transport->waitCalls(), 14 + 5);

    // Five empty waits, a stale answer, then the count goes on from six: the
    // thirteenth empty wait overall ends the exchange.
    transport->setResponder(answer([](uint8_t seq) {
        return std::vector<Bytes>{responseFrame(seq, BLEProtocol::STATUS_NEW_CONNECTION),
                                  responseFrame(static_cast<uint8_t>(seq - 1), 0)};
    }));
    transport->scriptWaits({true, false, false, false, false, false});
    EXPECT_EQ(request(response), ZOR_ERROR_BLE_TIMEOUT);
    EXPECT_EQ(transport->waitCalls(), 14 + 5 + 1 + 5 + 1 + 8);
    EXPECT_EQ(g_pairCodes.size(), 3u);
}

TEST_F(BleExchange, SequenceWrapsAfter255AndStillMatches)
{
    Bytes unused;
    ASSERT_EQ(request(unused, false), ZOR_SUCCESS);
    const uint8_t first = sequenceOf(transport->sent().back());
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(request(unused, false), ZOR_SUCCESS);
    const auto sent = transport->sent();
    for (size_t i = 1; i < sent.size(); ++i)
        ASSERT_EQ(sequenceOf(sent[i]), static_cast<uint8_t>(sequenceOf(sent[i - 1]) + 1));
    EXPECT_EQ(sequenceOf(sent.back()), first);

    while (sequenceOf(transport->sent().back()) != 254)
        ASSERT_EQ(request(unused, false), ZOR_SUCCESS);
    transport->setResponder(answer([](uint8_t seq) { return std::vector<Bytes>{responseFrame(seq, 0, {seq})}; }));
    Bytes response;
    ASSERT_EQ(request(response), ZOR_SUCCESS);
    EXPECT_EQ(response.back(), 255);
    ASSERT_EQ(request(response), ZOR_SUCCESS);
    EXPECT_EQ(sequenceOf(transport->sent().back()), 0);
    EXPECT_EQ(response.back(), 0);
}

TEST_F(BleExchange, OutOfRangeErrorsReleaseTheLock)
{
    Bytes response;
    // The tail of a firmware image may be shorter than a command: it is sent.
    EXPECT_EQ(request(response, false, {0x7E}), ZOR_SUCCESS);
    EXPECT_EQ(transport->sent().size(), 1u);

    // An empty frame, a response too short for its sequence, a notification
    // that has no status left once its checksum is gone.
    for (const Bytes &frame : {Bytes{}, Bytes{0x01, 0x00}, Bytes{0x02, 0x00, 0x00, 0x02}}) {
        transport->queueFrame(frame);
        EXPECT_THROW(request(response), std::out_of_range);
        EXPECT_TRUE(lockIsFree(*device));
    }

    transport->setResponder(answer([](uint8_t seq) { return std::vector<Bytes>{responseFrame(seq, 0)}; }));
    EXPECT_EQ(request(response), ZOR_SUCCESS);
}

namespace {

// Notes every send that begins while another request still awaits its answer.
class OverlapCheckingTransport : public ScriptedTransport {
public:
    bool SendData(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2) override
    {
        if (m_inFlight.exchange(true))
            ++overlaps;
        for (int i = 0; i < 20; ++i)
            std::this_thread::yield();
        return ScriptedTransport::SendData(data, reserved1, reserved2);
    }
    void GetReceivedData(std::vector<unsigned char> &data) override
    {
        ScriptedTransport::GetReceivedData(data);
        m_inFlight = false;
    }
    std::atomic<int> overlaps{0};

private:
    std::atomic<bool> m_inFlight{false};
};

} // namespace

// Two callers on each of two devices: each device serialises its exchanges
// and hands every caller its own answer, and no two exchanges share a
// sequence number, whichever device they go to.
TEST_F(BleExchange, ConcurrentCallersAreSerialisedGetTheirOwnAnswersAndOwnSequences)
{
    CZOR other;
    OverlapCheckingTransport *const checking[] = {attach<OverlapCheckingTransport>(*device),
                                                  attach<OverlapCheckingTransport>(other)};
    // The answer echoes the request's two command bytes.
    for (OverlapCheckingTransport *t : checking)
        t->setResponder([](const Bytes &sent) {
            return std::vector<Bytes>{responseFrame(sequenceOf(sent), 0, {0, 0, 0, sent.at(6), sent.at(7)})};
        });

    constexpr int kRequests = 60;
    CZOR *const targets[] = {device.get(), &other, device.get(), &other};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRequests; ++i) {
                Bytes response;
                const Bytes payload{0x7E, 0x5A, static_cast<unsigned char>(t), static_cast<unsigned char>(i)};
                if (targets[t]->bleSendData(BLEProtocol::CMD_DEVICE, payload, true, response) != ZOR_SUCCESS ||
                    response.size() != 8 || response[6] != t || response[7] != i)
                    ++mismatches;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    std::set<uint8_t> seen;
    for (OverlapCheckingTransport *t : checking) {
        EXPECT_EQ(t->overlaps.load(), 0);
        EXPECT_EQ(t->sent().size(), 2u * kRequests);
        for (const Bytes &frame : t->sent())
            seen.insert(sequenceOf(frame));
    }
    EXPECT_EQ(seen.size(), 4u * kRequests);
}

TEST_F(BleExchange, RawPassThroughSendsUnframedAndCopiesAnswersThatFit)
{
    char input[] = {'A', 'B', 'C', 'D'};
    char output[8];
    std::memset(output, 0x55, sizeof output);

    // The send's result is not looked at; nothing is read without a wait.
    transport->setSendAccepted(false);
    EXPECT_EQ(device->BLESendData(2, input, 4, false, output), ZOR_SUCCESS);
    EXPECT_EQ(transport->sent(), std::vector<Bytes>{Bytes({'A', 'B', 'C', 'D'})});
    EXPECT_EQ(transport->sendArguments().back(), (std::pair<uint32_t, uint32_t>{3, 0}));
    EXPECT_EQ(transport->waitCalls(), 0);
    EXPECT_TRUE(transport->isReadCalls().empty());

    // It is an exchange like the framed ones: it holds the exchange lock.
    bool lockedDuringSend = false;
    transport->setResponder([&](const Bytes &) {
        lockedDuringSend = std::async(std::launch::async, [&] { return !lockIsFree(*device); }).get();
        return std::vector<Bytes>{};
    });
    transport->setSendAccepted(true);
    transport->queueFrame({1, 2, 3, 4});
    EXPECT_EQ(device->BLESendData(2, input, 4, true, output), ZOR_SUCCESS);
    EXPECT_TRUE(lockedDuringSend);
    EXPECT_EQ(Bytes(output, output + 8), (Bytes{1, 2, 3, 4, 0x55, 0x55, 0x55, 0x55}));

    transport->queueFrame({9, 9, 9, 9, 9});
    EXPECT_EQ(device->BLESendData(2, input, 4, true, output), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(output[0], 1);

    // A failed wait is not looked at either: the last stored answer is used.
    transport->scriptWaits({false});
    std::memset(output, 0x55, sizeof output);
    EXPECT_EQ(device->BLESendData(2, input, 4, true, output), ZOR_ERROR_INVALID_VALUE);
    transport->queueFrame({6});
    transport->scriptWaits({true});
    EXPECT_EQ(device->BLESendData(2, input, 2, true, output), ZOR_SUCCESS);
    EXPECT_EQ(output[0], 6);
    EXPECT_EQ(output[1], 0x55);

    EXPECT_EQ(log.messages("ZOR", "BLESendData"),
              (std::vector<std::string>{"vInputData.size:4", "vInputData.size:4", "receivedData.size:4",
                                        "vInputData.size:4", "Output buffer too small for received data",
                                        "vInputData.size:4", "Output buffer too small for received data",
                                        "vInputData.size:2", "receivedData.size:1"}));
}

TEST(BleExchangeWithoutTransport, ReportsNotConnected)
{
    zor_test::sandboxHome();
    CZOR device;
    Bytes response;
    EXPECT_EQ(device.bleSendData(BLEProtocol::CMD_DEVICE, kGetParams, true, response), ZOR_ERROR_BLE_NOT_CONNECTED);
    char input[] = {1, 2, 3, 4};
    EXPECT_EQ(device.BLESendData(2, input, 4, false, input), ZOR_ERROR_BLE_NOT_CONNECTED);
}
