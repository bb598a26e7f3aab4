// What the setup pages save: the Bluetooth focusers to serve by name and
// each focuser's temperature compensation, in
// $XDG_CONFIG_HOME/zor_alpaca/config.json (~/.config when unset). Settings
// the focuser keeps itself (backlash, direction, ...) are not copied here.
#pragma once

#include "focuser_service.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace zoralpaca {

// The Alpaca UniqueID of the focuser of a service key ("usb:<serial>",
// "ble:<name>"): a UUID-shaped text that is a function of the key alone, so
// it is the same on every start and on every computer.
std::string uniqueIdOf(const std::string &key);

class ServerConfig {
  public:
    // Reads the file; a missing file is an empty configuration, an
    // unreadable one is reported on standard error and left alone.
    ServerConfig();
    explicit ServerConfig(std::string path);

    const std::string &path() const { return m_path; }
    std::vector<std::string> bluetoothNames() const;
    bool addBluetoothName(const std::string &name); // false when already listed
    // Serves the focuser named `from` as `to` from the next start on (when
    // `from` was listed here; false otherwise).
    bool renameBluetooth(const std::string &from, const std::string &to);
    std::optional<zorservice::CompensationSettings> compensation(const std::string &key) const;
    void setCompensation(const std::string &key, const zorservice::CompensationSettings &settings);

    // Writes the file whole (a temporary file renamed over it); false with
    // a reason on standard error when it cannot.
    bool save() const;

  private:
    void load();

    const std::string m_path;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_bluetooth;
    std::map<std::string, zorservice::CompensationSettings> m_compensation;
};

std::string defaultConfigPath();

} // namespace zoralpaca
