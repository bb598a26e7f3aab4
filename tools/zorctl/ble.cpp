#include "ble.h"

#include "errors.h"
#include "progress.h"
#include "result_codes.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>

using namespace std::chrono_literals;

namespace zorctl {
namespace {


constexpr int kMaxListed = 64;

// The library calls its callbacks without a context argument, so the one
// link's state lives here.
BleLink *g_current = nullptr;
bool g_chosen = false;
std::atomic<bool> g_linkLost{false};

// Called on the library's own thread: only marks the loss and says so.
void onConnectionState(bool connected)
{
    if (!connected && !g_linkLost.exchange(true))
        std::fprintf(stderr, "Bluetooth: the link to the focuser was lost.\n");
}

// Called on the thread that pairs, while the pairing exchange runs.
void onPairState(ZOR_ERROR_CODE code)
{
    std::fprintf(stderr, "Bluetooth: pairing state %s\n", formatResult(code).c_str());
}

std::string deviceName(const BLE_DEVICE_INFO &d) { return std::string(d.Name, strnlen(d.Name, sizeof d.Name)); }

std::string seenNames(const std::vector<BLE_DEVICE_INFO> &found)
{
    std::string names;
    for (const BLE_DEVICE_INFO &d : found)
        names += (names.empty() ? "" : ", ") + deviceName(d);
    return names.empty() ? "none" : names;
}

const char *const kBluetoothChecks =
    "\nCheck that BlueZ runs (systemctl status bluetooth), that the adapter is powered (bluetoothctl "
    "power on) and that this user may use it (a member of the 'bluetooth' group, or a desk session).";

} // namespace

std::vector<BLE_DEVICE_INFO> scanForFocusers(int ms, bool progress)
{
    std::vector<BLE_DEVICE_INFO> list(kMaxListed);
    int found = 0;
    auto scan = std::async(std::launch::async,
                           [&] { return ZORBLEScan(ms, list.data(), static_cast<int>(list.size()), &found); });
    if (progress) {
        ProgressBar bar(stderr, "scanning");
        const auto start = std::chrono::steady_clock::now();
        auto fraction = [&] {
            return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() * 1000 / ms;
        };
        while (scan.wait_for(100ms) != std::future_status::ready)
            bar.update(fraction(), "");
        bar.finish(1.0, "");
    }
    const ZOR_ERROR_CODE code = scan.get();
    if (code == ZOR_ERROR_BLE_UNAVAILABLE)
        throw UserError("scanning for Bluetooth focusers: " + formatResult(code) + kBluetoothChecks);
    check(code, "scanning for Bluetooth focusers");
    list.resize(static_cast<std::size_t>(std::clamp(found, 0, kMaxListed)));
    std::stable_sort(list.begin(), list.end(),
                     [](const BLE_DEVICE_INFO &a, const BLE_DEVICE_INFO &b) { return a.RSSI > b.RSSI; });
    return list;
}

BleLink::BleLink(const std::string &name, int scanMs) : m_name(name)
{
    const std::vector<BLE_DEVICE_INFO> found = scanForFocusers(scanMs, true);
    const auto it = std::find_if(found.begin(), found.end(),
                                 [&](const BLE_DEVICE_INFO &d) { return deviceName(d) == name; });
    if (it == found.end())
        throw Failure("no focuser named \"" + name + "\" advertises (seen: " + seenNames(found) + ")",
                      ZOR_ERROR_BLE_CONNECT_FAILED);
    std::fprintf(stderr, "Connecting to %s (%s)...\n", name.c_str(), it->Address);
    g_linkLost = false;
    check(ZORBLEConnect(it->Name, it->Address, &m_id), "connecting to " + name);
    g_current = this;
    try {
        check(ZORBLERegConnStateCallback(m_id, onConnectionState), "watching the Bluetooth link");
        check(ZORBLERegPairStateCallback(m_id, onPairState), "watching the pairing");
        std::fprintf(stderr, "Pairing with %s...\n", name.c_str());
        check(ZORBLEPair(m_id), "pairing with " + name);
    } catch (...) {
        ZORBLEDisconnect(m_id);
        g_current = nullptr;
        throw;
    }
    std::fprintf(stderr, "Paired with %s; Bluetooth ID %d.\n", name.c_str(), m_id);
}

BleLink::~BleLink()
{
    ZORBLEDisconnect(m_id);
    g_current = nullptr;
}

BleLink *BleLink::current() { return g_current; }

bool isBluetoothId(int id) { return id >= ZOR_BLE_ID_BASE; }

bool bluetoothChosen() { return g_chosen || g_current; }

void chooseBluetooth() { g_chosen = true; }

void throwLinkLost(int id) { throw UserError("the Bluetooth link to focuser " + std::to_string(id) + " was lost"); }

void throwIfLinkLost(int id)
{
    if (isBluetoothId(id) && g_linkLost)
        throwLinkLost(id);
}

} // namespace zorctl
