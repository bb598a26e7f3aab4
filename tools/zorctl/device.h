// A focuser opened for the length of one command, and what it says about
// itself.
#pragma once

#include "errors.h"

#include <string>
#include <vector>

namespace zorctl {

struct FirmwareVersion {
    int major = 0, minor = 0, build = 0;
    int number() const { return major * 100 + minor * 10 + build; } // as the library compares versions
    std::string text() const;                                       // "3.8.2"
};

// The capability list a focuser reports about itself.
struct Capability {
    int type; // a ZOR_CONTROL_TYPE
    std::string name;
    std::string description;
    bool supported;
    bool writable;
};

// One open focuser: enumerates (IDs exist only after an enumeration), opens
// the ID, and closes it again at the end of the command unless it is moving.
// A Bluetooth ID is already open: its link opens and closes it.
class Focuser {
  public:
    explicit Focuser(int id);
    ~Focuser();
    Focuser(const Focuser &) = delete;
    Focuser &operator=(const Focuser &) = delete;

    int id() const { return m_id; }
    // Closes now; used before waiting for a focuser that restarts.
    void close();

    FirmwareVersion firmware();
    std::string model(); // "ZOR Pro", "ZORN", or empty for early firmware
    std::string alias(); // empty when none is set
    std::vector<Capability> capabilities();
    bool supports(ZOR_CONTROL_TYPE type);

  private:
    int m_id;
    bool m_open = false;
};

// The alias inside a display name "ZOR(alias)"; empty for "ZOR".
std::string aliasFromName(const char *name);

} // namespace zorctl
