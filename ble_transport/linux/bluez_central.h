// The Linux central: BlueZ over D-Bus on the system bus. The adapter is the
// first org.bluez.Adapter1 in path order; peripherals are its Device1
// objects; the device's service and characteristic are GattService1 and
// GattCharacteristic1 objects. All D-Bus work happens on a thread of its own
// (DBusLoop), which is also where its events are reported.
#pragma once

#include "ble_transport/platform_central.h"
#include "ble_transport/linux/bluez_objects.h"
#include "ble_transport/linux/dbus_loop.h"

#include <sdbus-c++/IConnection.h>
#include <sdbus-c++/IProxy.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

class BluezCentral final : public ble::PlatformCentral {
public:
    using Bytes = ble::Bytes;

    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured); without
    // one, the radio is reported unsupported.
    BluezCentral();
    ~BluezCentral() override;

    void start(ble::PlatformEvents &events) override;
    void startScan() override;
    void stopScan() override;
    void connect(const std::string &peripheral) override;
    void disconnect(const std::string &peripheral) override;
    void discoverServices(const std::string &peripheral) override;
    void discoverCharacteristics(const std::string &peripheral, const std::string &service) override;
    void subscribe(const std::string &peripheral, const std::string &characteristic) override;
    void write(const std::string &peripheral, const std::string &characteristic, const Bytes &data) override;
    std::optional<std::string> hostAddress() override;

private:
    // Everything below runs on the loop thread.
    void watchBluez();
    void loadObjects();
    void onObjectsLoaded(const std::map<sdbus::ObjectPath, bluez::Interfaces> &objects);
    void onInterfacesAdded(sdbus::Message &message);
    void onInterfacesRemoved(sdbus::Message &message);
    void onPropertiesChanged(sdbus::Message &message);
    void onNameOwnerChanged(sdbus::Message &message);
    void onDeviceChanged(const std::string &path, const bluez::Properties &changed);
    void onCharacteristicChanged(const std::string &path, const bluez::Properties &changed);
    void onDeviceRemoved(const std::string &path);
    void onBluezGone();
    // Takes the first adapter when there is none yet, and reports its state.
    void adoptAdapter();
    void reportRadio();
    void reportDiscovered(const std::string &path);
    void reportServices(const std::string &device);
    // Reports, and forgets, a subscription that has turned on.
    void reportNotifying(const std::string &device, const std::string &characteristic);
    // Empty for a disconnect this central asked for, else `unrequested`.
    ble::Error takeDisconnectReason(const std::string &device, const char *unrequested);
    sdbus::IProxy &proxy(const std::string &path);
    // Drops the proxies of an object that has gone.
    void forgetProxy(const std::string &path);
    // Calls `method` on `path` without waiting; `done` gets the error or null.
    template <typename... Args>
    void call(const std::string &path, const char *interface, const char *method,
              std::function<void(const sdbus::Error *)> done, Args &&...args);

    ble::PlatformEvents *m_events = nullptr;
    std::unique_ptr<sdbus::IConnection> m_bus;
    std::map<std::string, std::unique_ptr<sdbus::IProxy>> m_proxies;
    bluez::Objects m_objects;
    std::string m_adapter;
    std::set<std::string> m_disconnectRequested;
    std::set<std::string> m_servicesWanted;
    std::set<std::string> m_notifyWanted;

    // Read by callers' threads.
    std::mutex m_addressMutex;
    std::string m_adapterAddress;

    // Last, so that it stops before anything it uses goes.
    std::unique_ptr<DBusLoop> m_loop;
};
