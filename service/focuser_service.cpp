// The service and its catalogue: USB focusers by serial number, Bluetooth
// focusers by advertised name, each found on the catalogue's own thread.
#include "service_state.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zorservice {
namespace {

constexpr int kMaxScanned = 64;

std::string bluetoothLabel(const BLE_DEVICE_INFO &device)
{
    return textOf(device.Name, sizeof device.Name) + " (Bluetooth, " + std::to_string(device.RSSI) + " dBm)";
}

// Opens a focuser that nobody here holds for a moment, to read who it is.
// The caller holds usbTables() alone.
std::optional<CatalogueEntry> describeUsb(int id, std::vector<std::string> &problems)
{
    const int opened = ZOROpen(id);
    if (opened != ZOR_SUCCESS) {
        problems.push_back("USB focuser " + std::to_string(id) + " cannot be opened: " + resultText(opened));
        return std::nullopt;
    }
    ZOR_INFO info{};
    ZOR_TYPE type{};
    ZORGetProperty(id, &info);
    ZORGetType(id, &type);
    CatalogueEntry entry{usbKey(id), "", Transport::Usb};
    ZORClose(id);
    const std::string model = textOf(type.Type, sizeof type.Type);
    entry.label = (model.empty() ? "ZOR" : model) + " " + entry.key.substr(4);
    const std::string name = textOf(info.Name, sizeof info.Name);
    if (name.find('(') != std::string::npos)
        entry.label += " " + name.substr(name.find('(')); // the alias
    entry.label += " (USB)";
    return entry;
}

} // namespace

std::shared_mutex &usbTables()
{
    static std::shared_mutex lock;
    return lock;
}

std::vector<int> enumerateUsbIds()
{
    std::vector<int> ids;
    const int count = ZORGetNum();
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (ZORGetID(index, &id) == ZOR_SUCCESS)
            ids.push_back(id);
    }
    return ids;
}

std::mutex &bluetoothSession()
{
    static std::mutex lock;
    return lock;
}

std::string textOf(const char *chars, std::size_t size) { return std::string(chars, strnlen(chars, size)); }

std::string serialText(const ZOR_SN &sn)
{
    std::string text;
    char hex[3];
    for (unsigned char byte : sn.id) {
        std::snprintf(hex, sizeof hex, "%02X", byte);
        text += hex;
    }
    return text;
}

std::string usbKey(int id)
{
    ZOR_SN sn{};
    if (ZORGetSerialNumber(id, &sn) == ZOR_SUCCESS)
        return "usb:" + serialText(sn);
    return "usb:id" + std::to_string(id);
}

void Service::State::catalogueChanged()
{
    std::lock_guard<std::mutex> lock(listenerMutex);
    if (catalogueListener)
        catalogueListener();
}

void Service::State::rescanUsb()
{
    std::vector<CatalogueEntry> found;
    std::vector<std::string> problemsSeen;
    {
        std::unique_lock<std::shared_mutex> tables(usbTables());
        for (const int id : enumerateUsbIds()) {
            std::unique_lock<std::mutex> lock(mutex);
            const auto claim = usbClaims.find(id);
            if (claim != usbClaims.end()) { // ours: keep what it was listed as
                const auto known = std::find_if(entries.begin(), entries.end(), [&](const CatalogueEntry &e) {
                    return e.key == claim->second;
                });
                found.push_back(known != entries.end()
                                    ? *known
                                    : CatalogueEntry{claim->second, claim->second, Transport::Usb});
                continue;
            }
            lock.unlock();
            if (auto entry = describeUsb(id, problemsSeen))
                found.push_back(*entry);
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const CatalogueEntry &e : entries)
            if (e.transport == Transport::Bluetooth)
                found.push_back(e);
        entries = found;
        problems = problemsSeen;
    }
    catalogueChanged();
}

void Service::State::noteAdvertised(const std::vector<BLE_DEVICE_INFO> &scanned)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const BLE_DEVICE_INFO &device : scanned) {
            const std::string name = textOf(device.Name, sizeof device.Name);
            const CatalogueEntry entry{"ble:" + name, bluetoothLabel(device), Transport::Bluetooth};
            const auto known = std::find_if(entries.begin(), entries.end(),
                                            [&](const CatalogueEntry &e) { return e.key == entry.key; });
            if (known == entries.end())
                entries.push_back(entry);
            else
                *known = entry;
            const auto seen =
                std::find_if(advertised.begin(), advertised.end(),
                             [&](const BLE_DEVICE_INFO &d) { return textOf(d.Name, sizeof d.Name) == name; });
            if (seen == advertised.end())
                advertised.push_back(device);
            else
                *seen = device;
        }
    }
    catalogueChanged();
}

bool Service::State::advertisedAs(const std::string &name, BLE_DEVICE_INFO &device) const
{
    std::lock_guard<std::mutex> lock(mutex);
    for (const BLE_DEVICE_INFO &d : advertised)
        if (textOf(d.Name, sizeof d.Name) == name) {
            device = d;
            return true;
        }
    return false;
}

int Service::State::scanBluetooth(std::chrono::milliseconds duration)
{
    std::vector<BLE_DEVICE_INFO> scanned(kMaxScanned);
    int count = 0;
    const int code = ZORBLEScan(static_cast<int>(duration.count()), scanned.data(), kMaxScanned, &count);
    if (code != ZOR_SUCCESS)
        return code;
    scanned.resize(static_cast<std::size_t>(std::clamp(count, 0, kMaxScanned)));
    noteAdvertised(scanned);
    return ZOR_SUCCESS;
}

Service::Service(std::string programName) : m_state(std::make_shared<State>(std::move(programName)))
{
    State &state = *m_state;
    state.catalogueThread = std::thread([&state] {
        while (state.catalogueTasks.runUntil(TaskQueue::Clock::now() + std::chrono::hours(1))) {
        }
    });
}

Service::~Service()
{
    m_state->catalogueTasks.stop();
    m_state->catalogueThread.join();
    std::map<std::string, std::shared_ptr<FocuserImpl>> focusers;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        focusers.swap(m_state->focusers);
    }
    for (auto &[key, focuser] : focusers)
        focuser->shutDown();
}

std::vector<CatalogueEntry> Service::catalogue() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->entries;
}

std::vector<std::string> Service::problems() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->problems;
}

void Service::rescanUsb(Done done)
{
    State &state = *m_state;
    state.catalogueTasks.post([&state, done] {
        state.rescanUsb();
        if (done)
            done(ZOR_SUCCESS);
    });
}

void Service::scanBluetooth(std::chrono::milliseconds duration, Done done)
{
    State &state = *m_state;
    state.catalogueTasks.post([&state, duration, done] {
        int code;
        {
            std::lock_guard<std::mutex> session(bluetoothSession());
            code = state.scanBluetooth(duration);
        }
        if (done)
            done(code);
    });
}

void Service::setCatalogueListener(std::function<void()> changed)
{
    std::lock_guard<std::mutex> lock(m_state->listenerMutex);
    m_state->catalogueListener = std::move(changed);
}

std::shared_ptr<Focuser> Service::focuser(const std::string &key)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    auto &focuser = m_state->focusers[key];
    if (!focuser)
        focuser = std::make_shared<FocuserImpl>(*m_state, key);
    return focuser;
}

} // namespace zorservice
