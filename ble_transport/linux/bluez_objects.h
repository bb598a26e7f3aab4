// What the central knows of BlueZ's objects, as plain values: the adapters,
// devices, GATT services and characteristics, by object path (so in path
// order), kept current from GetManagedObjects, InterfacesAdded,
// InterfacesRemoved and PropertiesChanged.
#pragma once

#include <sdbus-c++/Types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bluez {

inline constexpr char kService[] = "org.bluez";
inline constexpr char kAdapter[] = "org.bluez.Adapter1";
inline constexpr char kDevice[] = "org.bluez.Device1";
inline constexpr char kGattService[] = "org.bluez.GattService1";
inline constexpr char kGattCharacteristic[] = "org.bluez.GattCharacteristic1";

using Properties = std::map<std::string, sdbus::Variant>;
using Interfaces = std::map<std::string, Properties>;

struct Adapter {
    std::string address;
    bool powered = false;
};

struct Device {
    std::string adapter;
    std::string name;
    std::string address;
    int16_t rssi = 0;
    bool connected = false;
    bool servicesResolved = false;
};

struct GattService {
    std::string device;
    std::string uuid;
};

struct GattCharacteristic {
    std::string service;
    std::string uuid;
    std::vector<std::string> flags;
    bool notifying = false;
    std::vector<uint8_t> value;

    bool hasFlag(const char *flag) const;
};

class Objects {
public:
    // Adds the interfaces or merges changed properties into them.
    void apply(const std::string &path, const Interfaces &interfaces);
    void apply(const std::string &path, const std::string &interface, const Properties &properties);
    void remove(const std::string &path, const std::vector<std::string> &interfaces);
    void clear();

    const Adapter *adapter(const std::string &path) const;
    const Device *device(const std::string &path) const;
    const GattCharacteristic *characteristic(const std::string &path) const;
    // The first adapter in path order; empty when there is none.
    std::string firstAdapter() const;
    // The device a characteristic belongs to; empty when unknown.
    std::string deviceOf(const std::string &characteristicPath) const;
    std::vector<std::pair<std::string, GattService>> servicesOf(const std::string &devicePath) const;
    std::vector<std::pair<std::string, GattCharacteristic>>
    characteristicsOf(const std::string &servicePath) const;

  private:
    std::map<std::string, Adapter> m_adapters;
    std::map<std::string, Device> m_devices;
    std::map<std::string, GattService> m_services;
    std::map<std::string, GattCharacteristic> m_characteristics;
};

// The 48-bit value of "AA:BB:CC:DD:EE:FF"; 0 when the text is not one.
int64_t addressValue(const std::string &text);

} // namespace bluez
