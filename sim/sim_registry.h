// The bus of virtual focusers: each device's firmware model together with its
// USB side (plugged or not, the feature report it holds, pending faults), the
// open handles, and the clock. One mutex guards all of it.
#pragma once

#include "sim/clock.h"
#include "sim/focuser_model.h"
#include "sim/sim_control.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zorsim {
struct VirtualDevice;
}

// An open handle. `device` is null once reset() removed its device.
struct hid_device_ {
    zorsim::VirtualDevice *device = nullptr;
    uint64_t connection = 0; // the device's connection this handle was opened on
    std::atomic<const wchar_t *> error{nullptr};
    std::atomic<const wchar_t *> readError{nullptr};
    bool nonblocking = false;
    struct hid_device_info *info = nullptr;
};

namespace zorsim {

constexpr int kReplyReportBytes = 17; // report ID 01 and the reply record
constexpr uint8_t kRequestReportId = 0x03;
constexpr uint8_t kReplyReportId = 0x01;
constexpr std::size_t kTransferLogLength = 65536;

struct Fault {
    int count = 0;
    int code = -1;
    int error = EPIPE;
};

struct VirtualDevice {
    VirtualDevice(int number, const DeviceConfig &config, Nanos now);

    int number;
    std::string path;
    FocuserModel model;
    bool plugged = true;
    std::optional<Nanos> backAt; // restarting: returns to the bus at this time
    uint64_t connection = 0;     // counts departures from the bus; handles of an older one are dead
    std::array<uint8_t, kReplyReportBytes> reply{};

    Fault sendFault;
    Fault readFault;
    int garble = 0;
    int failOpens = 0;
    int openError = EACCES;
    bool stalled = false;
    std::chrono::microseconds latency{0};

    std::deque<Transfer> log; // the most recent kTransferLogLength transfers
    int handles = 0;
};

class Registry {
  public:
    // Made on first use, with the devices that ZOR_SIM describes; never destroyed.
    static Registry &instance();

    std::mutex mutex;

    // Everything below needs `mutex` held.
    Nanos now() const;
    void useManualClock(bool manual);
    void advance(Nanos d) { manualClock_.advance(d); }

    // Brings back devices whose restart is over.
    void refresh();
    VirtualDevice &device(int number); // throws std::out_of_range
    std::vector<std::unique_ptr<VirtualDevice>> &devices() { return devices_; }
    int add(const DeviceConfig &config);
    void clear();

    void plug(VirtualDevice &d);
    void unplug(VirtualDevice &d);
    void restart(VirtualDevice &d);

    // Handles are registered while open so that a stale one is recognised.
    void addHandle(hid_device_ *h) { handles_.insert(h); }
    void removeHandle(hid_device_ *h) { handles_.erase(h); }
    bool isHandle(const hid_device_ *h) const { return h && handles_.count(const_cast<hid_device_ *>(h)) != 0; }
    int invalidUses = 0;

    // Set when ZOR_SIM could not be read; hid_init then fails with it.
    std::string environmentError;

  private:
    Registry();
    std::vector<std::unique_ptr<VirtualDevice>> devices_;
    std::set<hid_device_ *> handles_;
    WallClock wallClock_;
    ManualClock manualClock_;
    Nanos wallOffset_{0};
    bool manual_ = false;
};

// Error texts live for the life of the process, so that the pointer hid_error
// hands out stays valid whatever other threads do. Thread-safe.
const wchar_t *internError(const std::string &text);

} // namespace zorsim
