#include "ble_transport/central_core.h"

#include "support/log.h"

#include <strings.h>

#include <algorithm>

const char kFocuserServiceUuid[] = "7C3E0001-91B2-4D5A-8E61-2F04C3A9D7B5";

using namespace ble;

namespace {

// The central's lines are those of the platform-facing half, the others
// those of the half that talks to the manager.
#ifdef __APPLE__
constexpr char kCentralModule[] = "MacCoreBluetoothImp";
constexpr char kBridgeModule[] = "MacBLEManagerBridge";
#else
constexpr char kCentralModule[] = "LinuxBlueZCentral";
constexpr char kBridgeModule[] = "LinuxBLEManagerBridge";
#endif

#define CENTRAL_LOG(...) ::zor::logInfoFormatted(kCentralModule, __LINE__, __func__, __VA_ARGS__)
#define BRIDGE_LOG(...) ::zor::logInfoFormatted(kBridgeModule, __LINE__, __func__, __VA_ARGS__)

const char *describe(const Error &error) { return error ? error->c_str() : "(null)"; }

thread_local int t_eventDepth = 0;

// Marks the current thread as delivering an event while one is handled.
class EventScope {
public:
    EventScope() { ++t_eventDepth; }
    ~EventScope() { --t_eventDepth; }
    EventScope(const EventScope &) = delete;
    EventScope &operator=(const EventScope &) = delete;
};

} // namespace

CentralCore::CentralCore(std::unique_ptr<PlatformCentral> platform) : m_platform(std::move(platform)) {}

// The platform goes first: its event thread calls into this object. It is
// deleted before the pointer changes, since that thread, which the platform
// stops as it goes, may call the platform until then.
CentralCore::~CentralCore()
{
    delete m_platform.get();
    (void)m_platform.release();
}

bool CentralCore::isEventThread() { return t_eventDepth > 0; }

// --- what the manager asks -----------------------------------------------------

void CentralCore::start(Listener &listener)
{
    m_listener = &listener;
    m_platform->start(*this);
}

bool CentralCore::isPoweredOn()
{
    RadioState state;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        state = m_radio;
    }
    CENTRAL_LOG("Central manager state: %ld", static_cast<long>(state));
    return state == RadioState::PoweredOn;
}

int CentralCore::startScanning()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_radio != RadioState::PoweredOn) {
            CENTRAL_LOG("Error, CBCentralManager state:%ld is not PoweredOn", static_cast<long>(m_radio));
            return -1;
        }
        // Each scan starts from an empty table, except for connected peripherals.
        m_discovered.erase(std::remove_if(m_discovered.begin(), m_discovered.end(),
                                          [this](const Advertisement &entry) { return !m_connected.count(entry.id); }),
                           m_discovered.end());
    }
    CENTRAL_LOG("Start scan for peripherals");
    m_platform->startScan();
    return 0;
}

CentralCore::Ticket CentralCore::stopScanning()
{
    Ticket ticket;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ticket = openTicket();
        m_scanStops.push_back(ticket);
    }
    m_platform->stopScan();
    return ticket;
}

void CentralCore::getDiscoveredPeripherals(std::vector<DeviceInfo> &devices)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Advertisement &entry : m_discovered) {
        if (!entry.name.empty())
            devices.push_back({entry.name, entry.address, entry.id, entry.rssi, entry.bluetoothAddress});
    }
}

const Advertisement *CentralCore::findByName(const std::string &name) const
{
    for (const Advertisement &entry : m_discovered) {
        if (!entry.name.empty() && entry.name == name)
            return &entry;
    }
    return nullptr;
}

int CentralCore::startConnect(const std::string &name)
{
    std::string found;
    std::string previous;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Advertisement *match = findByName(name);
        if (!match) {
            BRIDGE_LOG("device name:%s not found in discovered peripherals", name.c_str());
            return -1;
        }
        found = match->id;
        previous = m_current;
        m_current = found;
        m_attemptOpen = true;
        m_connectSuccess = false;
    }
    BRIDGE_LOG("Success find device:%s (UUID:%s) in peripherals, Start to connect", name.c_str(), found.c_str());
    // The link has one current peripheral: choosing another drops the first.
    if (!previous.empty() && previous != found)
        m_platform->disconnect(previous);
    m_platform->connect(found);
    return 0;
}

CentralCore::Ticket CentralCore::stopConnect()
{
    std::string current;
    Ticket ticket = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_current.empty())
            return 0;
        current = m_current;
        ticket = openTicket();
        m_disconnects[current].push_back(ticket);
    }
    // It stays the current one until its disconnect event.
    BRIDGE_LOG("stopConnect peripheral:%p, UUID:%s", static_cast<const void *>(&m_current), current.c_str());
    m_platform->disconnect(current);
    return ticket;
}

bool CentralCore::isConnectSuccess()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connectSuccess;
}

CentralCore::Ticket CentralCore::sendMessage(const Bytes &data)
{
    std::string peripheral;
    std::string characteristic;
    Ticket ticket = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        peripheral = m_current;
        characteristic = m_writeCharacteristic;
        if (!peripheral.empty() && !characteristic.empty()) {
            ticket = openTicket();
            m_writes.push_back(ticket);
        }
    }
    if (peripheral.empty()) {
        BRIDGE_LOG("sendMessage failed: Not connected");
        return 0;
    }
    if (characteristic.empty()) {
        CENTRAL_LOG("Error, NOT found writable characteristic");
        return 0;
    }
    m_platform->write(peripheral, characteristic, data);
    return ticket;
}

bool CentralCore::isAnswered(Ticket ticket)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_unanswered.count(ticket) == 0;
}

void CentralCore::getLocalMacAddress(std::string &address)
{
    const std::optional<std::string> found = m_platform->hostAddress();
    if (!found) {
        BRIDGE_LOG("Cannot Get Local Mac Address");
        return;
    }
    address = *found;
    BRIDGE_LOG("Get Local Mac Address:%s", address.c_str());
}

CentralCore::Ticket CentralCore::openTicket()
{
    m_unanswered.insert(++m_lastTicket);
    return m_lastTicket;
}

bool CentralCore::answerOldest(std::deque<Ticket> &waiting)
{
    if (waiting.empty())
        return false;
    m_unanswered.erase(waiting.front());
    waiting.pop_front();
    return true;
}

// --- platform events -------------------------------------------------------------

void CentralCore::onRadioState(RadioState state)
{
    EventScope scope;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_radio = state;
    }
    CENTRAL_LOG("central state:%ld", static_cast<long>(state));
    m_listener->onRadioStateReported();
    if (state == RadioState::PoweredOn)
        return;
    // The links are gone without disconnect events of their own, and a
    // connection attempt can no longer complete by itself.
    std::string attempt;
    bool hadLinks;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_attemptOpen)
            attempt = m_current;
        hadLinks = !m_current.empty() || !m_connected.empty();
    }
    if (!attempt.empty())
        completeAttempt(attempt, std::string("Bluetooth is not available"));
    forgetLinks();
    if (state == RadioState::PoweredOff || hadLinks)
        m_listener->onLinkLost();
    if (state == RadioState::PoweredOff)
        BRIDGE_LOG("Bluetooth is powered OFF");
}

void CentralCore::forgetLinks()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected.clear();
        m_current.clear();
        m_attemptOpen = false;
        m_connectSuccess = false;
        m_writeCharacteristic.clear();
        // No answer will come for what was asked of a stack that is gone.
        m_unanswered.clear();
        m_writes.clear();
        m_scanStops.clear();
        m_disconnects.clear();
    }
    m_listener->onRequestAnswered();
}

void CentralCore::onDiscovered(const Advertisement &advertisement)
{
    EventScope scope;
    std::lock_guard<std::mutex> lock(m_mutex);
    auto known = std::find_if(m_discovered.begin(), m_discovered.end(),
                              [&](const Advertisement &entry) { return entry.id == advertisement.id; });
    if (known == m_discovered.end())
        m_discovered.push_back(advertisement);
    else
        *known = advertisement;
}

void CentralCore::onScanStopped()
{
    EventScope scope;
    bool answered;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        answered = answerOldest(m_scanStops);
    }
    if (answered)
        m_listener->onRequestAnswered();
}

std::string CentralCore::displayName(const std::string &peripheral) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Advertisement &entry : m_discovered) {
        if (entry.id == peripheral && !entry.name.empty())
            return entry.name;
    }
    return "Unnamed";
}

bool CentralCore::isAttemptOn(const std::string &peripheral)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_attemptOpen && peripheral == m_current;
}

void CentralCore::completeAttempt(const std::string &peripheral, const Error &error)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // Exactly one completion per attempt, and none for a peripheral
        // that is no longer the chosen one.
        if (!m_attemptOpen || peripheral != m_current)
            return;
        m_attemptOpen = false;
        m_connectSuccess = !error;
    }
    if (error)
        BRIDGE_LOG("Connect to peripheral:%s failed:%s", displayName(peripheral).c_str(), error->c_str());
    m_listener->onConnectCompleted();
}

void CentralCore::onConnected(const std::string &peripheral)
{
    EventScope scope;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected.insert(peripheral);
    }
    CENTRAL_LOG("Success connect peripheral, start discover services");
    if (isAttemptOn(peripheral))
        m_platform->discoverServices(peripheral);
}

void CentralCore::onConnectFailed(const std::string &peripheral, const std::string &error)
{
    EventScope scope;
    CENTRAL_LOG("Error connect peripheral:%s", error.c_str());
    completeAttempt(peripheral, error);
}

void CentralCore::onServicesDiscovered(const std::string &peripheral, const std::vector<GattService> &services,
                                       const Error &error)
{
    EventScope scope;
    if (!isAttemptOn(peripheral))
        return;
    // Without the service the attempt never completes: the manager times out.
    if (services.empty()) {
        CENTRAL_LOG("No services discovered on device. Possible wrong UUID or device issue.");
        return;
    }
    for (const GattService &service : services)
        CENTRAL_LOG("Found service UUID: %s", service.uuid.c_str());
    if (error) {
        CENTRAL_LOG("Error discovering services:%s", error->c_str());
        completeAttempt(peripheral, error);
        return;
    }
    for (const GattService &service : services) {
        if (strcasecmp(service.uuid.c_str(), kFocuserServiceUuid) != 0)
            continue;
        CENTRAL_LOG("Success discovered target service, start discover characteristics");
        m_platform->discoverCharacteristics(peripheral, service.id);
    }
}

void CentralCore::onCharacteristicsDiscovered(const std::string &peripheral,
                                              const std::vector<GattCharacteristic> &characteristics,
                                              const Error &error)
{
    EventScope scope;
    if (!isAttemptOn(peripheral))
        return;
    if (error) {
        CENTRAL_LOG("Error discovering characteristics:%s", error->c_str());
        completeAttempt(peripheral, error);
        return;
    }
    CENTRAL_LOG("Success discovered service, start check characteristics");
    // A later writable characteristic replaces an earlier one. One that can
    // notify but not be written is never subscribed, on purpose.
    for (const GattCharacteristic &characteristic : characteristics) {
        if (!characteristic.canWrite)
            continue;
        CENTRAL_LOG("Found writable characteristic:%s", characteristic.uuid.c_str());
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_writeCharacteristic = characteristic.id;
        }
        if (characteristic.canNotify) {
            CENTRAL_LOG("Subscribed to notify characteristic:%s", characteristic.uuid.c_str());
            m_platform->subscribe(peripheral, characteristic.id);
        }
    }
}

void CentralCore::onNotificationState(const std::string &peripheral, const std::string &characteristic,
                                      bool notifying, const Error &error)
{
    EventScope scope;
    if (!isAttemptOn(peripheral))
        return;
    if (error) {
        CENTRAL_LOG("Error enabling notification: %s", error->c_str());
        completeAttempt(peripheral, error);
        return;
    }
    if (!notifying) {
        CENTRAL_LOG("Notification not enabled for characteristic: %s", characteristic.c_str());
        return;
    }
    CENTRAL_LOG("Successfully subscribed to notifications for: %s", characteristic.c_str());
    // The device's settle pause follows on the connecting thread, so that
    // this thread goes on delivering events.
    completeAttempt(peripheral, std::nullopt);
}

void CentralCore::onDisconnected(const std::string &peripheral, const Error &error)
{
    EventScope scope;
    const std::string name = displayName(peripheral);
    bool wasAttempt = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool wasConnected = m_connected.erase(peripheral) > 0;
        const bool wasCurrent = peripheral == m_current;
        // A link already forgotten (the radio went off) is not lost twice.
        if (!wasConnected && !wasCurrent)
            return;
        wasAttempt = wasCurrent && m_attemptOpen;
        if (wasCurrent) {
            m_writeCharacteristic.clear();
            m_current.clear();
            m_connectSuccess = false;
            m_attemptOpen = false;
            // A write to a link that is gone will not be answered.
            for (Ticket ticket : m_writes)
                m_unanswered.erase(ticket);
            m_writes.clear();
        }
    }
    CENTRAL_LOG("Disconnected from peripheral:%s, error:%s", name.c_str(), describe(error));
    // A link that drops while it is being made ends the attempt at once.
    if (wasAttempt) {
        BRIDGE_LOG("Connect to peripheral:%s failed:%s", name.c_str(), describe(error));
        m_listener->onConnectCompleted();
    }
    m_listener->onRequestAnswered();
    if (!error) {
        BRIDGE_LOG("Success disconnected from peripheral:%s", name.c_str());
        return;
    }
    BRIDGE_LOG("Error disconnected from peripheral:%s, error message:%s", name.c_str(), error->c_str());
    if (!wasAttempt)
        m_listener->onLinkLost();
}

void CentralCore::onDisconnectAnswered(const std::string &peripheral)
{
    EventScope scope;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = m_disconnects.find(peripheral);
        if (found == m_disconnects.end() || !answerOldest(found->second))
            return;
        if (found->second.empty())
            m_disconnects.erase(found);
    }
    m_listener->onRequestAnswered();
}

void CentralCore::onValue(const std::string &, const std::string &characteristic, const Bytes &value,
                          const Error &error)
{
    EventScope scope;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (characteristic.empty() || characteristic != m_writeCharacteristic) {
            CENTRAL_LOG("NOT found writable characteristic, ignore");
            return;
        }
    }
    if (error) {
        BRIDGE_LOG("Error receiving notification:%s", error->c_str());
        return;
    }
    m_listener->onNotified(value);
}

void CentralCore::onWritten(const Error &error)
{
    EventScope scope;
    if (error)
        CENTRAL_LOG("write Characteristic failed! error: %s", error->c_str());
    bool answered;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        answered = answerOldest(m_writes);
    }
    if (answered)
        m_listener->onRequestAnswered();
}
