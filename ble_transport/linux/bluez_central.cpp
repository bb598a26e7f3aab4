#include "ble_transport/linux/bluez_central.h"

#include "ble_transport/host_address.h"
#include "support/log.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>

namespace {

constexpr char kLogModule[] = "LinuxBlueZCentral";

constexpr char kObjectManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

// Every call has a time-out. A connection may take long on a real radio;
// the manager gives up on it earlier and leaves it pending.
constexpr std::chrono::seconds kCallTimeout{5};
constexpr std::chrono::seconds kConnectTimeout{30};

const std::string kAlreadyConnected = "org.bluez.Error.AlreadyConnected";
const std::string kInProgress = "org.bluez.Error.InProgress";

std::string describe(const sdbus::Error &error)
{
    return error.getMessage().empty() ? error.getName() : error.getName() + ": " + error.getMessage();
}

bool has(const bluez::Properties &properties, const char *key) { return properties.count(key) != 0; }

template <typename Container>
bool contains(const Container &values, const std::string &value)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

std::function<void(const sdbus::Error *)> logFailure(const char *method)
{
    return [method](const sdbus::Error *error) {
        if (error)
            ZOR_LOG("%s failed: %s", method, describe(*error).c_str());
    };
}

} // namespace

BluezCentral::BluezCentral()
{
    try {
        m_bus = sdbus::createSystemBusConnection();
    } catch (const sdbus::Error &error) {
        ZOR_LOG("No system bus: %s", describe(error).c_str());
    }
    m_loop = std::make_unique<DBusLoop>(m_bus.get(), [this] { onBluezGone(); });
}

// The thread stops first: it uses everything else.
BluezCentral::~BluezCentral() { m_loop->stop(); }

sdbus::IProxy &BluezCentral::proxy(const std::string &path)
{
    std::unique_ptr<sdbus::IProxy> &slot = m_proxies[path];
    if (!slot)
        slot = sdbus::createProxy(*m_bus, bluez::kService, path);
    return *slot;
}

void BluezCentral::forgetProxy(const std::string &path) { m_proxies.erase(path); }

template <typename... Args>
void BluezCentral::call(const std::string &path, const char *interface, const char *method,
                        std::function<void(const sdbus::Error *)> done, Args &&...args)
{
    const auto timeout = std::string(method) == "Connect" ? kConnectTimeout : kCallTimeout;
    try {
        if (!m_bus)
            throw sdbus::Error("org.freedesktop.DBus.Error.Disconnected", "No system bus");
        proxy(path)
            .callMethodAsync(method)
            .onInterface(interface)
            .withTimeout(timeout)
            .withArguments(std::forward<Args>(args)...)
            .uponReplyInvoke([done, method](const sdbus::Error *error) {
                try {
                    done(error);
                } catch (const std::exception &failure) {
                    ZOR_LOG("Handling the reply to %s failed: %s", method, failure.what());
                }
            });
    } catch (const sdbus::Error &error) {
        done(&error);
    }
}

// --- start-up and BlueZ's objects ---------------------------------------------

void BluezCentral::start(ble::PlatformEvents &events)
{
    m_events = &events;
    m_loop->post([this] {
        try {
            watchBluez();
            loadObjects();
        } catch (const sdbus::Error &error) {
            // The first state must come, so that nobody waits for it forever.
            ZOR_LOG("BlueZ not reachable: %s", describe(error).c_str());
            m_events->onRadioState(ble::RadioState::Unsupported);
        }
    });
}

void BluezCentral::watchBluez()
{
    if (!m_bus)
        throw sdbus::Error("org.freedesktop.DBus.Error.Disconnected", "No system bus");
    using Handler = void (BluezCentral::*)(sdbus::Message &);
    auto watch = [this](const std::string &rule, Handler handler) {
        m_bus->addMatch(
            rule,
            [this, handler](sdbus::Message &message) {
                try {
                    (this->*handler)(message);
                } catch (const sdbus::Error &error) {
                    ZOR_LOG("Ignoring a malformed signal: %s", describe(error).c_str());
                } catch (const std::exception &error) {
                    // Nothing may end the event thread's loop.
                    ZOR_LOG("Handling a signal failed: %s", error.what());
                }
            },
            sdbus::floating_slot);
    };
    const std::string fromBluez = std::string("type='signal',sender='") + bluez::kService + "',";
    watch(fromBluez + "interface='" + kObjectManager + "',member='InterfacesAdded'",
          &BluezCentral::onInterfacesAdded);
    watch(fromBluez + "interface='" + kObjectManager + "',member='InterfacesRemoved'",
          &BluezCentral::onInterfacesRemoved);
    watch(fromBluez + "interface='" + kProperties + "',member='PropertiesChanged'",
          &BluezCentral::onPropertiesChanged);
    watch(std::string("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
              bluez::kService + "'",
          &BluezCentral::onNameOwnerChanged);
}

void BluezCentral::loadObjects()
{
    using Objects = std::map<sdbus::ObjectPath, bluez::Interfaces>;
    proxy("/")
        .callMethodAsync("GetManagedObjects")
        .onInterface(kObjectManager)
        .withTimeout(kCallTimeout)
        .uponReplyInvoke([this](const sdbus::Error *error, Objects objects) {
            if (!error) {
                onObjectsLoaded(objects);
                return;
            }
            ZOR_LOG("BlueZ not available: %s", describe(*error).c_str());
            m_events->onRadioState(ble::RadioState::Unsupported);
        });
}

void BluezCentral::onObjectsLoaded(const std::map<sdbus::ObjectPath, bluez::Interfaces> &objects)
{
    m_objects.clear();
    for (const auto &[path, interfaces] : objects)
        m_objects.apply(path, interfaces);
    m_adapter.clear();
    adoptAdapter();
    reportRadio();
}

void BluezCentral::adoptAdapter()
{
    if (m_adapter.empty())
        m_adapter = m_objects.firstAdapter();
    const bluez::Adapter *adapter = m_objects.adapter(m_adapter);
    std::lock_guard<std::mutex> lock(m_addressMutex);
    m_adapterAddress = adapter ? adapter->address : std::string();
}

void BluezCentral::reportRadio()
{
    const bluez::Adapter *adapter = m_objects.adapter(m_adapter);
    if (!adapter)
        m_events->onRadioState(ble::RadioState::Unsupported);
    else
        m_events->onRadioState(adapter->powered ? ble::RadioState::PoweredOn : ble::RadioState::PoweredOff);
}

void BluezCentral::onInterfacesAdded(sdbus::Message &message)
{
    sdbus::ObjectPath path;
    bluez::Interfaces interfaces;
    message >> path >> interfaces;
    m_objects.apply(path, interfaces);
    if (interfaces.count(bluez::kAdapter) && m_adapter.empty()) {
        adoptAdapter();
        reportRadio();
    }
    if (interfaces.count(bluez::kDevice))
        reportDiscovered(path);
}

void BluezCentral::onInterfacesRemoved(sdbus::Message &message)
{
    sdbus::ObjectPath path;
    std::vector<std::string> interfaces;
    message >> path >> interfaces;
    if (contains(interfaces, bluez::kDevice))
        onDeviceRemoved(path);
    m_objects.remove(path, interfaces);
    if (contains(interfaces, bluez::kDevice) || contains(interfaces, bluez::kGattCharacteristic))
        forgetProxy(path);
    if (contains(interfaces, bluez::kAdapter) && path == m_adapter) {
        m_adapter.clear();
        m_events->onRadioState(ble::RadioState::PoweredOff);
        if (!m_objects.firstAdapter().empty()) {
            adoptAdapter();
            reportRadio();
        }
    }
}

void BluezCentral::onPropertiesChanged(sdbus::Message &message)
{
    std::string interface;
    bluez::Properties changed;
    message >> interface >> changed;
    const std::string path = message.getPath();
    if (interface == bluez::kDevice) {
        onDeviceChanged(path, changed);
    } else if (interface == bluez::kGattCharacteristic) {
        onCharacteristicChanged(path, changed);
    } else if (interface == bluez::kAdapter && path == m_adapter) {
        const bool wasPowered = m_objects.adapter(path)->powered;
        m_objects.apply(path, interface, changed);
        adoptAdapter();
        if (m_objects.adapter(path)->powered != wasPowered)
            reportRadio();
    } else {
        m_objects.apply(path, interface, changed);
    }
}

void BluezCentral::onDeviceChanged(const std::string &path, const bluez::Properties &changed)
{
    const bluez::Device *before = m_objects.device(path);
    const bool wasConnected = before && before->connected;
    m_objects.apply(path, bluez::kDevice, changed);
    const bluez::Device *device = m_objects.device(path);
    if (device->adapter != m_adapter)
        return;
    if (wasConnected && !device->connected)
        m_events->onDisconnected(path, takeDisconnectReason(path, "Connection lost"));
    if (has(changed, "ServicesResolved") && device->servicesResolved && m_servicesWanted.erase(path))
        reportServices(path);
    if (has(changed, "RSSI") || has(changed, "Name"))
        reportDiscovered(path);
}

void BluezCentral::onCharacteristicChanged(const std::string &path, const bluez::Properties &changed)
{
    m_objects.apply(path, bluez::kGattCharacteristic, changed);
    const bluez::GattCharacteristic *characteristic = m_objects.characteristic(path);
    const std::string device = m_objects.deviceOf(path);
    if (has(changed, "Notifying") && characteristic->notifying && m_notifyWanted.count(path))
        reportNotifying(device, path);
    if (has(changed, "Value"))
        m_events->onValue(device, path, characteristic->value, std::nullopt);
}

void BluezCentral::onDeviceRemoved(const std::string &path)
{
    const bluez::Device *device = m_objects.device(path);
    m_servicesWanted.erase(path);
    if (!device)
        return;
    // A disconnect asked of it will never be answered now.
    if (m_disconnectRequested.count(path))
        m_events->onDisconnectAnswered(path);
    if (device->connected)
        m_events->onDisconnected(path, takeDisconnectReason(path, "Device removed"));
    else
        m_events->onConnectFailed(path, "Device removed"); // ignored unless it is being connected
}

void BluezCentral::onNameOwnerChanged(sdbus::Message &message)
{
    std::string name;
    std::string oldOwner;
    std::string newOwner;
    message >> name >> oldOwner >> newOwner;
    if (name != bluez::kService)
        return;
    if (newOwner.empty())
        onBluezGone();
    else
        loadObjects();
}

void BluezCentral::onBluezGone()
{
    ZOR_LOG("org.bluez left the bus");
    m_objects.clear();
    m_proxies.clear();
    m_adapter.clear();
    m_servicesWanted.clear();
    m_notifyWanted.clear();
    m_disconnectRequested.clear();
    adoptAdapter();
    m_events->onRadioState(ble::RadioState::PoweredOff);
}

ble::Error BluezCentral::takeDisconnectReason(const std::string &device, const char *unrequested)
{
    if (m_disconnectRequested.erase(device))
        return std::nullopt;
    return std::string(unrequested);
}

void BluezCentral::reportDiscovered(const std::string &path)
{
    const bluez::Device *device = m_objects.device(path);
    if (!device || device->adapter != m_adapter)
        return;
    m_events->onDiscovered({path, device->name, device->address, bluez::addressValue(device->address), device->rssi});
}

void BluezCentral::reportServices(const std::string &device)
{
    std::vector<ble::GattService> services;
    for (const auto &[path, service] : m_objects.servicesOf(device))
        services.push_back({path, service.uuid});
    m_events->onServicesDiscovered(device, services, std::nullopt);
}

void BluezCentral::reportNotifying(const std::string &device, const std::string &characteristic)
{
    m_notifyWanted.erase(characteristic);
    m_events->onNotificationState(device, characteristic, true, std::nullopt);
}

// --- what the shared logic asks ------------------------------------------------

void BluezCentral::startScan()
{
    m_loop->post([this] {
        if (m_adapter.empty())
            return;
        std::map<std::string, sdbus::Variant> filter{{"Transport", sdbus::Variant(std::string("le"))}};
        call(m_adapter, bluez::kAdapter, "SetDiscoveryFilter", logFailure("SetDiscoveryFilter"), filter);
        // A discovery the central restarted by itself after a disconnect is
        // still on, and BlueZ refuses this client a second one: stop it and
        // start afresh, so that the new scan hears every focuser again.
        call(m_adapter, bluez::kAdapter, "StartDiscovery", [this](const sdbus::Error *error) {
            if (!error || error->getName() != kInProgress)
                return logFailure("StartDiscovery")(error);
            call(m_adapter, bluez::kAdapter, "StopDiscovery", logFailure("StopDiscovery"));
            call(m_adapter, bluez::kAdapter, "StartDiscovery", logFailure("StartDiscovery"));
        });
    });
}

void BluezCentral::stopScan()
{
    m_loop->post([this] {
        if (m_adapter.empty())
            return m_events->onScanStopped();
        call(m_adapter, bluez::kAdapter, "StopDiscovery", [this](const sdbus::Error *error) {
            logFailure("StopDiscovery")(error);
            m_events->onScanStopped();
        });
    });
}

void BluezCentral::connect(const std::string &peripheral)
{
    m_loop->post([this, peripheral] {
        m_disconnectRequested.erase(peripheral);
        call(peripheral, bluez::kDevice, "Connect", [this, peripheral](const sdbus::Error *error) {
            if (error && error->getName() != kAlreadyConnected)
                m_events->onConnectFailed(peripheral, describe(*error));
            else
                m_events->onConnected(peripheral);
        });
    });
}

void BluezCentral::disconnect(const std::string &peripheral)
{
    m_loop->post([this, peripheral] {
        m_disconnectRequested.insert(peripheral);
        call(peripheral, bluez::kDevice, "Disconnect", [this, peripheral](const sdbus::Error *error) {
            logFailure("Disconnect")(error);
            m_events->onDisconnectAnswered(peripheral);
        });
    });
}

void BluezCentral::discoverServices(const std::string &peripheral)
{
    m_loop->post([this, peripheral] {
        const bluez::Device *device = m_objects.device(peripheral);
        if (device && device->servicesResolved)
            reportServices(peripheral);
        else
            m_servicesWanted.insert(peripheral);
    });
}

void BluezCentral::discoverCharacteristics(const std::string &peripheral, const std::string &service)
{
    m_loop->post([this, peripheral, service] {
        std::vector<ble::GattCharacteristic> found;
        for (const auto &[path, characteristic] : m_objects.characteristicsOf(service))
            found.push_back({path, characteristic.uuid, characteristic.hasFlag("write"),
                             characteristic.hasFlag("notify")});
        m_events->onCharacteristicsDiscovered(peripheral, found, std::nullopt);
    });
}

void BluezCentral::subscribe(const std::string &peripheral, const std::string &characteristic)
{
    m_loop->post([this, peripheral, characteristic] {
        m_notifyWanted.insert(characteristic);
        call(characteristic, bluez::kGattCharacteristic, "StartNotify",
             [this, peripheral, characteristic](const sdbus::Error *error) {
                 const bluez::GattCharacteristic *known = m_objects.characteristic(characteristic);
                 const bool on = known && known->notifying;
                 // BlueZ answers InProgress to a second subscription of the same client.
                 if (error && !(on && error->getName() == kInProgress)) {
                     m_notifyWanted.erase(characteristic);
                     m_events->onNotificationState(peripheral, characteristic, false, describe(*error));
                     return;
                 }
                 // Already on: no property change will tell.
                 if (on && m_notifyWanted.count(characteristic))
                     reportNotifying(peripheral, characteristic);
             });
    });
}

void BluezCentral::write(const std::string &, const std::string &characteristic, const Bytes &data)
{
    m_loop->post([this, characteristic, data] {
        std::map<std::string, sdbus::Variant> options{{"type", sdbus::Variant(std::string("request"))}};
        call(
            characteristic, bluez::kGattCharacteristic, "WriteValue",
            [this](const sdbus::Error *error) {
                m_events->onWritten(error ? ble::Error(describe(*error)) : std::nullopt);
            },
            std::vector<uint8_t>(data.begin(), data.end()), options);
    });
}

std::optional<std::string> BluezCentral::hostAddress()
{
    // The host's address sent at pairing is the adapter's own address; without
    // an adapter, the first non-loopback interface's hardware address.
    std::string adapterAddress;
    {
        std::lock_guard<std::mutex> lock(m_addressMutex);
        adapterAddress = m_adapterAddress;
    }
    const int64_t value = bluez::addressValue(adapterAddress);
    if (value == 0)
        return firstNonLoopbackAddress(hostInterfaces());
    std::vector<unsigned char> bytes;
    for (int shift = 40; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<unsigned char>(value >> shift));
    return formatHardwareAddress(bytes);
}
