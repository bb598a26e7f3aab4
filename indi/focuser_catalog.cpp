#include "focuser_catalog.h"

#include "ZOR_result_codes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace zorindi {
namespace {

const char *const kUsbPrefix = "usb:";
const char *const kBluetoothPrefix = "ble:";
constexpr int kScanMsBeforeConnect = 2000;
constexpr int kMaxScanned = 64;

bool startsWith(const std::string &s, const char *prefix) { return s.rfind(prefix, 0) == 0; }

bool isBluetoothKey(const std::string &key) { return startsWith(key, kBluetoothPrefix); }

std::string bluetoothName(const std::string &key) { return key.substr(std::strlen(kBluetoothPrefix)); }

// Another program driving the same focuser would fight this one over every
// move, and the USB link does not keep it out. Programs of this driver
// agree through an advisory lock per serial number, whose file names the
// holder.
std::string lockPath(const std::string &serial)
{
    const char *dir = std::getenv("XDG_RUNTIME_DIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/zor-focuser-" + serial + ".lock";
}

std::string holderOf(int fd)
{
    char text[128] = {};
    const ssize_t n = pread(fd, text, sizeof text - 1, 0);
    return n > 0 ? std::string(text, static_cast<std::size_t>(n)) : "another program";
}

// A descriptor holding the lock, or -1 with `problem` set.
int lockAgainstOthers(const std::string &serial, std::string &problem)
{
    const int fd = ::open(lockPath(serial).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return -2; // no place for a lock: go on without one
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        problem = "the focuser " + serial + " is in use by " + holderOf(fd) +
                  "; disconnect it there first";
        ::close(fd);
        return -1;
    }
    const std::string me = "indi_zor_focuser (process " + std::to_string(getpid()) + ")";
    if (ftruncate(fd, 0) == 0 && pwrite(fd, me.data(), me.size(), 0) < 0)
        std::perror("indi_zor_focuser: lock file");
    return fd;
}

std::string usbSerial(int id)
{
    ZOR_SN sn{};
    return ZORGetSerialNumber(id, &sn) == ZOR_SUCCESS ? serialText(sn) : std::string();
}

// "usb:<serial>", or for firmware that has no serial number the library's
// ID, which then stands for the USB port.
std::string usbKey(int id)
{
    const std::string serial = usbSerial(id);
    return kUsbPrefix + (serial.empty() ? "id" + std::to_string(id) : serial);
}

} // namespace

std::string resultText(int code)
{
    const char *name = ZORResultName(code);
    const std::string number = " (" + std::to_string(code) + ")";
    return name ? name + number + ": " + ZORResultMeaning(code) : "unknown result" + number;
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

FocuserCatalog &FocuserCatalog::instance()
{
    static FocuserCatalog catalog;
    return catalog;
}

// Opens a focuser that is not ours for a moment, to read who it is.
FoundFocuser FocuserCatalog::describeUsb(int id)
{
    for (const auto &[key, claim] : m_claims)
        if (claim.id == id && !isBluetoothKey(key))
            return {key, ""};
    const int opened = ZOROpen(id);
    if (opened != ZOR_SUCCESS)
        return {"", "USB focuser " + std::to_string(id) + " cannot be opened: " + resultText(opened)};
    ZOR_INFO info{};
    ZOR_TYPE type{};
    ZORGetProperty(id, &info);
    ZORGetType(id, &type);
    const std::string key = usbKey(id);
    ZORClose(id);
    std::string label = textOf(type.Type, sizeof type.Type);
    label = (label.empty() ? "ZOR" : label) + " " + key.substr(std::strlen(kUsbPrefix));
    const std::string name = textOf(info.Name, sizeof info.Name);
    if (name.find('(') != std::string::npos)
        label += " " + name.substr(name.find('(')); // the alias
    return {key, label + " (USB)"};
}

std::vector<std::string> FocuserCatalog::rescanUsb()
{
    std::vector<FoundFocuser> list;
    std::vector<std::string> problems;
    const int count = ZORGetNum();
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (ZORGetID(index, &id) != ZOR_SUCCESS)
            continue;
        FoundFocuser found = describeUsb(id);
        if (found.key.empty()) {
            problems.push_back(found.label);
            continue;
        }
        if (found.label.empty()) { // ours: keep the label it had
            const auto known = std::find_if(m_found.begin(), m_found.end(),
                                            [&](const FoundFocuser &f) { return f.key == found.key; });
            found.label = known != m_found.end() ? known->label : found.key;
        }
        list.push_back(found);
    }
    for (const FoundFocuser &f : m_found)
        if (isBluetoothKey(f.key))
            list.push_back(f);
    m_found = list;
    return problems;
}

int FocuserCatalog::scanBluetooth(int ms)
{
    std::vector<BLE_DEVICE_INFO> scanned(kMaxScanned);
    int count = 0;
    const int code = ZORBLEScan(ms, scanned.data(), kMaxScanned, &count);
    if (code != ZOR_SUCCESS)
        return code;
    scanned.resize(static_cast<std::size_t>(std::clamp(count, 0, kMaxScanned)));
    m_bluetooth = scanned;
    for (const BLE_DEVICE_INFO &d : m_bluetooth) {
        const std::string name = textOf(d.Name, sizeof d.Name);
        const std::string key = kBluetoothPrefix + name;
        const std::string label = name + " (Bluetooth, " + std::to_string(d.RSSI) + " dBm)";
        const auto known =
            std::find_if(m_found.begin(), m_found.end(), [&](const FoundFocuser &f) { return f.key == key; });
        if (known == m_found.end())
            m_found.push_back({key, label});
        else
            known->label = label;
    }
    return ZOR_SUCCESS;
}

std::string FocuserCatalog::open(const std::string &key, const std::string &owner, int &id)
{
    if (key.empty())
        return "no focuser is chosen";
    const auto held = m_claims.find(key);
    if (held != m_claims.end() && held->second.owner != owner)
        return "the focuser is already connected in device \"" + held->second.owner + "\"";
    Claim claim;
    if (held != m_claims.end()) {
        claim = held->second;
        release(claim);
        m_claims.erase(held);
    }
    claim.owner = owner;
    const std::string problem = isBluetoothKey(key) ? openBluetooth(key, claim) : openUsb(key, claim);
    if (!problem.empty())
        return problem;
    id = claim.id;
    m_claims[key] = claim;
    return "";
}

std::string FocuserCatalog::openUsb(const std::string &key, Claim &claim)
{
    std::string problem = "the focuser " + key.substr(std::strlen(kUsbPrefix)) + " is not connected by USB";
    const int count = ZORGetNum();
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (ZORGetID(index, &id) != ZOR_SUCCESS)
            continue;
        if (std::any_of(m_claims.begin(), m_claims.end(), [&](const auto &c) {
                return c.second.id == id && !isBluetoothKey(c.first);
            }))
            continue;
        const int opened = ZOROpen(id);
        if (opened != ZOR_SUCCESS) {
            problem = "a focuser could not be opened (" + resultText(opened) + ")";
            continue;
        }
        if (usbKey(id) != key) {
            ZORClose(id);
            continue;
        }
        std::string locked;
        claim.lockFd = lockAgainstOthers(key.substr(std::strlen(kUsbPrefix)), locked);
        if (claim.lockFd == -1) {
            ZORClose(id);
            return locked;
        }
        claim.id = id;
        return "";
    }
    return problem;
}

std::string FocuserCatalog::openBluetooth(const std::string &key, Claim &claim)
{
    const std::string name = bluetoothName(key);
    auto advertised = [&] {
        return std::find_if(m_bluetooth.begin(), m_bluetooth.end(),
                            [&](const BLE_DEVICE_INFO &d) { return textOf(d.Name, sizeof d.Name) == name; });
    };
    if (advertised() == m_bluetooth.end()) {
        const int scanned = scanBluetooth(kScanMsBeforeConnect);
        if (scanned != ZOR_SUCCESS)
            return "scanning for Bluetooth focusers failed: " + resultText(scanned);
    }
    const auto found = advertised();
    if (found == m_bluetooth.end())
        return "no Bluetooth focuser named \"" + name + "\" advertises; is it on, in range, and free of "
               "another program or computer?";
    int id = -1;
    const int connected = ZORBLEConnect(found->Name, found->Address, &id);
    if (connected != ZOR_SUCCESS)
        return "connecting to \"" + name + "\" failed: " + resultText(connected) +
               ". It may be connected to another program or computer.";
    const int paired = ZORBLEPair(id);
    if (paired != ZOR_SUCCESS) {
        ZORBLEDisconnect(id);
        return "pairing with \"" + name + "\" failed: " + resultText(paired);
    }
    claim.id = id;
    return "";
}

void FocuserCatalog::release(Claim &claim)
{
    if (claim.id >= ZOR_BLE_ID_BASE)
        ZORBLEDisconnect(claim.id);
    else if (claim.id >= 0)
        ZORClose(claim.id);
    if (claim.lockFd >= 0)
        ::close(claim.lockFd);
    claim.id = claim.lockFd = -1;
}

void FocuserCatalog::close(const std::string &key)
{
    const auto held = m_claims.find(key);
    if (held == m_claims.end())
        return;
    release(held->second);
    m_claims.erase(held);
}

} // namespace zorindi
