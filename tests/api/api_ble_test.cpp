// The Bluetooth calls end to end: each device object made by ZORBLEConnect
// reaches the scripted platform manager through a factory handle.
#include "api_fixture.h"

#include "ble/scripted_transport.h"
#include "device/zor.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

using zor_test::Bytes;
using zor_test::payloadOf;

class CZORTestAccess {
public:
    // The old-firmware flag, the two session flags, connected, then whether
    // each capability is supported.
    static std::vector<int> state(CZOR &d)
    {
        std::vector<int> s{d.m_bRawTempAdc, d.m_bBlePaired, d.m_bBleSessionReady, d.m_bBleConnected};
        for (int id = 0; id < kNumControlTypes; ++id)
            s.push_back(d.featureSupported(id));
        return s;
    }
    static void setMoving(CZOR &d) { d.m_iEnabled = 1; }
};

namespace {

constexpr int kId = ZOR_BLE_ID_BASE;
std::vector<int> g_events; // pair states, and connection states as 100 + connected
void onPairState(ZOR_ERROR_CODE code) { g_events.push_back(code); }
void onConnState(bool connected) { g_events.push_back(100 + connected); }

class BluetoothCalls : public ApiTest {
protected:
    using Frames = std::function<std::vector<Bytes>(uint8_t sequence)>;

    void SetUp() override
    {
        ApiTest::SetUp();
        link().setLocalAddress("00:11:22:33:44:55");
        // The newest answer whose command type and payload start match the
        // request answers it; nothing else is answered (a time-out).
        link().setResponder([this](const Bytes &sent) {
            const Bytes p = payloadOf(sent);
            for (const auto &[start, frames] : answers)
                if (!p.empty() && start[0] == sent[3] && p.size() + 1 >= start.size() &&
                    std::equal(start.begin() + 1, start.end(), p.begin()))
                    return frames(zor_test::sequenceOf(sent));
            return std::vector<Bytes>{};
        });
        answer({BLEProtocol::CMD_PAIR}, {});
    }

    static zor_test::ScriptedTransport &link() { return zor_test::platformTransport(); }
    static CZOR &device() { return *pZOR[kId].load(); }
    void answerWith(Bytes start, Frames frames) { answers.insert(answers.begin(), {start, frames}); }
    void answer(Bytes start, Bytes content)
    {
        answerWith(start, [=](uint8_t seq) { return std::vector<Bytes>{zor_test::responseFrame(seq, 0, content)}; });
    }
    // A query's answer: its code, then `data` from answer byte 4 on.
    void answerQuery(unsigned char code, Bytes data)
    {
        data.insert(data.begin(), code);
        answer({BLEProtocol::CMD_DEVICE, 0x7E, 0x5A, 0x02, code}, data);
    }
    // Connects ID 50 to a device on `firmware` and pairs; a model string
    // opens the identity calls.
    void pairWith(int firmware, const std::string &model = "")
    {
        Bytes version{static_cast<unsigned char>(firmware / 100), static_cast<unsigned char>(firmware / 10 % 10),
                      static_cast<unsigned char>(firmware % 10)};
        if (!model.empty()) {
            version.push_back('E');
            version.insert(version.end(), model.c_str(), model.c_str() + model.size() + 1);
        }
        answerQuery(0x04, version);
        int id = -1;
        ASSERT_EQ(ZORBLEConnect("ZOR Pro_1", "", &id), ZOR_SUCCESS);
        ASSERT_EQ(ZORBLEPair(kId), ZOR_SUCCESS);
    }

    std::vector<std::pair<Bytes, Frames>> answers;
};

TEST_F(BluetoothCalls, ScanFillsAtMostTheArrayAndLeavesEachFieldsLastByte)
{
    const std::string long63(63, 'n'), long64(64, 'm');
    link().setScanResult({{long63, "AA:BB", "", -70, 0xAABB},
                          {long64, long64, "", 5, 1},
                          {"c", "", "", 0, 0},
                          {"d", "", "", 0, 0},
                          {"e", "", "", 0, 0}});
    BLE_DEVICE_INFO list[4];
    std::memset(list, 0xEE, sizeof list);
    int count = -1;
    ASSERT_EQ(ZORBLEScan(100, list, 0, &count), ZOR_SUCCESS);
    EXPECT_EQ(count, 0);
    ASSERT_EQ(ZORBLEScan(100, list, 3, &count), ZOR_SUCCESS);
    EXPECT_EQ(count, 3);
    for (const char *field : {list[0].Name, list[1].Name, list[1].Address})
        EXPECT_EQ(std::string(field, 64), std::string(field, 63) + '\xEE');
    EXPECT_EQ(std::string(list[0].Name, 63) + list[1].Name[62] + list[2].Name + list[0].Address, long63 + "mcAA:BB");
    EXPECT_EQ(std::make_pair(list[0].RSSI, list[0].BluetoothAddress), std::make_pair(-70, int64_t{0xAABB}));
    EXPECT_EQ(list[3].Name[0], '\xEE');

    link().setSupported(false);
    count = 7;
    EXPECT_EQ(ZORBLEScan(100, list, 3, &count), ZOR_ERROR_BLE_UNAVAILABLE);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(ZORBLEScan(100, list, -1, &count), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(ZORBLEScan(-1, list, 3, &count), ZOR_ERROR_INVALID_VALUE);
}

TEST_F(BluetoothCalls, IdsAreHandedOutAndTakenBackAsAStack)
{
    // c: connect, f: a connect that fails, d: disconnect, each with the ID it
    // gives or takes; R: the connect reuses that ID's object.
    for (const char *sequence : {"c50 c51 d51 c51", "c50 c51 d50 R51", "f50 c50"}) {
        std::istringstream steps(sequence);
        char op;
        int expected;
        CZOR *objects[ZOR_MAX_NUM] = {};
        while (steps >> op >> expected) {
            link().setConnectResult(op != 'f');
            int id = -1;
            const ZOR_ERROR_CODE result = op == 'd' ? ZORBLEDisconnect(expected) : ZORBLEConnect("Z", nullptr, &id);
            EXPECT_EQ(result, op == 'f' ? ZOR_ERROR_BLE_CONNECT_FAILED : ZOR_SUCCESS) << sequence;
            EXPECT_EQ(op == 'd' ? expected : id, expected) << sequence;
            EXPECT_EQ(pZOR[expected].load() != nullptr, op == 'c' || op == 'R') << sequence;
            EXPECT_TRUE(op != 'R' || pZOR[expected].load() == objects[expected]) << sequence;
            objects[expected] = pZOR[expected].load();
        }
        for (int id = kId; id < ZOR_MAX_NUM; ++id)
            ZORBLEDisconnect(id);
        g_BleStartId = kId;
    }
    EXPECT_EQ(link().receiveDataArguments().back(), std::make_pair(3u, 0u));

    // No ID beyond the table is handed out; calls that index it refuse one.
    g_BleStartId = ZOR_MAX_NUM;
    int id = -1;
    EXPECT_EQ(ZORBLEConnect("Z", "", &id), ZOR_ERROR_BLE_CONNECT_FAILED);
    EXPECT_EQ(std::make_pair(id, g_BleStartId), std::make_pair(-1, ZOR_MAX_NUM));
    EXPECT_EQ(ZORBLEDisconnect(ZOR_MAX_NUM), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(ZORBLEPair(-1), ZOR_ERROR_INVALID_ID);
}

TEST_F(BluetoothCalls, PairingSendsTheHostAddressAndOpensTheCallsOfItsFirmware)
{
    const std::pair<int, std::vector<int>> cases[] = {
        {335, {0, 0, 0, 1, /* features */ 0, 0, 1, 0, 0, 0, 0, 0}},
        {336, {0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
        {366, {0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
        {381, {0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
        {382, {0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}},
    };
    for (const auto &[firmware, state] : cases) {
        pairWith(firmware);
        const std::vector<Bytes> sent = link().sent(); // pairing, version, status
        EXPECT_EQ(payloadOf(sent.at(sent.size() - 3)),
                  Bytes({'0', '0', '1', '1', '2', '2', '3', '3', '4', '4', '5', '5'}));
        EXPECT_EQ(CZORTestAccess::state(device()), state) << firmware;
        int range = 0;
        EXPECT_EQ(ZORStepRange(kId, &range), ZOR_SUCCESS);
        EXPECT_EQ(range, firmware > 335 ? 600000 : 60000);
        ZOR_BATTERY_INFO b;
        EXPECT_EQ(ZORGetBatteryInfo(kId, &b), ZOR_ERROR_NOT_SUPPORTED) << "no model string";
        // The all-status query from 367, the update from 382; unanswered above.
        ZOR_ALL_INFO info;
        EXPECT_EQ(ZORBLEgetAllInfo(kId, &info), firmware < 367 ? ZOR_ERROR_NOT_SUPPORTED : ZOR_ERROR_BLE_TIMEOUT);
        EXPECT_EQ(ZORBLEStartUpdate(kId, 1), firmware < 382 ? ZOR_ERROR_NOT_SUPPORTED : ZOR_ERROR_BLE_TIMEOUT);
        EXPECT_EQ(ZORBLEWriteUpdateFile(kId, {4, {}}), firmware < 382 ? ZOR_ERROR_NOT_SUPPORTED : ZOR_ERROR_BLE_TIMEOUT);
        EXPECT_EQ(link().sent().size() - sent.size(), firmware < 367 ? 0u : firmware < 382 ? 1u : 3u);
        ASSERT_EQ(ZORBLEDisconnect(kId), ZOR_SUCCESS);
    }

    // A model string opens the identity calls; the battery block is read from
    // answer byte 4, as over USB.
    pairWith(382, "ZOR Pro");
    answerQuery(0x0C, {'S', 'N', '1', '2', '3', '4', '5', '6'});
    answerQuery(0x1E, {0xAA, 125, 0x30, 0x39, 0, 0, 80, 0, 0, 95, 0x41, 0x1A});
    answerQuery(0x0D, {'S', 'c', 'o', 'p', 'e'});
    ZOR_SN sn;
    ASSERT_EQ(ZORGetSerialNumber(kId, &sn), ZOR_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(sn.id), 8), "SN123456");
    ZOR_BATTERY_INFO b;
    ASSERT_EQ(ZORGetBatteryInfo(kId, &b), ZOR_SUCCESS);
    EXPECT_EQ(std::vector<int>({b.battery_temp, b.battery_vol, b.battery_percentage, b.battery_charge_vol}),
              (std::vector<int>{25, 0x3039, 80, 0x411A}));
    answerQuery(0x1E, {0xAA, 125, 0x30, 0x39, 0, 0, 80, 0, 0, 95}); // a block of 10 bytes
    EXPECT_EQ(ZORGetBatteryInfo(kId, &b), ZOR_ERROR_BAD_DATA);
    ZOR_INFO property;
    ASSERT_EQ(ZORGetProperty(kId, &property), ZOR_SUCCESS);
    EXPECT_EQ(std::string(property.Name) + std::to_string(property.MaxStep), "ZOR(Scope)600000");
}

TEST_F(BluetoothCalls, AFailedPairingStopsTheMoveAndDropsTheLink)
{
    int id = -1;
    ASSERT_EQ(ZORBLEConnect("Z", "", &id), ZOR_SUCCESS);
    link().setLocalAddress("");
    EXPECT_EQ(ZORBLEPair(kId), ZOR_ERROR_BLE_PAIR_FAILED);
    EXPECT_TRUE(link().sent().empty()) << "no host address, nothing sent";

    link().setLocalAddress("00:11:22:33:44:55");
    answers.clear(); // the pairing times out (57)
    answerQuery(0x03, {1});
    CZORTestAccess::setMoving(device());
    EXPECT_EQ(ZORBLEPair(kId), ZOR_ERROR_BLE_PAIR_FAILED);
    const Bytes control = payloadOf(link().sent().back());
    EXPECT_EQ(Bytes(control.begin() + 2, control.begin() + 4), (Bytes{0x03, 0})) << "the control record, not moving";
    EXPECT_EQ(link().disconnectCalls(), 1);
    EXPECT_EQ(CZORTestAccess::state(device()), (std::vector<int>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(BluetoothCalls, StateCallbacks)
{
    pZOR[60] = new CZOR(); // an object without a transport
    EXPECT_EQ(ZORBLERegPairStateCallback(60, onPairState), ZOR_ERROR_CLOSED);
    EXPECT_EQ(ZORBLERegConnStateCallback(60, onConnState), ZOR_ERROR_CLOSED);
    EXPECT_EQ(ZORBLERegConnStateCallback(61, onConnState), ZOR_ERROR_INVALID_ID);

    int id = -1;
    ASSERT_EQ(ZORBLEConnect("Z", "", &id), ZOR_SUCCESS);
    EXPECT_EQ(ZORBLERegConnStateCallback(kId, nullptr), ZOR_ERROR_INVALID_CALLBACK);
    ASSERT_EQ(ZORBLERegPairStateCallback(kId, onPairState), ZOR_SUCCESS);
    ASSERT_EQ(ZORBLERegConnStateCallback(kId, onConnState), ZOR_SUCCESS);
    // A fresh link: the new-connection status first, then the pairing notification.
    answerWith({BLEProtocol::CMD_PAIR}, [](uint8_t seq) {
        return std::vector<Bytes>{zor_test::responseFrame(seq, BLEProtocol::STATUS_NEW_CONNECTION),
                                  zor_test::notificationFrame(0)};
    });
    ASSERT_EQ(ZORBLEPair(kId), ZOR_SUCCESS);
    link().fireConnectionState(true);
    link().fireConnectionState(false);
    EXPECT_EQ(g_events, (std::vector<int>{ZOR_ERROR_BLE_NEW_CONNECTION, ZOR_SUCCESS, 101, 100}));
    // The link is gone: the session ends without sending anything, and the
    // calls on its ID answer 53 at once.
    EXPECT_EQ(link().disconnectCalls(), 0);
    EXPECT_EQ(CZORTestAccess::state(device()).at(3), 0) << "no longer connected";
    int step = 0;
    EXPECT_EQ(ZORGetPosition(kId, &step), ZOR_ERROR_BLE_NOT_CONNECTED);
    EXPECT_EQ(ZORBLEPair(kId), ZOR_ERROR_BLE_NOT_CONNECTED);
    EXPECT_EQ(ZORBLEDisconnect(60), ZOR_ERROR_CLOSED);

    // Lost links reported while another thread polls the device.
    std::thread poller([] {
        for (int i = 0, step = 0; i < 200; ++i)
            ZORGetPosition(kId, &step);
    });
    for (int i = 0; i < 200; ++i) {
        ZORBLERegConnStateCallback(kId, onConnState);
        link().fireConnectionState(false);
    }
    poller.join();
    EXPECT_EQ(link().disconnectCalls(), 0);
}

TEST_F(BluetoothCalls, AllInfoDecodesTheWholeRecord)
{
    pairWith(367);
    ZOR_ALL_INFO info;
    EXPECT_EQ(ZORBLEgetAllInfo(3, &info), ZOR_ERROR_INVALID_ID);
    const Bytes getAll{BLEProtocol::CMD_EXTENDED, 0x7E, 0x5A, 0x01, 0x00};
    answer(getAll, Bytes(16, 0)); // 19 bytes with the header
    std::memset(&info, 0xEE, sizeof info);
    EXPECT_EQ(device().BLEGetAllInfo(&info), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(info.IsMoving, int32_t(0xEEEEEEEE)) << "untouched";

    // From r[3]: unread, moving, backlash, position, temperature, flags,
    // maximum, three status bytes, then the battery block.
    Bytes r{0,    1, 9,   1,    2,    3, 0x80, 0x66, 0x0B, 9, 0xFB, 0xF1, 0xA1, 0xA2,
            0xA3, 0, 125, 0x30, 0x39, 0, 0,    77,   0,    0, 0,    0,    0};
    // 0x7530 is 0 degrees; 0 gives -300, below -200, so the last value stays.
    const std::tuple<unsigned char, unsigned char, float> temperatures[] = {
        {0x80, 0x66, 28.7f}, {0, 0, 28.7f}, {0x75, 0x30, 0.0f}};
    for (auto [hi, lo, degrees] : temperatures) {
        r[6] = hi;
        r[7] = lo;
        answer(getAll, r);
        ASSERT_EQ(ZORBLEgetAllInfo(kId, &info), ZOR_SUCCESS);
        EXPECT_FLOAT_EQ(info.Temperature, degrees);
    }
    EXPECT_EQ(std::vector<int>({info.IsMoving, info.Backlash, info.Position, info.Beep, info.Reverse,
                                info.HandControlMoving, info.HandController, info.MaxStep, info.LedState,
                                info.Battery.battery_temp, info.Battery.battery_percentage}),
              (std::vector<int>{1, 9, 0x010203, 1, 1, 0, 1, 0x09FBF1, 1, 25, 77}));
    EXPECT_EQ(Bytes(info.StatusBytes, info.StatusBytes + 4), (Bytes{0xA1, 0xA2, 0xA1, 0xA3}));
}

TEST_F(BluetoothCalls, UpdateStartsWithTheSizeAndChecksEachAcknowledgement)
{
    pairWith(382);
    ZOR_BLE_FILE_BUF chunk{480, {}};
    answer({BLEProtocol::CMD_EXTENDED, 0x7E, 0x5A, 0x02}, {});
    ASSERT_EQ(ZORBLEStartUpdate(kId, 16909060), ZOR_SUCCESS);
    EXPECT_EQ(link().sent().back().at(3), BLEProtocol::CMD_EXTENDED);
    EXPECT_EQ(payloadOf(link().sent().back()), (Bytes{0x7E, 0x5A, 0x02, 0x01, 0x02, 0x03, 0x04}));

    // The acknowledgement's bytes from r[3] on, then no answer at all.
    std::memset(chunk.Data, 0x11, sizeof chunk.Data);
    const std::pair<Bytes, ZOR_ERROR_CODE> acks[] = {{{0x01, 0xE0}, ZOR_SUCCESS},
                                                     {{0x01, 0xDF}, ZOR_ERROR_BLE_UPDATE_ACK},
                                                     {{0x01}, ZOR_ERROR_BLE_UPDATE_ACK},
                                                     {{}, ZOR_ERROR_BAD_DATA}};
    for (const auto &[ack, result] : acks) {
        answer({BLEProtocol::CMD_EXTENDED, 0x11}, ack);
        EXPECT_EQ(ZORBLEWriteUpdateFile(kId, chunk), result) << ack.size();
        EXPECT_EQ(payloadOf(link().sent().back()), Bytes(480, 0x11));
    }
    answers.clear();
    EXPECT_EQ(ZORBLEWriteUpdateFile(kId, chunk), ZOR_ERROR_BLE_TIMEOUT);
    chunk.Length = 481;
    EXPECT_EQ(ZORBLEWriteUpdateFile(kId, chunk), ZOR_ERROR_INVALID_VALUE);
}

TEST_F(BluetoothCalls, FailuresPassThroughButRawSendAlwaysSucceedsAndHandlesShareOneManager)
{
    EXPECT_EQ(ZORBLESendData(kId, 2, nullptr, 0, false, nullptr), ZOR_ERROR_INVALID_ID);
    int id = -1;
    ASSERT_EQ(ZORBLEConnect("Z", "", &id), ZOR_SUCCESS);
    unsigned char major, minor, build;
    EXPECT_EQ(ZORGetFirmwareVersion(kId, &major, &minor, &build), ZOR_ERROR_BLE_TIMEOUT);
    link().queueFrame({0x01, 0x00}); // too short to decode
    EXPECT_EQ(ZORGetFirmwareVersion(kId, &major, &minor, &build), ZOR_ERROR_BLE_RESPONSE);
    // The exchange lock was released on the way out: the next call works.
    answerQuery(0x04, {3, 8, 2});
    ASSERT_EQ(ZORGetFirmwareVersion(kId, &major, &minor, &build), ZOR_SUCCESS);
    EXPECT_EQ(major * 100 + minor * 10 + build, 382);

    link().setSendAccepted(false);
    EXPECT_EQ(ZORSetBeep(kId, true), ZOR_ERROR_BLE_SEND);
    const size_t before = link().sent().size();
    char data[] = {1, 2, 3, 4};
    EXPECT_EQ(ZORBLESendData(kId, 2, data, 4, true, data), ZOR_SUCCESS);

    std::unique_ptr<IBluetoothLEManager> first(IBluetoothLEManager::CreateBluetoothLEManager());
    std::unique_ptr<IBluetoothLEManager> second(IBluetoothLEManager::CreateBluetoothLEManager());
    first->ConnectStateCallbackFunc(onConnState);
    first.reset();
    EXPECT_TRUE(link().hasConnectionCallback()) << "deleting a handle keeps the callback";
    EXPECT_EQ(link().disconnectCalls(), 0);
    static_cast<BluetoothLEManagerWin &>(*second).SendData1({9}, 3, 0, onConnState);
    second->SendData1({8}, 3, 0, nullptr);
    EXPECT_EQ(g_events, std::vector<int>{101});
    const std::vector<Bytes> sent = link().sent();
    EXPECT_EQ(std::vector<Bytes>(sent.begin() + before, sent.end()), (std::vector<Bytes>{{1, 2, 3, 4}, {9}, {8}}));
}

} // namespace
