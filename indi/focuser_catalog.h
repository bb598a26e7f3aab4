// The focusers this driver can reach, shared by all the INDI devices of one
// driver process: USB focusers found by enumeration, known by their serial
// number, and Bluetooth focusers found by the last scan, known by the name
// they advertise. A focuser is claimed by at most one device at a time, so
// two devices never drive it, and a listing never closes one in use.
#pragma once

#include "ZOR_focuser.h"

#include <map>
#include <string>
#include <vector>

namespace zorindi {

// "usb:<serial in hex>" or "ble:<advertised name>".
struct FoundFocuser {
    std::string key;
    std::string label; // what a user reads in the list
};

class FocuserCatalog {
  public:
    static FocuserCatalog &instance();

    // Enumerates USB focusers again; focusers found by earlier Bluetooth
    // scans stay listed. What could not be opened, in words for the user.
    std::vector<std::string> rescanUsb();
    // Scans for Bluetooth focusers for `ms`; 0 or the library's error.
    int scanBluetooth(int ms);
    const std::vector<FoundFocuser> &found() const { return m_found; }

    // Opens the focuser `key` names for `owner` (a device name) and claims
    // it; its library ID goes to `id`. Opening it again for the same owner
    // first drops the old handle (a reconnection). Empty on success, else
    // what went wrong, in words for the user.
    std::string open(const std::string &key, const std::string &owner, int &id);
    // Closes what open() gave and gives up the claim.
    void close(const std::string &key);

  private:
    struct Claim {
        std::string owner;
        int id = -1;
        int lockFd = -1; // held while a USB focuser is ours (see lockAgainstOthers)
    };
    FoundFocuser describeUsb(int id);
    std::string openUsb(const std::string &key, Claim &claim);
    std::string openBluetooth(const std::string &key, Claim &claim);
    void release(Claim &claim);

    std::vector<FoundFocuser> m_found;
    std::vector<BLE_DEVICE_INFO> m_bluetooth; // the last scan
    std::map<std::string, Claim> m_claims;
};

std::string serialText(const ZOR_SN &sn);
// "ZOR_ERROR_REMOVED (4): ..." for a library result code.
std::string resultText(int code);
std::string textOf(const char *chars, std::size_t size);

} // namespace zorindi
