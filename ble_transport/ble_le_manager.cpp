#include "ble_transport/ble_le_manager.h"

#include "support/log.h"

#include <utility>

namespace {

#ifdef __APPLE__
constexpr char kLogModule[] = "BluetoothLEManagerMac";
#else
constexpr char kLogModule[] = "BluetoothLEManagerLinux";
#endif

using std::chrono::milliseconds;

// Construction lets events run for at most this long per cycle.
constexpr milliseconds kEventCycle{100};
// The waits of scan, connect and data let the events that have come reach
// the flags (on Linux they arrive on the central's own thread; on macOS a
// run-loop pass delivers them) without waiting for more, then sleep. So each
// wait lasts its cycle count times its pause, as its log line says (10 s to
// connect, 5 s for an answer), and an answer is seen within one pause of its
// arrival.
constexpr milliseconds kPollEvents{0};
constexpr milliseconds kScanPause{100};
constexpr milliseconds kConnectPause{100};
constexpr milliseconds kDataPause{10};
constexpr int kConnectCycles = 100;
// The data wait counts down from here to 1: 500 cycles.
constexpr int kDataCountdown = 501;
// A notification seen when the count is down to this or lower fails the wait
// that sees it and is left for the next one.
constexpr int kDataLateCount = 2;

} // namespace

BluetoothLEManager::BluetoothLEManager(std::unique_ptr<BleCentral> central) : m_central(std::move(central))
{
    m_isCMStateUpdated = false;
    m_central->start(*this);
    ZOR_LOG("Init mac BLEManager finished, waiting for State update...");
    // No limit: the central reports a state even when the platform has no
    // radio at all.
    while (!m_isCMStateUpdated)
        m_central->waitForEvents(kEventCycle);
    ZOR_LOG("CoreBluetooth CentralManager State Updated finished!");
}

// The central goes first: its events call into this object.
BluetoothLEManager::~BluetoothLEManager() { m_central.reset(); }

void BluetoothLEManager::runCycle(milliseconds pause)
{
    m_central->waitForEvents(kPollEvents);
    m_central->sleepFor(pause);
}

bool BluetoothLEManager::IsBluetoothLESupported()
{
    ZOR_LOG("Check if BluetoothLE is supported");
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_central->isPoweredOn())
        return false;
    ZOR_LOG("BluetoothLE is supported.");
    return true;
}

void BluetoothLEManager::ScanForDevices(uint32_t durationMs, std::vector<DeviceInfo> &devices)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_central->startScanning() != 0)
        return;
    const double seconds = durationMs / 1000.0;
    ZOR_LOG("Scanning for devices: duration = %dms (%.2f sec)", static_cast<int>(durationMs), seconds);
    const int cycles = static_cast<int>(seconds * 10);
    for (int cycle = 0; cycle < cycles; ++cycle)
        runCycle(kScanPause);
    ZOR_LOG("stopScanning");
    m_central->stopScanning();
    m_central->getDiscoveredPeripherals(devices);
}

bool BluetoothLEManager::waitForConnectCompletion()
{
    // On the event thread (a connection-state callback calling back in)
    // the completion could only come after the wait: it ends at once, so
    // that the thread never stalls.
    if (m_central->isEventThread())
        return m_isPCCompleted;
    for (int cycle = 0; cycle < kConnectCycles && !m_isPCCompleted; ++cycle)
        runCycle(kConnectPause);
    return m_isPCCompleted;
}

bool BluetoothLEManager::ConnectToDevice(const std::string &name, const std::string &)
{
    ZOR_LOG("ConnectToDevice: %s", name.c_str());
    try {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_isPCCompleted = false;
        if (m_central->startConnect(name) != 0)
            return false;
        // The platform's attempt is left running on a time-out.
        if (!waitForConnectCompletion()) {
            ZOR_LOG("Connect To Device timeout after 10 seconds");
            return false;
        }
        if (!m_central->isConnectSuccess()) {
            ZOR_LOG("ConnectToDevice %s failed", name.c_str());
            return false;
        }
        // Called with the manager lock held: the callback must not call back
        // into anything that takes it.
        if (std::function<void(bool)> callback = connectStatusCallback()) {
            ZOR_LOG("ConnectToDevice callback, state: true");
            callback(true);
        }
    } catch (...) {
        ZOR_LOG("ConnectToDevice caught exception!");
        return false;
    }
    ZOR_LOG("ConnectToDevice %s success", name.c_str());
    return true;
}

void BluetoothLEManager::DisconnectFromDevice()
{
    ZOR_LOG("DisconnectFromDevice");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_central->stopConnect();
    replaceCallback(nullptr);
    ZOR_LOG("DisconnectFromDevice finished");
}

void BluetoothLEManager::ConnectStateCallbackFunc(std::function<void(bool)> callback)
{
    ZOR_LOG("Set ConnectStateCallbackFunc: %p", static_cast<void *>(&callback));
    replaceCallback(std::move(callback));
}

void BluetoothLEManager::replaceCallback(std::function<void(bool)> callback)
{
    {
        std::lock_guard<std::mutex> lock(m_callbackMutex);
        m_connectStatusCallback.swap(callback);
    }
    // `callback` now holds the previous one: destroyed here, outside the
    // lock, before the call returns.
}

std::function<void(bool)> BluetoothLEManager::connectStatusCallback()
{
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    return m_connectStatusCallback;
}

bool BluetoothLEManager::SendData(const std::vector<unsigned char> &data, uint32_t, uint32_t)
{
    // A failed write is only logged by the central.
    m_central->sendMessage(data);
    return true;
}

void BluetoothLEManager::ReceiveData(uint32_t, uint32_t) {}

void BluetoothLEManager::setIsRead(bool isRead)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bIsRead = isRead;
}

void BluetoothLEManager::GetReceivedData(std::vector<unsigned char> &data)
{
    std::lock_guard<std::mutex> lock(m_dataMutex);
    if (&data != &m_ui8ReceivedDatas)
        data = m_ui8ReceivedDatas;
}

bool BluetoothLEManager::WaitForDataAndProcess()
{
    if (m_bDataReady.exchange(false))
        return true;
    // As for the connect wait: nothing can arrive while the event thread waits.
    const int countdown = m_central->isEventThread() ? 1 : kDataCountdown;
    for (int count = countdown; count != 1;) {
        runCycle(kDataPause);
        --count;
        if (!m_bDataReady)
            continue;
        // A late arrival stays flagged, so the next wait returns at once.
        if (count <= kDataLateCount)
            break;
        m_bDataReady = false;
        return true;
    }
    ZOR_LOG("===== Debug: Data waiting timed out after 1 seconds.");
    return false;
}

void BluetoothLEManager::GetLocalBluetoothMacAddress(std::string &address)
{
    ZOR_LOG("GetLocalBluetoothMacAddress");
    m_central->getLocalMacAddress(address);
}

void BluetoothLEManager::onCentralManagerUpdateState() { m_isCMStateUpdated = true; }

void BluetoothLEManager::onPeripheralConnectCompleted() { m_isPCCompleted = true; }

void BluetoothLEManager::onPeripheralDisconnect()
{
    ZOR_LOG("Peripheral disconnected");
    std::function<void(bool)> callback = connectStatusCallback();
    if (!callback) {
        ZOR_LOG("s_connectStatusCallback is NULL, ignore");
        return;
    }
    ZOR_LOG("Disconnect callback, state: false");
    callback(false);
}

void BluetoothLEManager::onPeripheralNotified(const std::vector<unsigned char> &data)
{
    if (!m_bIsRead)
        return;
    std::lock_guard<std::mutex> lock(m_dataMutex);
    m_ui8ReceivedDatas = data;
    m_bDataReady = true;
}
