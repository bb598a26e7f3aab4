// What the library adds to a Bluetooth exchange: ZORGetPosition on a
// Bluetooth ID, beside the raw round trip of the same request from a bare
// D-Bus client (WriteValue, then the characteristic's Value change), both
// against zor_bluez_sim. Run it on a private bus:
//
//   scripts/ble-sim-bus.sh build-bench/bench/zor_bench_ble
//
// Each iteration is timed on its own; the counters give the median and the
// 99th percentile in milliseconds. Then the time a dropped link takes to be
// noticed, and a 64 KiB firmware update.
#include "ZOR_focuser.h"
#include "ble_frames.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;
using Properties = std::map<std::string, sdbus::Variant>;

constexpr int kId = ZOR_BLE_ID_BASE;
constexpr char kCharacteristic1[] = "org.bluez.GattCharacteristic1";
// The status query behind ZORGetPosition.
const BLEProtocol::Bytes kStatusQuery{0x7E, 0x5A, 0x02, 0x03};

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "zor_bench_ble: %s\n", what);
    std::exit(2);
}

// The first virtual focuser, connected and paired through the library as ID 50.
void connectAndPair()
{
    if (!std::getenv("DBUS_SYSTEM_BUS_ADDRESS"))
        fail("no private bus: run it under scripts/ble-sim-bus.sh");
    BLE_DEVICE_INFO found[4]{};
    int count = 0, id = -1;
    if (ZORBLEScan(300, found, 4, &count) != ZOR_SUCCESS || count == 0)
        fail("no virtual focuser found");
    if (ZORBLEConnect(found[0].Name, found[0].Address, &id) != ZOR_SUCCESS || ZORBLEPair(id) != ZOR_SUCCESS)
        fail("connecting or pairing failed");
}

void connectThroughTheLibrary()
{
    static const bool connected = (connectAndPair(), true);
    (void)connected;
}

// The link as it is after `connectThroughTheLibrary`, made again.
void reconnect()
{
    ZORBLEDisconnect(kId);
    connectAndPair();
}

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Times `exchange` once per iteration and reports the median and the 99th
// percentile.
template <typename Exchange>
void measure(benchmark::State &state, Exchange &&exchange)
{
    std::vector<double> milliseconds;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        if (!exchange())
            state.SkipWithError("no answer");
        milliseconds.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    if (milliseconds.empty())
        return;
    std::sort(milliseconds.begin(), milliseconds.end());
    state.counters["median_ms"] = milliseconds[milliseconds.size() / 2];
    const size_t p99 = std::min(milliseconds.size() - 1, milliseconds.size() * 99 / 100);
    state.counters["p99_ms"] = milliseconds[p99];
}

void BM_GetPosition(benchmark::State &state)
{
    connectThroughTheLibrary();
    measure(state, [] {
        int position = -1;
        return ZORGetPosition(kId, &position) == ZOR_SUCCESS;
    });
}
BENCHMARK(BM_GetPosition)->Iterations(300)->Unit(benchmark::kMillisecond);

// A client of its own on the link the library set up: its own connection, a
// proxy on the characteristic and a wait for the next change of its value.
class RawClient {
public:
    RawClient() : m_bus(sdbus::createSystemBusConnection())
    {
        m_proxy = sdbus::createProxy(*m_bus, "org.bluez", characteristicPath());
        m_proxy->uponSignal("PropertiesChanged")
            .onInterface("org.freedesktop.DBus.Properties")
            .call([this](const std::string &, const Properties &changed, const std::vector<std::string> &) {
                if (!changed.count("Value"))
                    return;
                std::lock_guard<std::mutex> lock(m_mutex);
                ++m_values;
                m_changed.notify_all();
            });
        m_proxy->finishRegistration();
        m_bus->enterEventLoopAsync();
    }
    ~RawClient() { m_bus->leaveEventLoop(); }

    bool exchange(uint8_t sequence)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int before = m_values;
        lock.unlock();
        m_proxy->callMethod("WriteValue")
            .onInterface(kCharacteristic1)
            .withArguments(requestFrame(sequence, BLEProtocol::CMD_DEVICE, kStatusQuery),
                           Properties{{"type", sdbus::Variant(std::string("request"))}});
        lock.lock();
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_values != before; });
    }

private:
    // The one characteristic of the connected focuser (the others have no
    // services resolved).
    std::string characteristicPath()
    {
        std::map<sdbus::ObjectPath, std::map<std::string, Properties>> objects;
        sdbus::createProxy(*m_bus, "org.bluez", "/")
            ->callMethod("GetManagedObjects")
            .onInterface("org.freedesktop.DBus.ObjectManager")
            .storeResultsTo(objects);
        for (const auto &[path, interfaces] : objects)
            if (interfaces.count(kCharacteristic1))
                return path;
        fail("no characteristic on the bus");
    }

    std::unique_ptr<sdbus::IConnection> m_bus;
    std::unique_ptr<sdbus::IProxy> m_proxy;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_values = 0;
};

void BM_RawRoundTrip(benchmark::State &state)
{
    connectThroughTheLibrary();
    RawClient client;
    uint8_t sequence = 0;
    measure(state, [&] { return client.exchange(sequence++); });
}
BENCHMARK(BM_RawRoundTrip)->Iterations(300)->Unit(benchmark::kMillisecond);

// The virtual focuser drops the link (com.zor.Sim's DropLink, no
// connection-state callback registered): how long until a call answers 53,
// and how long that call took.
void BM_LostLinkNoticed(benchmark::State &state)
{
    connectThroughTheLibrary();
    for (auto _ : state) {
        auto bus = sdbus::createSessionBusConnectionWithAddress(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"));
        auto sim = sdbus::createProxy(*bus, "com.zor.Sim", "/com/zor/Sim");
        const Clock::time_point dropped = Clock::now();
        sim->callMethod("DropLink").onInterface("com.zor.Sim").withArguments(std::string("Bench"));
        double callMs = 0;
        int code = ZOR_SUCCESS;
        for (int tries = 0; tries < 100 && code != ZOR_ERROR_BLE_NOT_CONNECTED; ++tries) {
            const Clock::time_point start = Clock::now();
            int position = 0;
            code = ZORGetPosition(kId, &position);
            callMs = millisecondsSince(start);
        }
        if (code != ZOR_ERROR_BLE_NOT_CONNECTED)
            state.SkipWithError("the calls never answered 53");
        state.counters["drop_to_53_ms"] = millisecondsSince(dropped);
        state.counters["that_call_ms"] = callMs;
        state.PauseTiming();
        reconnect();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_LostLinkNoticed)->Iterations(1)->Unit(benchmark::kMillisecond);

// A 64 KiB image in chunks of 480 bytes, as zorctl sends it. Last: the
// focuser restarts with the image, which ends the link.
void BM_FirmwareUpdate64KiB(benchmark::State &state)
{
    connectThroughTheLibrary();
    constexpr int kImage = 64 * 1024;
    for (auto _ : state) {
        if (ZORBLEStartUpdate(kId, kImage) != ZOR_SUCCESS)
            state.SkipWithError("the update did not start");
        for (int sent = 0; sent < kImage;) {
            ZOR_BLE_FILE_BUF chunk{};
            chunk.Length = std::min<int>(480, kImage - sent);
            if (ZORBLEWriteUpdateFile(kId, chunk) != ZOR_SUCCESS) {
                state.SkipWithError("a chunk was refused");
                break;
            }
            sent += chunk.Length;
        }
    }
}
BENCHMARK(BM_FirmwareUpdate64KiB)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
