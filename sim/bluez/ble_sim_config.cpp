#include "sim/bluez/ble_sim_config.h"

#include "sim/sim_control.h"

#include <cctype>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace zorsim {
namespace {

struct RadioOptions {
    std::string address;
    int battery = -1;
    int rssi = -60;
};

int boundedNumber(const std::string &entry, const std::string &key, const std::string &text, int lo, int hi)
{
    std::size_t used = 0;
    int v = 0;
    try {
        v = std::stoi(text, &used);
    } catch (const std::exception &) {
        used = 0;
    }
    if (used == 0 || used != text.size() || v < lo || v > hi)
        throw std::invalid_argument("ZOR_BLE_SIM: \"" + entry + "\": " + key + " must be a whole number from " +
                                    std::to_string(lo) + " to " + std::to_string(hi));
    return v;
}

std::string checkedAddress(const std::string &entry, std::string text)
{
    unsigned b[6];
    char tail;
    if (text.size() != 17 || std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3],
                                         &b[4], &b[5], &tail) != 6)
        throw std::invalid_argument("ZOR_BLE_SIM: \"" + entry + "\": address must read like C0:FF:EE:00:00:01");
    for (char &c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// Takes the radio's options out of one entry and leaves what the ZOR_SIM
// parser reads; "name=" becomes the firmware's Bluetooth name.
std::string takeRadioOptions(const std::string &entry, RadioOptions &radio)
{
    std::istringstream parts(entry);
    std::string part, rest;
    bool head = true;
    while (std::getline(parts, part, '/')) {
        const std::size_t eq = part.find('=');
        const std::string key = head || eq == std::string::npos ? "" : part.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : part.substr(eq + 1);
        head = false;
        if (key == "address")
            radio.address = checkedAddress(entry, value);
        else if (key == "battery")
            radio.battery = boundedNumber(entry, key, value, 0, 100);
        else if (key == "rssi")
            radio.rssi = boundedNumber(entry, key, value, -127, 20);
        else
            rest += (rest.empty() ? "" : "/") + (key == "name" ? "ble=" + value : part);
    }
    return rest;
}

std::string defaultAddress(std::size_t index)
{
    const std::size_t n = index + 1;
    char text[18];
    std::snprintf(text, sizeof text, "C0:FF:EE:00:%02X:%02X", static_cast<unsigned>(n >> 8 & 0xFF),
                  static_cast<unsigned>(n & 0xFF));
    return text;
}

} // namespace

std::vector<BlePeripheralConfig> parseBleDescription(const std::string &description)
{
    std::vector<BlePeripheralConfig> out;
    std::istringstream entries(description);
    std::string entry;
    while (std::getline(entries, entry, ',')) {
        RadioOptions radio;
        const std::vector<DeviceConfig> devices = parseDescription(takeRadioOptions(entry, radio));
        if (devices.empty())
            throw std::invalid_argument("ZOR_BLE_SIM: \"" + entry + "\": empty entry");
        for (const DeviceConfig &device : devices) {
            BlePeripheralConfig c{device, radio.address, radio.rssi};
            if (c.address.empty())
                c.address = defaultAddress(out.size());
            if (radio.battery >= 0)
                c.device.battery.percentage = radio.battery;
            out.push_back(c);
        }
    }
    return out;
}

} // namespace zorsim
