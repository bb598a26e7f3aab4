// A minimal org.bluez on a private dbus-daemon: one adapter, one focuser
// that appears on discovery and answers each write by notifying the bytes
// reversed. Writing DD drops the link, FF switches the radio off; after
// vanishOnConnect() the device object goes away when asked to connect.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zor_test {

using Bytes = std::vector<unsigned char>;
inline const char kAdapter1[] = "org.bluez.Adapter1";
inline const char kDevice1[] = "org.bluez.Device1";
inline const char kService1[] = "org.bluez.GattService1";
inline const char kCharacteristic1[] = "org.bluez.GattCharacteristic1";
inline const std::string kDev = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01";
inline const std::string kCharacteristicPath = kDev + "/service000a/char000b";

// A dbus-daemon of its own, made the system bus of this process; check
// started() before use.
class PrivateBus {
public:
    PrivateBus()
    {
        FILE *out = popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
        char address[512] = {0};
        if (out && std::fscanf(out, "%511s %d", address, &m_pid) == 2)
            setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
        if (out)
            pclose(out);
    }
    bool started() const { return m_pid > 0; }
    ~PrivateBus()
    {
        if (m_pid > 0)
            kill(m_pid, SIGTERM);
    }

private:
    int m_pid = 0;
};

class FakeBluez {
public:
    FakeBluez() : m_bus(sdbus::createSystemBusConnection("org.bluez"))
    {
        m_root = object("/");
        m_root->addObjectManager();
        m_root->finishRegistration();
        m_adapter = object("/org/bluez/hci0");
        sdbus::IObject &a = *m_adapter;
        fixed(a, kAdapter1, "Address", std::string("00:1A:7D:DA:71:13"));
        live(a, kAdapter1, "Powered", m_powered);
        method(a, kAdapter1, "SetDiscoveryFilter", [](std::map<std::string, sdbus::Variant>) {});
        method(a, kAdapter1, "StopDiscovery", [] {});
        method(a, kAdapter1, "StartDiscovery", [this] { addDevice(); });
        a.finishRegistration();
        m_bus->enterEventLoopAsync();
    }
    ~FakeBluez() { m_bus->leaveEventLoop(); }
    void vanishOnConnect() { m_vanishOnConnect = true; }

private:
    template <typename T>
    static void fixed(sdbus::IObject &target, const char *interface, const char *name, T value)
    {
        target.registerProperty(name).onInterface(interface).withGetter([value] { return value; });
    }
    // A property that reads `value` whenever asked.
    template <typename T>
    static void live(sdbus::IObject &target, const char *interface, const char *name, const T &value)
    {
        target.registerProperty(name).onInterface(interface).withGetter([&value] { return value; });
    }
    template <typename Handler>
    static void method(sdbus::IObject &target, const char *interface, const char *name, Handler handler)
    {
        target.registerMethod(name).onInterface(interface).implementedAs(std::move(handler));
    }
    static void publish(sdbus::IObject &target)
    {
        target.finishRegistration();
        target.emitInterfacesAddedSignal();
    }
    std::unique_ptr<sdbus::IObject> object(const std::string &path)
    {
        return sdbus::createObject(*m_bus, path);
    }

    void addDevice()
    {
        if (m_device)
            return;
        m_device = object(kDev);
        sdbus::IObject &d = *m_device;
        fixed(d, kDevice1, "Name", std::string("ZOR-50"));
        fixed(d, kDevice1, "Address", std::string("AA:BB:CC:DD:EE:01"));
        fixed(d, kDevice1, "Adapter", sdbus::ObjectPath("/org/bluez/hci0"));
        fixed(d, kDevice1, "RSSI", int16_t(-42));
        live(d, kDevice1, "Connected", m_connected);
        live(d, kDevice1, "ServicesResolved", m_connected);
        method(d, kDevice1, "Connect", [this](sdbus::Result<> &&reply) {
            if (m_vanishOnConnect) { // and no reply
                m_device->emitInterfacesRemovedSignal();
                return;
            }
            setConnected(true);
            reply.returnResults();
        });
        method(d, kDevice1, "Disconnect", [this] { setConnected(false); });
        publish(d);
    }
    void setConnected(bool connected)
    {
        if (!m_service)
            addGatt();
        m_connected = connected;
        m_device->emitPropertiesChangedSignal(kDevice1, {"Connected", "ServicesResolved"});
    }
    void addGatt()
    {
        m_service = object(kDev + "/service000a");
        fixed(*m_service, kService1, "UUID", std::string("7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5"));
        fixed(*m_service, kService1, "Device", sdbus::ObjectPath(kDev));
        publish(*m_service);
        m_characteristic = object(kCharacteristicPath);
        sdbus::IObject &c = *m_characteristic;
        fixed(c, kCharacteristic1, "UUID", std::string("7c3e0002-91b2-4d5a-8e61-2f04c3a9d7b5"));
        fixed(c, kCharacteristic1, "Service", sdbus::ObjectPath(kDev + "/service000a"));
        fixed(c, kCharacteristic1, "Flags", std::vector<std::string>{"write", "notify"});
        live(c, kCharacteristic1, "Notifying", m_notifying);
        live(c, kCharacteristic1, "Value", m_value);
        method(c, kCharacteristic1, "StartNotify", [this] {
            m_notifying = true;
            m_characteristic->emitPropertiesChangedSignal(kCharacteristic1, {"Notifying"});
        });
        method(c, kCharacteristic1, "WriteValue",
               [this](Bytes value, std::map<std::string, sdbus::Variant>) { onWrite(value); });
        publish(c);
    }
    void onWrite(const Bytes &value)
    {
        if (value == Bytes{0xDD}) {
            setConnected(false);
        } else if (value == Bytes{0xFF}) {
            m_powered = false;
            m_adapter->emitPropertiesChangedSignal(kAdapter1, {"Powered"});
        } else {
            m_value.assign(value.rbegin(), value.rend());
            m_characteristic->emitPropertiesChangedSignal(kCharacteristic1, {"Value"});
        }
    }

    std::unique_ptr<sdbus::IConnection> m_bus;
    std::unique_ptr<sdbus::IObject> m_root, m_adapter, m_device, m_service, m_characteristic;
    bool m_powered = true, m_connected = false, m_notifying = false;
    std::atomic<bool> m_vanishOnConnect{false};
    Bytes m_value;
};

} // namespace zor_test
