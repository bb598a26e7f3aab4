#include "ble_transport/central_core.h"

#include "support/log.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>

#ifdef __APPLE__
#include <net/if_dl.h>
#else
#include <netpacket/packet.h>
#endif

const char kFocuserServiceUuid[] = "7C3E0001-91B2-4D5A-8E61-2F04C3A9D7B5";

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

using std::chrono::milliseconds;

// Half of the pause that lets the device settle once notifications are on.
constexpr milliseconds kSettleStep{1000};

const char *describe(const BleError &error) { return error ? error->c_str() : "(null)"; }

} // namespace

// --- manager side ------------------------------------------------------------

void CentralCore::start(Listener &listener)
{
    m_listener = &listener;
    platformStart();
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
        m_discovered.erase(
            std::remove_if(m_discovered.begin(), m_discovered.end(),
                           [this](const Advertisement &entry) { return !m_connected.count(entry.id); }),
            m_discovered.end());
    }
    CENTRAL_LOG("Start scan for peripherals");
    platformStartScan();
    return 0;
}

void CentralCore::stopScanning() { platformStopScan(); }

void CentralCore::getDiscoveredPeripherals(std::vector<DeviceInfo> &devices)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Advertisement &entry : m_discovered) {
        if (!entry.name.empty())
            devices.push_back({entry.name, entry.address, entry.id, entry.rssi, entry.bluetoothAddress});
    }
}

const CentralCore::Advertisement *CentralCore::findByName(const std::string &name) const
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
    }
    BRIDGE_LOG("Success find device:%s (UUID:%s) in peripherals, Start to connect", name.c_str(),
               found.c_str());
    // The link has one current peripheral: choosing another drops the first.
    if (!previous.empty() && previous != found)
        platformCancelConnect(previous);
    platformConnect(found);
    return 0;
}

void CentralCore::stopConnect()
{
    std::string current;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        current = m_current;
    }
    if (current.empty())
        return;
    // It stays the current one until its disconnect event.
    BRIDGE_LOG("stopConnect peripheral:%p, UUID:%s", static_cast<const void *>(&m_current), current.c_str());
    platformCancelConnect(current);
}

bool CentralCore::isConnectSuccess()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connectSuccess;
}

void CentralCore::sendMessage(const Bytes &data)
{
    std::string peripheral;
    std::string characteristic;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        peripheral = m_current;
        characteristic = m_writeCharacteristic;
    }
    if (peripheral.empty()) {
        BRIDGE_LOG("sendMessage failed: Not connected");
        return;
    }
    if (characteristic.empty()) {
        CENTRAL_LOG("Error, NOT found writable characteristic");
        return;
    }
    platformWrite(peripheral, characteristic, data);
}

void CentralCore::getLocalMacAddress(std::string &address)
{
    const std::optional<std::string> found = platformHostAddress();
    if (!found) {
        BRIDGE_LOG("Cannot Get Local Mac Address");
        return;
    }
    address = *found;
    BRIDGE_LOG("Get Local Mac Address:%s", address.c_str());
}

void CentralCore::waitForEvents(milliseconds limit)
{
    std::unique_lock<std::mutex> lock(m_eventMutex);
    m_eventCondition.wait_for(lock, limit, [this] { return m_eventPending; });
    m_eventPending = false;
}

void CentralCore::signalEvent()
{
    std::lock_guard<std::mutex> lock(m_eventMutex);
    m_eventPending = true;
    m_eventCondition.notify_all();
}

// --- platform events ---------------------------------------------------------

void CentralCore::onRadioState(RadioState state)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_radio = state;
    }
    CENTRAL_LOG("central state:%ld", static_cast<long>(state));
    if (m_listener)
        m_listener->onCentralManagerUpdateState();
    if (state == RadioState::PoweredOff) {
        // The links are gone without disconnect events of their own.
        forgetLinks();
        if (m_listener)
            m_listener->onPeripheralDisconnect();
        BRIDGE_LOG("Bluetooth is powered OFF");
    }
    signalEvent();
}

void CentralCore::forgetLinks()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connected.clear();
    m_current.clear();
    m_attemptOpen = false;
    m_connectSuccess = false;
    m_writeCharacteristic.clear();
}

void CentralCore::onDiscovered(const Advertisement &advertisement)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto known = std::find_if(m_discovered.begin(), m_discovered.end(),
                              [&](const Advertisement &entry) { return entry.id == advertisement.id; });
    if (known == m_discovered.end())
        m_discovered.push_back(advertisement);
    else
        *known = advertisement;
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

void CentralCore::completeAttempt(const std::string &peripheral, const BleError &error)
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
    if (m_listener)
        m_listener->onPeripheralConnectCompleted();
    signalEvent();
}

void CentralCore::onConnected(const std::string &peripheral)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected.insert(peripheral);
    }
    CENTRAL_LOG("Success connect peripheral, start discover services");
    if (isAttemptOn(peripheral))
        platformDiscoverServices(peripheral);
}

void CentralCore::onConnectFailed(const std::string &peripheral, const std::string &error)
{
    CENTRAL_LOG("Error connect peripheral:%s", error.c_str());
    completeAttempt(peripheral, error);
}

void CentralCore::onServicesDiscovered(const std::string &peripheral,
                                       const std::vector<GattService> &services, const BleError &error)
{
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
        platformDiscoverCharacteristics(peripheral, service.id);
    }
}

void CentralCore::onCharacteristicsDiscovered(const std::string &peripheral,
                                              const std::vector<GattCharacteristic> &characteristics,
                                              const BleError &error)
{
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
            platformSubscribe(peripheral, characteristic.id);
        }
    }
}

void CentralCore::onNotificationState(const std::string &peripheral, const std::string &characteristic,
                                      bool notifying, const BleError &error)
{
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
    settle(kSettleStep);
    settle(kSettleStep);
    CENTRAL_LOG("Success finished connect to peripheral");
    completeAttempt(peripheral, std::nullopt);
}

void CentralCore::onDisconnected(const std::string &peripheral, const BleError &error)
{
    const std::string name = displayName(peripheral);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool wasConnected = m_connected.erase(peripheral) > 0;
        const bool wasCurrent = peripheral == m_current;
        // A link already forgotten (the radio went off) is not lost twice.
        if (!wasConnected && !wasCurrent)
            return;
        m_writeCharacteristic.clear();
        if (wasCurrent) {
            m_current.clear();
            m_connectSuccess = false;
        }
    }
    CENTRAL_LOG("Disconnected from peripheral:%s, error:%s", name.c_str(), describe(error));
    startScanning();
    if (!error) {
        BRIDGE_LOG("Success disconnected from peripheral:%s", name.c_str());
        signalEvent();
        return;
    }
    BRIDGE_LOG("Error disconnected from peripheral:%s, error message:%s", name.c_str(), error->c_str());
    if (m_listener)
        m_listener->onPeripheralDisconnect();
    signalEvent();
}

void CentralCore::onValue(const std::string &, const std::string &characteristic, const Bytes &value,
                          const BleError &error)
{
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
    if (m_listener)
        m_listener->onPeripheralNotified(value);
    signalEvent();
}

void CentralCore::onWritten(const BleError &error)
{
    if (error)
        CENTRAL_LOG("write Characteristic failed! error: %s", error->c_str());
}

// --- the host's hardware address ----------------------------------------------

std::vector<HostInterface> hostInterfaces()
{
    std::vector<HostInterface> found;
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return found;
    for (const struct ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || !entry->ifa_name)
            continue;
        HostInterface host{entry->ifa_name, {}, (entry->ifa_flags & IFF_LOOPBACK) != 0};
#ifdef __APPLE__
        if (entry->ifa_addr->sa_family != AF_LINK)
            continue;
        const auto *link = reinterpret_cast<const struct sockaddr_dl *>(entry->ifa_addr);
        const auto *bytes = reinterpret_cast<const unsigned char *>(LLADDR(link));
        host.hardwareAddress.assign(bytes, bytes + link->sdl_alen);
#else
        if (entry->ifa_addr->sa_family != AF_PACKET)
            continue;
        const auto *link = reinterpret_cast<const struct sockaddr_ll *>(entry->ifa_addr);
        const size_t length = std::min<size_t>(link->sll_halen, sizeof link->sll_addr);
        host.hardwareAddress.assign(link->sll_addr, link->sll_addr + length);
#endif
        found.push_back(std::move(host));
    }
    freeifaddrs(list);
    return found;
}

std::optional<std::string> formatHardwareAddress(const std::vector<unsigned char> &bytes)
{
    if (bytes.size() != 6)
        return std::nullopt;
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    return std::string(text);
}

std::optional<std::string> interfaceAddress(const std::vector<HostInterface> &interfaces,
                                            const std::string &name)
{
    for (const HostInterface &host : interfaces) {
        if (host.name == name)
            return formatHardwareAddress(host.hardwareAddress);
    }
    return std::nullopt;
}

std::optional<std::string> firstNonLoopbackAddress(const std::vector<HostInterface> &interfaces)
{
    for (const HostInterface &host : interfaces) {
        const bool allZero = std::all_of(host.hardwareAddress.begin(), host.hardwareAddress.end(),
                                         [](unsigned char byte) { return byte == 0; });
        if (host.loopback || allZero)
            continue;
        if (std::optional<std::string> text = formatHardwareAddress(host.hardwareAddress))
            return text;
    }
    return std::nullopt;
}
