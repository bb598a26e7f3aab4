// A minimal org.bluez on a private dbus-daemon: one adapter, one focuser
// that appears on discovery and answers each write by notifying the bytes
// reversed. Writing DD drops the link, FF switches the radio off.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

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
        m_adapter->registerProperty("Address").onInterface(kAdapter1).withGetter([] { return std::string("00:1A:7D:DA:71:13"); });
        m_adapter->registerProperty("Powered").onInterface(kAdapter1).withGetter([this] { return m_powered; });
        m_adapter->registerMethod("SetDiscoveryFilter").onInterface(kAdapter1).implementedAs([](std::map<std::string, sdbus::Variant>) {});
        m_adapter->registerMethod("StopDiscovery").onInterface(kAdapter1).implementedAs([] {});
        m_adapter->registerMethod("StartDiscovery").onInterface(kAdapter1).implementedAs([this] { addDevice(); });
        m_adapter->finishRegistration();
        m_bus->enterEventLoopAsync();
    }
    ~FakeBluez() { m_bus->leaveEventLoop(); }

private:
    std::unique_ptr<sdbus::IObject> object(const std::string &path) { return sdbus::createObject(*m_bus, path); }
    void changed(sdbus::IObject &target, const char *interface, const std::vector<std::string> &names)
    {
        target.emitPropertiesChangedSignal(interface, names);
    }
    void addDevice()
    {
        if (m_device)
            return;
        m_device = object(kDev);
        m_device->registerProperty("Name").onInterface(kDevice1).withGetter([] { return std::string("ZOR-50"); });
        m_device->registerProperty("Address").onInterface(kDevice1).withGetter([] { return std::string("AA:BB:CC:DD:EE:01"); });
        m_device->registerProperty("Adapter").onInterface(kDevice1).withGetter([] { return sdbus::ObjectPath("/org/bluez/hci0"); });
        m_device->registerProperty("RSSI").onInterface(kDevice1).withGetter([] { return int16_t(-42); });
        m_device->registerProperty("Connected").onInterface(kDevice1).withGetter([this] { return m_connected; });
        m_device->registerProperty("ServicesResolved").onInterface(kDevice1).withGetter([this] { return m_connected; });
        m_device->registerMethod("Connect").onInterface(kDevice1).implementedAs([this] { setConnected(true); });
        m_device->registerMethod("Disconnect").onInterface(kDevice1).implementedAs([this] { setConnected(false); });
        m_device->finishRegistration();
        m_device->emitInterfacesAddedSignal();
    }
    void setConnected(bool connected)
    {
        if (!m_service)
            addGatt();
        m_connected = connected;
        changed(*m_device, kDevice1, {"Connected", "ServicesResolved"});
    }
    void addGatt()
    {
        m_service = object(kDev + "/service000a");
        m_service->registerProperty("UUID").onInterface(kService1).withGetter([] { return std::string("7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5"); });
        m_service->registerProperty("Device").onInterface(kService1).withGetter([] { return sdbus::ObjectPath(kDev); });
        m_service->finishRegistration();
        m_service->emitInterfacesAddedSignal();
        m_characteristic = object(kCharacteristicPath);
        sdbus::IObject &c = *m_characteristic;
        c.registerProperty("UUID").onInterface(kCharacteristic1).withGetter([] { return std::string("7c3e0002-91b2-4d5a-8e61-2f04c3a9d7b5"); });
        c.registerProperty("Service").onInterface(kCharacteristic1).withGetter([] { return sdbus::ObjectPath(kDev + "/service000a"); });
        c.registerProperty("Flags").onInterface(kCharacteristic1).withGetter([] { return std::vector<std::string>{"write", "notify"}; });
        c.registerProperty("Notifying").onInterface(kCharacteristic1).withGetter([this] { return m_notifying; });
        c.registerProperty("Value").onInterface(kCharacteristic1).withGetter([this] { return m_value; });
        c.registerMethod("StartNotify").onInterface(kCharacteristic1).implementedAs([this] {
            m_notifying = true;
            changed(*m_characteristic, kCharacteristic1, {"Notifying"});
        });
        c.registerMethod("WriteValue").onInterface(kCharacteristic1).implementedAs([this](Bytes value, std::map<std::string, sdbus::Variant>) {
            onWrite(std::move(value));
        });
        c.finishRegistration();
        c.emitInterfacesAddedSignal();
    }
    void onWrite(Bytes value)
    {
        if (value == Bytes{0xDD}) {
            setConnected(false);
        } else if (value == Bytes{0xFF}) {
            m_powered = false;
            changed(*m_adapter, kAdapter1, {"Powered"});
        } else {
            m_value.assign(value.rbegin(), value.rend());
            changed(*m_characteristic, kCharacteristic1, {"Value"});
        }
    }

    std::unique_ptr<sdbus::IConnection> m_bus;
    std::unique_ptr<sdbus::IObject> m_root, m_adapter, m_device, m_service, m_characteristic;
    bool m_powered = true, m_connected = false, m_notifying = false;
    Bytes m_value;
};

} // namespace zor_test
