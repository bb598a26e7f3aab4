// The Bluetooth calls end to end: each device object made by ZORBLEConnect
// reaches the scripted platform manager through a factory handle.
#include "api_fixture.h"

#include "ble/scripted_platform.h"
#include "device/zor.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

using zor_test::Bytes;

class CZORTestAccess {
public:
    static std::vector<int> session(CZOR &d)
    {
        return {d.m_bRawTempAdc, d.m_bBlePaired, d.m_bBleSessionReady, d.m_bBleConnected};
    }
    static std::vector<bool> supported(CZOR &d)
    {
        std::vector<bool> flags;
        for (int id = 0; id < kNumControlTypes; ++id)
            flags.push_back(d.featureSupported(id));
        return flags;
    }
    static void setMoving(CZOR &d) { d.m_iEnabled = 1; }
};

namespace {

std::vector<int> g_events; // pair states, then connection states as 100 + connected
void onPairState(ZOR_ERROR_CODE code) { g_events.push_back(code); }
void onConnState(bool connected) { g_events.push_back(100 + connected); }

Bytes payloadOf(const Bytes &frame) { return Bytes(frame.begin() + 4, frame.end() - 5); }

class BluetoothCalls : public ApiTest {
protected:
    using Frames = std::function<std::vector<Bytes>(uint8_t sequence)>;

    void SetUp() override
    {
        ApiTest::SetUp();
        link().setLocalAddress("00:11:22:33:44:55");
        // The device answers a request whose type and payload start match a
        // registered answer; anything else stays unanswered (a time-out).
        link().setResponder([this](const Bytes &sent) {
            const Bytes payload = sent.size() < 9 ? Bytes{} : payloadOf(sent);
            for (const auto &[start, frames] : answers)
                if (!payload.empty() && start.at(0) == sent.at(3) && payload.size() >= start.size() - 1 &&
                    std::equal(start.begin() + 1, start.end(), payload.begin()))
                    return frames(zor_test::sequenceOf(sent));
            return std::vector<Bytes>{};
        });
        answer({BLEProtocol::CMD_PAIR}, Bytes{});
    }

    static zor_test::ScriptedTransport &link() { return zor_test::platformTransport(); }
    static CZOR &device(int id = ZOR_BLE_ID_BASE) { return *pZOR[id].load(); }

    // `start`: the command type, then the first payload bytes.
    void answerWith(Bytes start, Frames frames) { answers.insert(answers.begin(), {start, frames}); }
    void answer(Bytes start, Bytes content, uint8_t status = 0)
    {
        answerWith(start, [=](uint8_t seq) { return std::vector<Bytes>{zor_test::responseFrame(seq, status, content)}; });
    }

    int connect()
    {
        int id = -1;
        EXPECT_EQ(ZORBLEConnect("ZOR Pro_1", "", &id), ZOR_SUCCESS);
        return id;
    }

    // Connects and pairs with a device on the given firmware; with a model
    // string the identity calls are open to it.
    void pairWith(int firmware, bool modelString = false)
    {
        Bytes version{0x04, static_cast<unsigned char>(firmware / 100), static_cast<unsigned char>(firmware / 10 % 10),
                      static_cast<unsigned char>(firmware % 10)};
        if (modelString)
            version.insert(version.end(), {'E', 'Z', 'O', 'R', ' ', 'P', 'r', 'o', 0});
        answer({BLEProtocol::CMD_DEVICE, 0x7E, 0x5A, 0x02, 0x04}, version);
        ASSERT_EQ(connect(), ZOR_BLE_ID_BASE);
        ASSERT_EQ(ZORBLEPair(ZOR_BLE_ID_BASE), ZOR_SUCCESS);
    }

    std::vector<std::pair<Bytes, Frames>> answers;
};

TEST_F(BluetoothCalls, ScanFillsAtMostTheArrayAndLeavesEachFieldsLastByte)
{
    const std::string name63(63, 'n'), name64 = std::string(63, 'm') + 'X';
    auto found = [](std::string name, std::string address = "", int16_t rssi = 0, int64_t number = 0) {
        return IBluetoothLEManager::DeviceInfo{name, address, "", rssi, number};
    };
    link().setScanResult({found(name63, "AA:BB", -70, 0xAABB), found(name64, std::string(64, 'a')), found("c"),
                          found("d"), found("e")});
    BLE_DEVICE_INFO list[4];
    std::memset(list, 0xEE, sizeof list);
    int count = -1;
    ASSERT_EQ(ZORBLEScan(100, list, 0, &count), ZOR_SUCCESS);
    EXPECT_EQ(count, 0);
    ASSERT_EQ(ZORBLEScan(100, list, 3, &count), ZOR_SUCCESS);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(std::string(list[0].Name, 63), name63);
    EXPECT_EQ(std::string(list[1].Name, 63), name64.substr(0, 63));
    EXPECT_EQ(std::string(list[1].Address, 63), std::string(63, 'a'));
    for (const BLE_DEVICE_INFO &entry : {list[0], list[1]})
        EXPECT_EQ(Bytes({static_cast<unsigned char>(entry.Name[63]), static_cast<unsigned char>(entry.Address[63])}),
                  (Bytes{0xEE, 0xEE}));
    EXPECT_STREQ(list[0].Address, "AA:BB");
    EXPECT_EQ(list[0].RSSI, -70);
    EXPECT_EQ(list[0].BluetoothAddress, 0xAABB);
    EXPECT_STREQ(list[2].Name, "c");
    EXPECT_EQ(static_cast<unsigned char>(list[3].Name[0]), 0xEE);

    link().setSupported(false);
    count = 7;
    EXPECT_EQ(ZORBLEScan(100, list, 3, &count), ZOR_ERROR_BLE_UNAVAILABLE);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(ZORBLEScan(100, list, -1, &count), ZOR_ERROR_INVALID_VALUE);
}

TEST_F(BluetoothCalls, IdsAreHandedOutAndTakenBackAsAStack)
{
    struct Step {
        int disconnect; // 0: connect
        bool linkUp;
        ZOR_ERROR_CODE result;
        int id; // the ID a connect stores
        bool reusesObject = false;
    };
    const std::vector<std::vector<Step>> sequences = {
        {{0, true, ZOR_SUCCESS, 50}, {0, true, ZOR_SUCCESS, 51}, {51, true, ZOR_SUCCESS, 0}, {0, true, ZOR_SUCCESS, 51}},
        // Disconnecting an older ID: the next connect reuses the newest object.
        {{0, true, ZOR_SUCCESS, 50},
         {0, true, ZOR_SUCCESS, 51},
         {50, true, ZOR_SUCCESS, 0},
         {0, true, ZOR_SUCCESS, 51, true}},
        {{0, false, ZOR_ERROR_BLE_CONNECT_FAILED, 50}, {0, true, ZOR_SUCCESS, 50}},
    };
    for (const std::vector<Step> &steps : sequences) {
        CZOR *objects[ZOR_MAX_NUM] = {};
        for (const Step &step : steps) {
            link().setConnectResult(step.linkUp);
            if (step.disconnect) {
                EXPECT_EQ(ZORBLEDisconnect(step.disconnect), step.result);
                EXPECT_EQ(pZOR[step.disconnect].load(), nullptr);
                continue;
            }
            int id = -1;
            EXPECT_EQ(ZORBLEConnect("ZOR Pro_1", nullptr, &id), step.result);
            ASSERT_EQ(id, step.id);
            EXPECT_EQ(pZOR[id].load() != nullptr, step.result == ZOR_SUCCESS);
            if (step.reusesObject) {
                EXPECT_EQ(pZOR[id].load(), objects[id]);
            }
            objects[id] = pZOR[id].load();
        }
        for (int id = ZOR_BLE_ID_BASE; id < ZOR_MAX_NUM; ++id)
            ZORBLEDisconnect(id);
        g_BleStartId = ZOR_BLE_ID_BASE;
    }
    EXPECT_EQ(link().receiveDataArguments().back(), (std::pair<uint32_t, uint32_t>{3, 0}));

    // No ID beyond the table is handed out; calls that index it refuse one.
    g_BleStartId = ZOR_MAX_NUM;
    int id = -1;
    EXPECT_EQ(ZORBLEConnect("ZOR Pro_1", "", &id), ZOR_ERROR_BLE_CONNECT_FAILED);
    EXPECT_EQ(id, -1);
    EXPECT_EQ(g_BleStartId, ZOR_MAX_NUM);
    EXPECT_EQ(ZORBLEDisconnect(ZOR_MAX_NUM), ZOR_ERROR_INVALID_ID);
    EXPECT_EQ(ZORBLEPair(-1), ZOR_ERROR_INVALID_ID);
}

TEST_F(BluetoothCalls, PairingSendsTheHostAddressAndOpensTheFeaturesOfItsFirmware)
{
    struct Case {
        int firmware;
        std::vector<int> session; // raw ADC, the two session flags, connected
        std::vector<bool> supported;
        int stepRange;
    };
    const Case cases[] = {
        {335, {0, 0, 0, 1}, {0, 0, 1, 0, 0, 0, 0, 0}, 60000},
        {336, {0, 1, 1, 1}, {1, 1, 1, 1, 1, 1, 0, 1}, 600000},
        {382, {0, 1, 1, 1}, {1, 1, 1, 1, 1, 1, 1, 1}, 600000},
    };
    for (const Case &c : cases) {
        pairWith(c.firmware);
        const std::vector<Bytes> sent = link().sent();
        EXPECT_EQ(sent.at(sent.size() - 3).at(3), BLEProtocol::CMD_PAIR);
        EXPECT_EQ(payloadOf(sent.at(sent.size() - 3)), (Bytes{'0', '0', '1', '1', '2', '2', '3', '3', '4', '4', '5', '5'}));
        EXPECT_EQ(CZORTestAccess::session(device()), c.session) << c.firmware;
        EXPECT_EQ(CZORTestAccess::supported(device()), c.supported) << c.firmware;
        int range = 0;
        EXPECT_EQ(ZORStepRange(ZOR_BLE_ID_BASE, &range), ZOR_SUCCESS);
        EXPECT_EQ(range, c.stepRange);
        ASSERT_EQ(ZORBLEDisconnect(ZOR_BLE_ID_BASE), ZOR_SUCCESS);
    }

    // With a model string the gated calls answer, the battery block read
    // from answer byte 4 as over USB.
    pairWith(382, true);
    answer({BLEProtocol::CMD_DEVICE, 0x7E, 0x5A, 0x02, 0x0C}, {0x0C, 'S', 'N', '1', '2', '3', '4', '5', '6'});
    answer({BLEProtocol::CMD_DEVICE, 0x7E, 0x5A, 0x02, 0x1E}, {0x1E, 0xAA, 125, 0x30, 0x39, 0, 0, 80, 0, 0, 95, 0x41, 0x1A});
    ZOR_SN sn;
    ASSERT_EQ(ZORGetSerialNumber(ZOR_BLE_ID_BASE, &sn), ZOR_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(sn.id), 8), "SN123456");
    ZOR_BATTERY_INFO battery;
    ASSERT_EQ(ZORGetBatteryInfo(ZOR_BLE_ID_BASE, &battery), ZOR_SUCCESS);
    EXPECT_EQ(std::vector<int>({battery.battery_temp, battery.battery_vol, battery.battery_percentage,
                                battery.battery_charge_vol}),
              (std::vector<int>{25, 0x3039, 80, 0x411A}));
    answer({BLEProtocol::CMD_DEVICE, 0x7E, 0x5A, 0x02, 0x0D}, {0x0D, 'S', 'c', 'o', 'p', 'e'});
    ZOR_INFO property;
    ASSERT_EQ(ZORGetProperty(ZOR_BLE_ID_BASE, &property), ZOR_SUCCESS);
    EXPECT_STREQ(property.Name, "ZOR(Scope)");
    EXPECT_EQ(property.MaxStep, 600000);
}

TEST_F(BluetoothCalls, AFailedPairingStopsTheMoveAndDropsTheLink)
{
    connect();
    const size_t sent = link().sent().size();
    link().setLocalAddress("");
    EXPECT_EQ(ZORBLEPair(ZOR_BLE_ID_BASE), ZOR_ERROR_BLE_PAIR_FAILED);
    EXPECT_EQ(link().sent().size(), sent) << "no address, nothing sent";

    link().setLocalAddress("00:11:22:33:44:55");
    answers.clear(); // the pairing times out (57)
    answer({BLEProtocol::CMD_DEVICE, 0x7E, 0x5A, 0x02, 0x03}, {0x03, 1});
    CZORTestAccess::setMoving(device());
    EXPECT_EQ(ZORBLEPair(ZOR_BLE_ID_BASE), ZOR_ERROR_BLE_PAIR_FAILED);
    EXPECT_EQ(payloadOf(link().sent().back()).at(2), 0x03) << "the control record";
    EXPECT_EQ(payloadOf(link().sent().back()).at(3), 0) << "the move stopped";
    EXPECT_EQ(link().disconnectCalls(), 1);
    EXPECT_EQ(CZORTestAccess::session(device()), (std::vector<int>{1, 0, 0, 0}));
}

TEST_F(BluetoothCalls, StateCallbacks)
{
    pZOR[60] = new CZOR(); // an object without a transport
    EXPECT_EQ(ZORBLERegPairStateCallback(60, onPairState), ZOR_ERROR_CLOSED);
    EXPECT_EQ(ZORBLERegConnStateCallback(60, onConnState), ZOR_ERROR_CLOSED);
    EXPECT_EQ(ZORBLERegConnStateCallback(61, onConnState), ZOR_ERROR_INVALID_ID);

    connect();
    EXPECT_EQ(ZORBLERegConnStateCallback(ZOR_BLE_ID_BASE, nullptr), ZOR_ERROR_INVALID_CALLBACK);
    ASSERT_EQ(ZORBLERegPairStateCallback(ZOR_BLE_ID_BASE, onPairState), ZOR_SUCCESS);
    ASSERT_EQ(ZORBLERegConnStateCallback(ZOR_BLE_ID_BASE, onConnState), ZOR_SUCCESS);
    // A fresh link: the new-connection status first, then the pairing notification.
    answerWith({BLEProtocol::CMD_PAIR}, [](uint8_t seq) {
        return std::vector<Bytes>{zor_test::responseFrame(seq, BLEProtocol::STATUS_NEW_CONNECTION),
                                  zor_test::notificationFrame(0)};
    });
    ASSERT_EQ(ZORBLEPair(ZOR_BLE_ID_BASE), ZOR_SUCCESS);
    link().fireConnectionState(true);
    link().fireConnectionState(false);
    EXPECT_EQ(g_events, (std::vector<int>{ZOR_ERROR_BLE_NEW_CONNECTION, ZOR_SUCCESS, 101, 100}));
    EXPECT_EQ(link().disconnectCalls(), 1);
    EXPECT_EQ(CZORTestAccess::session(device()).back(), 0);
    EXPECT_EQ(ZORBLEDisconnect(60), ZOR_ERROR_CLOSED);
}

TEST_F(BluetoothCalls, AllInfoDecodesTheWholeRecord)
{
    pairWith(366);
    size_t sent = link().sent().size();
    ZOR_ALL_INFO info;
    EXPECT_EQ(ZORBLEgetAllInfo(ZOR_BLE_ID_BASE, &info), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(link().sent().size(), sent);
    ZORBLEDisconnect(ZOR_BLE_ID_BASE);

    pairWith(367);
    EXPECT_EQ(ZORBLEgetAllInfo(3, &info), ZOR_ERROR_INVALID_ID);
    const Bytes getAll{BLEProtocol::CMD_EXTENDED, 0x7E, 0x5A, 0x01, 0x00};
    answer(getAll, Bytes(16, 0)); // 19 bytes with the header
    std::memset(&info, 0xEE, sizeof info);
    EXPECT_EQ(device().BLEGetAllInfo(&info), ZOR_ERROR_INVALID_VALUE);
    EXPECT_EQ(info.IsMoving, static_cast<int32_t>(0xEEEEEEEE)) << "untouched";

    // From r[3]: unread, moving, backlash, position, temperature, flags,
    // maximum, three status bytes, then the battery block.
    const Bytes record{0, 1, 9, 0x01, 0x02, 0x03, 0x80, 0x66, 0x0B, 0x09, 0xFB, 0xF1, 0xA1, 0xA2, 0xA3,
                       0, 125, 0x30, 0x39, 0, 0, 77, 0, 0, 0, 0, 0};
    answer(getAll, record);
    ASSERT_EQ(ZORBLEgetAllInfo(ZOR_BLE_ID_BASE, &info), ZOR_SUCCESS);
    EXPECT_EQ(std::vector<int>({info.IsMoving, info.Backlash, info.Position, info.Beep, info.Reverse,
                                info.HandControlMoving, info.HandController, info.MaxStep, info.LedState}),
              (std::vector<int>{1, 9, 0x010203, 1, 1, 0, 1, 0x09FBF1, 1}));
    EXPECT_FLOAT_EQ(info.Temperature, 28.7f); // 0x8066 = 32870
    EXPECT_EQ(Bytes(info.StatusBytes, info.StatusBytes + 4), (Bytes{0xA1, 0xA2, 0xA1, 0xA3}));
    EXPECT_EQ(info.Battery.battery_temp, 25);
    EXPECT_EQ(info.Battery.battery_percentage, 77);

    Bytes cold = record;
    // 0x7530 is 0 degrees; 0 gives -300, below -200, so the last value stays.
    const std::tuple<int, int, float> temperatures[] = {{0x75, 0x30, 0.0f}, {0, 0, 0.0f}, {0x80, 0x66, 28.7f},
                                                        {0, 0, 28.7f}};
    for (auto [hi, lo, expected] : temperatures) {
        cold[6] = static_cast<unsigned char>(hi);
        cold[7] = static_cast<unsigned char>(lo);
        answer(getAll, cold);
        ASSERT_EQ(ZORBLEgetAllInfo(ZOR_BLE_ID_BASE, &info), ZOR_SUCCESS);
        EXPECT_FLOAT_EQ(info.Temperature, expected);
    }
}

TEST_F(BluetoothCalls, UpdateStartsWithTheSizeAndChecksEachAcknowledgement)
{
    pairWith(381);
    ZOR_BLE_FILE_BUF chunk{480, {}};
    EXPECT_EQ(ZORBLEStartUpdate(ZOR_BLE_ID_BASE, 100), ZOR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(ZORBLEWriteUpdateFile(ZOR_BLE_ID_BASE, chunk), ZOR_ERROR_NOT_SUPPORTED);
    ZORBLEDisconnect(ZOR_BLE_ID_BASE);

    pairWith(382);
    answer({BLEProtocol::CMD_EXTENDED, 0x7E, 0x5A, 0x02}, Bytes{});
    ASSERT_EQ(ZORBLEStartUpdate(ZOR_BLE_ID_BASE, 16909060), ZOR_SUCCESS);
    EXPECT_EQ(link().sent().back().at(3), BLEProtocol::CMD_EXTENDED);
    EXPECT_EQ(payloadOf(link().sent().back()), (Bytes{0x7E, 0x5A, 0x02, 0x01, 0x02, 0x03, 0x04}));

    std::memset(chunk.Data, 0x11, sizeof chunk.Data);
    struct Case {
        const char *what;
        bool answered;
        Bytes ack; // the acknowledgement's bytes from r[3] on
        ZOR_ERROR_CODE result;
    };
    const Case cases[] = {
        {"all taken", true, {0x01, 0xE0}, ZOR_SUCCESS},
        {"one short", true, {0x01, 0xDF}, ZOR_ERROR_BLE_UPDATE_ACK},
        {"four bytes", true, {0x01}, ZOR_ERROR_BLE_UPDATE_ACK},
        {"three bytes", true, {}, ZOR_ERROR_BAD_DATA},
        {"no answer", false, {}, ZOR_ERROR_BLE_TIMEOUT},
    };
    for (const Case &c : cases) {
        answers.clear();
        if (c.answered)
            answer({BLEProtocol::CMD_EXTENDED, 0x11}, c.ack);
        EXPECT_EQ(ZORBLEWriteUpdateFile(ZOR_BLE_ID_BASE, chunk), c.result) << c.what;
        EXPECT_EQ(payloadOf(link().sent().back()), Bytes(480, 0x11));
    }
    chunk.Length = 481;
    EXPECT_EQ(ZORBLEWriteUpdateFile(ZOR_BLE_ID_BASE, chunk), ZOR_ERROR_INVALID_VALUE);
}

TEST_F(BluetoothCalls, RawSendAlwaysSucceedsAndHandlesShareOneManager)
{
    EXPECT_EQ(ZORBLESendData(ZOR_BLE_ID_BASE, 2, nullptr, 0, false, nullptr), ZOR_ERROR_INVALID_ID);
    connect();
    link().setSendAccepted(false);
    char data[] = {1, 2, 3, 4};
    EXPECT_EQ(ZORBLESendData(ZOR_BLE_ID_BASE, 2, data, 4, true, data), ZOR_SUCCESS);
    EXPECT_EQ(link().sent().back(), (Bytes{1, 2, 3, 4}));

    std::unique_ptr<IBluetoothLEManager> first(IBluetoothLEManager::CreateBluetoothLEManager());
    std::unique_ptr<IBluetoothLEManager> second(IBluetoothLEManager::CreateBluetoothLEManager());
    first->ConnectStateCallbackFunc(onConnState);
    first.reset();
    EXPECT_TRUE(link().hasConnectionCallback()) << "deleting a handle keeps the callback";
    EXPECT_EQ(link().disconnectCalls(), 0);
    bool reported = false;
    static_cast<BluetoothLEManagerWin &>(*second).SendData1({9}, 3, 0, [&](bool sent) { reported = sent; });
    second->SendData1({8}, 3, 0, nullptr);
    EXPECT_TRUE(reported);
    const std::vector<Bytes> sent = link().sent();
    EXPECT_EQ(std::vector<Bytes>(sent.end() - 2, sent.end()), (std::vector<Bytes>{{9}, {8}}));
}

} // namespace
