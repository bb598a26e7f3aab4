#include "ble_transport/linux/bluez_objects.h"

#include <algorithm>
#include <cstdio>

namespace bluez {
namespace {

// Copies the property `key` into `out` when it is there with the expected
// type; anything else leaves `out` alone.
template <typename T>
void read(const Properties &properties, const char *key, T &out)
{
    auto found = properties.find(key);
    if (found != properties.end() && found->second.containsValueOfType<T>())
        out = found->second.get<T>();
}

void readPath(const Properties &properties, const char *key, std::string &out)
{
    sdbus::ObjectPath path;
    read(properties, key, path);
    if (!path.empty())
        out = path;
}

void merge(Adapter &adapter, const Properties &properties)
{
    read(properties, "Address", adapter.address);
    read(properties, "Powered", adapter.powered);
}

void merge(Device &device, const Properties &properties)
{
    readPath(properties, "Adapter", device.adapter);
    read(properties, "Name", device.name);
    read(properties, "Address", device.address);
    read(properties, "RSSI", device.rssi);
    read(properties, "Connected", device.connected);
    read(properties, "ServicesResolved", device.servicesResolved);
}

void merge(GattService &service, const Properties &properties)
{
    readPath(properties, "Device", service.device);
    read(properties, "UUID", service.uuid);
}

void merge(GattCharacteristic &characteristic, const Properties &properties)
{
    readPath(properties, "Service", characteristic.service);
    read(properties, "UUID", characteristic.uuid);
    read(properties, "Flags", characteristic.flags);
    read(properties, "Notifying", characteristic.notifying);
    read(properties, "Value", characteristic.value);
}

template <typename T>
const T *find(const std::map<std::string, T> &objects, const std::string &path)
{
    auto found = objects.find(path);
    return found == objects.end() ? nullptr : &found->second;
}

} // namespace

bool GattCharacteristic::hasFlag(const char *flag) const
{
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

void Objects::apply(const std::string &path, const Interfaces &interfaces)
{
    for (const auto &[interface, properties] : interfaces)
        apply(path, interface, properties);
}

void Objects::apply(const std::string &path, const std::string &interface, const Properties &properties)
{
    if (interface == kAdapter)
        merge(m_adapters[path], properties);
    else if (interface == kDevice)
        merge(m_devices[path], properties);
    else if (interface == kGattService)
        merge(m_services[path], properties);
    else if (interface == kGattCharacteristic)
        merge(m_characteristics[path], properties);
}

void Objects::remove(const std::string &path, const std::vector<std::string> &interfaces)
{
    for (const std::string &interface : interfaces) {
        if (interface == kAdapter)
            m_adapters.erase(path);
        else if (interface == kDevice)
            m_devices.erase(path);
        else if (interface == kGattService)
            m_services.erase(path);
        else if (interface == kGattCharacteristic)
            m_characteristics.erase(path);
    }
}

void Objects::clear()
{
    m_adapters.clear();
    m_devices.clear();
    m_services.clear();
    m_characteristics.clear();
}

const Adapter *Objects::adapter(const std::string &path) const { return find(m_adapters, path); }
const Device *Objects::device(const std::string &path) const { return find(m_devices, path); }
const GattCharacteristic *Objects::characteristic(const std::string &path) const
{
    return find(m_characteristics, path);
}

std::string Objects::firstAdapter() const
{
    return m_adapters.empty() ? std::string() : m_adapters.begin()->first;
}

std::string Objects::deviceOf(const std::string &characteristicPath) const
{
    const GattCharacteristic *characteristic = find(m_characteristics, characteristicPath);
    const GattService *service = characteristic ? find(m_services, characteristic->service) : nullptr;
    return service ? service->device : std::string();
}

std::vector<std::pair<std::string, GattService>> Objects::servicesOf(const std::string &devicePath) const
{
    std::vector<std::pair<std::string, GattService>> found;
    for (const auto &entry : m_services) {
        if (entry.second.device == devicePath)
            found.push_back(entry);
    }
    return found;
}

std::vector<std::pair<std::string, GattCharacteristic>>
Objects::characteristicsOf(const std::string &servicePath) const
{
    std::vector<std::pair<std::string, GattCharacteristic>> found;
    for (const auto &entry : m_characteristics) {
        if (entry.second.service == servicePath)
            found.push_back(entry);
    }
    return found;
}

int64_t addressValue(const std::string &text)
{
    unsigned int bytes[6];
    char rest = 0;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &bytes[0], &bytes[1], &bytes[2], &bytes[3],
                    &bytes[4], &bytes[5], &rest) != 6)
        return 0;
    int64_t value = 0;
    for (unsigned int byte : bytes)
        value = (value << 8) | byte;
    return value;
}

} // namespace bluez
