#include "ble_transport/ble_le_manager.h"

#include "ble_transport/caller_events.h"
#include "support/log.h"

#include <utility>

namespace {

#ifdef __APPLE__
constexpr char kLogModule[] = "BluetoothLEManagerMac";
#else
constexpr char kLogModule[] = "BluetoothLEManagerLinux";
#endif

// How often a wait on a thread with a loop of its own lets that loop run.
constexpr std::chrono::milliseconds kCallerLoopSlice{10};

} // namespace

BluetoothLEManager::BluetoothLEManager(std::unique_ptr<ble::PlatformCentral> platform, Limits limits)
    : m_limits(limits), m_core(std::make_unique<CentralCore>(std::move(platform)))
{
    m_core->start(*this);
    ZOR_LOG("Init mac BLEManager finished, waiting for State update...");
    // No limit: a platform reports a state even when it has no radio at all.
    std::unique_lock<std::mutex> lock(m_stateMutex);
    waitUntil(lock, Clock::time_point::max(), [this] { return m_stateReported; });
    lock.unlock();
    ZOR_LOG("CoreBluetooth CentralManager State Updated finished!");
}

BluetoothLEManager::~BluetoothLEManager() = default;

template <typename Ready>
bool BluetoothLEManager::waitUntil(std::unique_lock<std::mutex> &lock, Clock::time_point deadline, Ready ready)
{
    if (ready())
        return true;
    lock.unlock();
    const bool servesLoop = serviceCallerEvents();
    lock.lock();
    if (!servesLoop)
        return m_changed.wait_until(lock, deadline, ready);
    while (!ready()) {
        const Clock::time_point now = Clock::now();
        if (now >= deadline)
            return false;
        const auto slice = deadline - now < kCallerLoopSlice ? deadline - now : Clock::duration(kCallerLoopSlice);
        if (m_changed.wait_for(lock, slice, ready))
            break;
        lock.unlock();
        serviceCallerEvents();
        lock.lock();
    }
    return true;
}

bool BluetoothLEManager::waitForAnswer(CentralCore::Ticket ticket, bool whileLinkUp)
{
    // The answer comes on the event thread: waiting there would only stall it.
    if (ticket == 0 || CentralCore::isEventThread())
        return ticket != 0;
    std::unique_lock<std::mutex> lock(m_stateMutex);
    const uint64_t link = m_linkEpoch;
    waitUntil(lock, Clock::now() + m_limits.answer, [&] {
        return m_core->isAnswered(ticket) || (whileLinkUp && m_linkEpoch != link);
    });
    return m_core->isAnswered(ticket) && !(whileLinkUp && m_linkEpoch != link);
}

bool BluetoothLEManager::IsBluetoothLESupported()
{
    ZOR_LOG("Check if BluetoothLE is supported");
    if (!m_core->isPoweredOn())
        return false;
    ZOR_LOG("BluetoothLE is supported.");
    return true;
}

void BluetoothLEManager::ScanForDevices(uint32_t durationMs, std::vector<DeviceInfo> &devices)
{
    std::lock_guard<std::mutex> scan(m_scanMutex);
    if (m_core->startScanning() != 0)
        return;
    ZOR_LOG("Scanning for devices: duration = %dms (%.2f sec)", static_cast<int>(durationMs), durationMs / 1000.0);
    {
        std::unique_lock<std::mutex> lock(m_stateMutex);
        waitUntil(lock, Clock::now() + std::chrono::milliseconds(durationMs), [] { return false; });
    }
    ZOR_LOG("stopScanning");
    // Discovery has ended on the platform's side before the scan returns.
    waitForAnswer(m_core->stopScanning(), false);
    m_core->getDiscoveredPeripherals(devices);
}

std::function<void(bool)> BluetoothLEManager::endLink()
{
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_linkUp = false;
        ++m_linkEpoch;
    }
    m_changed.notify_all();
    return replaceCallback(nullptr);
}

bool BluetoothLEManager::connect(const std::string &name)
{
    std::lock_guard<std::mutex> connecting(m_connectMutex);
    // One link at a time: a connect ends the session that had the link, as
    // if it had been lost, so that its calls never reach the new focuser.
    bool hadLink;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        hadLink = m_linkUp;
        m_attemptCompleted = false;
    }
    if (hadLink) {
        if (std::function<void(bool)> previous = endLink())
            previous(false);
    }
    if (m_core->startConnect(name) != 0)
        return false;
    std::unique_lock<std::mutex> lock(m_stateMutex);
    // On the event thread (a callback calling back in) the completion could
    // only come after the wait: it ends at once, so the thread never stalls.
    const Clock::time_point deadline =
        CentralCore::isEventThread() ? Clock::now() : Clock::now() + m_limits.connect;
    if (!waitUntil(lock, deadline, [this] { return m_attemptCompleted; })) {
        // The platform's attempt is left running.
        ZOR_LOG("Connect To Device timeout after 10 seconds");
        return false;
    }
    const uint64_t link = m_linkEpoch;
    const bool lostWhileSettling = m_core->isConnectSuccess() &&
        waitUntil(lock, Clock::now() + m_limits.settle, [&] { return m_linkEpoch != link; });
    if (!m_core->isConnectSuccess() || lostWhileSettling) {
        ZOR_LOG("ConnectToDevice %s failed", name.c_str());
        return false;
    }
    m_linkUp = true;
    return true;
}

bool BluetoothLEManager::ConnectToDevice(const std::string &name, const std::string &)
{
    ZOR_LOG("ConnectToDevice: %s", name.c_str());
    try {
        if (!connect(name))
            return false;
        // Called with no lock held, so that the callback may call back in.
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
    endLink();
    // The disconnect has reached the platform, and been answered, before
    // the call returns.
    waitForAnswer(m_core->stopConnect(), false);
    ZOR_LOG("DisconnectFromDevice finished");
}

void BluetoothLEManager::ConnectStateCallbackFunc(std::function<void(bool)> callback)
{
    ZOR_LOG("Set ConnectStateCallbackFunc: %p", static_cast<void *>(&callback));
    // The previous one is destroyed here, outside the lock, before the call returns.
    replaceCallback(std::move(callback));
}

std::function<void(bool)> BluetoothLEManager::replaceCallback(std::function<void(bool)> callback)
{
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    m_connectStatusCallback.swap(callback);
    return callback;
}

std::function<void(bool)> BluetoothLEManager::connectStatusCallback()
{
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    return m_connectStatusCallback;
}

bool BluetoothLEManager::SendData(const std::vector<unsigned char> &data, uint32_t, uint32_t)
{
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (!m_linkUp)
            return false;
    }
    // A write the platform refuses later is only logged by the central.
    return waitForAnswer(m_core->sendMessage(data), true);
}

void BluetoothLEManager::ReceiveData(uint32_t, uint32_t) {}

// No lock: an exchange never waits for a scan or a connect in progress.
void BluetoothLEManager::setIsRead(bool isRead) { m_isRead = isRead; }

void BluetoothLEManager::GetReceivedData(std::vector<unsigned char> &data)
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (&data != &m_received)
        data = m_received;
}

bool BluetoothLEManager::WaitForDataAndProcess()
{
    std::unique_lock<std::mutex> lock(m_stateMutex);
    if (m_dataReady) {
        m_dataReady = false;
        return true;
    }
    // Nothing can arrive without a link, or while the event thread itself waits.
    if (m_linkUp && !CentralCore::isEventThread()) {
        const uint64_t link = m_linkEpoch;
        const Clock::time_point deadline = Clock::now() + m_limits.data;
        waitUntil(lock, deadline, [&] { return m_dataReady || m_linkEpoch != link; });
        // An answer that came in the last moments stays flagged: the next
        // wait returns it at once.
        if (m_dataReady && m_dataArrived <= deadline - m_limits.lateData) {
            m_dataReady = false;
            return true;
        }
    }
    lock.unlock();
    ZOR_LOG("===== Debug: Data waiting timed out after 1 seconds.");
    return false;
}

void BluetoothLEManager::GetLocalBluetoothMacAddress(std::string &address)
{
    ZOR_LOG("GetLocalBluetoothMacAddress");
    m_core->getLocalMacAddress(address);
}

// --- the central's events --------------------------------------------------------

void BluetoothLEManager::onRadioStateReported()
{
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_stateReported = true;
    }
    m_changed.notify_all();
}

void BluetoothLEManager::onConnectCompleted()
{
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_attemptCompleted = true;
    }
    m_changed.notify_all();
}

void BluetoothLEManager::onRequestAnswered()
{
    // Under the lock, so that a waiter between its check and its sleep
    // cannot miss it.
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_changed.notify_all();
}

void BluetoothLEManager::onLinkLost()
{
    ZOR_LOG("Peripheral disconnected");
    // Waits on the link end first, so that the callback never waits for them.
    std::function<void(bool)> callback = endLink();
    if (!callback) {
        ZOR_LOG("s_connectStatusCallback is NULL, ignore");
        return;
    }
    ZOR_LOG("Disconnect callback, state: false");
    callback(false);
}

void BluetoothLEManager::onNotified(const std::vector<unsigned char> &data)
{
    if (!m_isRead)
        return;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_received = data;
        m_dataReady = true;
        m_dataArrived = Clock::now();
    }
    m_changed.notify_all();
}
