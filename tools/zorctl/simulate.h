// --simulate: zorctl starts itself again with the virtual-focuser library
// preloaded, so the unchanged program drives virtual focusers; for virtual
// Bluetooth focusers it also runs a private bus with them on it, for the
// restarted program's lifetime.
#pragma once

#include <optional>
#include <string>

namespace zorctl {

// The devices of a bare --simulate when ZOR_SIM is not set either.
constexpr const char *kDefaultSimulation = "pro@382";

// An entry with this prefix describes a virtual Bluetooth focuser.
constexpr const char *kBluetoothPrefix = "ble:";

// A description's USB entries and Bluetooth entries (without the prefix),
// each in ZOR_SIM's syntax.
struct SimulatedDevices {
    std::string usb;
    std::string bluetooth;
};
SimulatedDevices splitDescription(const std::string &description);

// In the first run: restarts this program (argv as given) with the virtual
// focusers that `description` names (empty: ZOR_SIM, else the default). With
// USB focusers only, it replaces this process; with Bluetooth ones it
// returns the restarted program's exit status once it has stopped the
// private bus. In the restarted run: checks that the virtual focusers answer
// hidapi's calls and returns nullopt.
std::optional<int> enterSimulation(const std::string &description, char **argv);

// Why `description` does not describe virtual focusers (as ZOR_SIM does), or
// empty when it does.
std::string descriptionProblem(const std::string &description);

// Where a file of the virtual focusers (`name`, which is `what`) is: the
// path in environment variable `variable`, else beside an installed zorctl,
// beside zorctl in the build tree, or at `buildPath`. Throws UserError
// naming the places searched.
std::string findSimFile(const char *what, const char *variable, const char *name, const char *buildPath);

} // namespace zorctl
