// Bluetooth focusers: scanning, and the link a command (or a whole shell)
// runs over. Progress and link events go to standard error, so that
// standard output stays what the command prints (JSON included).
#pragma once

#include "ZOR_focuser.h"

#include <string>
#include <vector>

namespace zorctl {

constexpr int kDefaultScanMs = 2000;

// The focusers that advertise during `ms`, strongest signal first, with a
// progress bar on standard error when `progress` is set. Throws Failure
// (with what to check) when Bluetooth cannot be used.
std::vector<BLE_DEVICE_INFO> scanForFocusers(int ms, bool progress);

// One focuser reached by its advertised name: found by a scan, connected and
// paired on construction, disconnected on destruction. One link at a time
// exists; commands find it through current().
class BleLink {
  public:
    BleLink(const std::string &name, int scanMs);
    ~BleLink();
    BleLink(const BleLink &) = delete;
    BleLink &operator=(const BleLink &) = delete;

    int id() const { return m_id; }
    const std::string &name() const { return m_name; }

    static BleLink *current();

  private:
    std::string m_name;
    int m_id = -1;
};

bool isBluetoothId(int id);

// Whether commands run on a Bluetooth focuser named by --ble (chosen while
// the command line is read, or a link that is open), so that they take no
// ID.
bool bluetoothChosen();
void chooseBluetooth();

// Throws UserError when the focuser behind `id` has lost its Bluetooth link
// (reported by the library's connection-state callback).
void throwIfLinkLost(int id);
[[noreturn]] void throwLinkLost(int id);

} // namespace zorctl
