// The subcommands. Each add... function declares its subcommands on the
// application and registers what runs when one of them is chosen.
#pragma once

#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace zorctl {

struct Command {
    CLI::App *app;
    std::function<int()> run; // returns the exit status
    int *id = nullptr;        // the focuser ID it acts on: given, or the --ble focuser's
};
using Commands = std::vector<Command>;

void addListAndInfo(CLI::App &app, Commands &commands);
void addMotion(CLI::App &app, Commands &commands); // move, stop, position, sync
void addWatch(CLI::App &app, Commands &commands);
void addSettings(CLI::App &app, Commands &commands); // get, set
void addUpdate(CLI::App &app, Commands &commands);
void addBle(CLI::App &app, Commands &commands); // ble scan, pair, clear-pair
void addSim(CLI::App &app, Commands &commands); // sim: a command to another process's virtual focusers

// Shared argument helpers. Numbers on the command line are plain decimal
// integers: an optional minus sign and digits, nothing else.
std::optional<int> parseWholeNumber(const std::string &text); // nullopt: not one, or beyond int
// An option or positional `name` taking a whole number from lo to hi; a
// refusal names the argument, the range and `note`.
CLI::Option *addWholeNumber(CLI::App &sub, const std::string &name, int &value,
                            const std::string &description, int lo, int hi = INT_MAX,
                            const std::string &note = "");
// The ID positional; optional, since --ble names the focuser instead.
void addIdArgument(CLI::App &sub, int &id);
void addStepArgument(CLI::App &sub, int &step, const std::string &description);
void addJsonFlag(CLI::App &sub, bool &json);

} // namespace zorctl
