// Virtual Bluetooth focusers for --simulate: a private dbus-daemon with
// zor_bluez_sim owning org.bluez on it, for as long as this object lives.
#pragma once

#include <string>
#include <sys/types.h>

namespace zorctl {

class SimulatedBluetooth {
  public:
    // `program` is zor_bluez_sim; `devices` its description (ZOR_BLE_SIM's
    // syntax). Throws UserError when either process does not come up.
    SimulatedBluetooth(const std::string &program, const std::string &devices);
    // Stops both processes and removes the bus's directory.
    ~SimulatedBluetooth();
    SimulatedBluetooth(const SimulatedBluetooth &) = delete;
    SimulatedBluetooth &operator=(const SimulatedBluetooth &) = delete;

    // As DBUS_SYSTEM_BUS_ADDRESS takes it.
    const std::string &address() const { return m_address; }

  private:
    void startDaemon();
    void startSimulator(const std::string &program, const std::string &devices);
    void stop();

    std::string m_dir;
    std::string m_address;
    pid_t m_daemon = -1;
    pid_t m_simulator = -1;
    int m_simulatorOutput = -1; // kept open: the simulator may still write to it
};

// Runs this program again (argv as given, with the environment as it now
// is) as a child, passes termination signals on to it, and returns its exit
// status (128 + the signal's number when a signal ended it).
int runChild(char **argv);

} // namespace zorctl
