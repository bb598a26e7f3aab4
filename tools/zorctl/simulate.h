// --simulate: zorctl starts itself again with the virtual-focuser library
// preloaded, so the unchanged program drives virtual focusers.
#pragma once

#include <string>

namespace zorctl {

// The devices of a bare --simulate when ZOR_SIM is not set either.
constexpr const char *kDefaultSimulation = "pro@382";

// In the first run: restarts this program (argv as given) with the virtual
// focusers that `description` names (empty: ZOR_SIM, else the default), and
// returns only by throwing UserError. In the restarted run: checks that the
// virtual focusers answer hidapi's calls and returns.
void enterSimulation(const std::string &description, char **argv);

// Why `description` does not describe virtual focusers (as ZOR_SIM does), or
// empty when it does.
std::string descriptionProblem(const std::string &description);

// Where the virtual-focuser library is; throws UserError naming the places
// searched when it is in none of them.
std::string findSimLibrary();

} // namespace zorctl
