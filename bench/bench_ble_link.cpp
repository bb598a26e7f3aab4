// What the Bluetooth manager adds to one exchange: a request written and its
// notification collected through the manager over the BlueZ central, beside
// the raw round trip of the same bytes from a bare D-Bus client (WriteValue,
// then the Value change), on one minimal org.bluez on a private bus.
//
// Each iteration is timed on its own; the counters give the median and the
// 99th percentile in milliseconds.
#include "ble_transport/ble_le_manager.h"
#include "ble_transport/linux/bluez_central.h"
#include "fake_bluez.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

namespace {

using zor_test::Bytes;
using Clock = std::chrono::steady_clock;

// A request frame of the size of a position query.
const Bytes kFrame{0x01, 0x04, 0x01, 0x02, 0x7E, 0x5A, 0x02, 0x03, 0xE1};

struct Link {
    zor_test::PrivateBus bus;
    std::unique_ptr<zor_test::FakeBluez> fake;
    std::unique_ptr<BluetoothLEManager> manager;

    Link()
    {
        if (!bus.started())
            std::abort();
        fake = std::make_unique<zor_test::FakeBluez>();
        manager = std::make_unique<BluetoothLEManager>(std::make_unique<BluezCentral>());
        std::vector<IBluetoothLEManager::DeviceInfo> devices;
        manager->ScanForDevices(200, devices);
        if (!manager->ConnectToDevice("ZOR-50", ""))
            std::abort();
        manager->setIsRead(true);
    }
};

Link &link()
{
    static Link instance;
    return instance;
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

void BM_ManagerExchange(benchmark::State &state)
{
    BluetoothLEManager &manager = *link().manager;
    measure(state, [&] {
        Bytes answer;
        manager.SendData(kFrame, 3, 0);
        const bool arrived = manager.WaitForDataAndProcess();
        manager.GetReceivedData(answer);
        return arrived && answer.size() == kFrame.size();
    });
}
BENCHMARK(BM_ManagerExchange)->Iterations(300)->Unit(benchmark::kMillisecond);

// A client of its own: its own connection, a proxy on the characteristic and
// a wait for the next change of its value.
class RawClient {
public:
    RawClient()
        : m_bus(sdbus::createSystemBusConnection()),
          m_proxy(sdbus::createProxy(*m_bus, "org.bluez", zor_test::kCharacteristicPath))
    {
        m_proxy->uponSignal("PropertiesChanged")
            .onInterface("org.freedesktop.DBus.Properties")
            .call([this](const std::string &, const std::map<std::string, sdbus::Variant> &changed,
                         const std::vector<std::string> &) {
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

    bool exchange(const Bytes &frame)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int before = m_values;
        lock.unlock();
        const std::map<std::string, sdbus::Variant> options{{"type", sdbus::Variant(std::string("request"))}};
        m_proxy->callMethod("WriteValue")
            .onInterface(zor_test::kCharacteristic1)
            .withArguments(std::vector<uint8_t>(frame.begin(), frame.end()), options);
        lock.lock();
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_values != before; });
    }

private:
    std::unique_ptr<sdbus::IConnection> m_bus;
    std::unique_ptr<sdbus::IProxy> m_proxy;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_values = 0;
};

void BM_RawRoundTrip(benchmark::State &state)
{
    link();
    RawClient client;
    measure(state, [&] { return client.exchange(kFrame); });
}
BENCHMARK(BM_RawRoundTrip)->Iterations(300)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
