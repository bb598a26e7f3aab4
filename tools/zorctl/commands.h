// The subcommands. Each add... function declares its subcommands on the
// application and registers what runs when one of them is chosen.
#pragma once

#include <functional>
#include <vector>

namespace CLI {
class App;
}

namespace zorctl {

struct Command {
    CLI::App *app;
    std::function<int()> run; // returns the exit status
};
using Commands = std::vector<Command>;

void addListAndInfo(CLI::App &app, Commands &commands);
void addMotion(CLI::App &app, Commands &commands); // move, stop, position, sync
void addWatch(CLI::App &app, Commands &commands);
void addSettings(CLI::App &app, Commands &commands); // get, set
void addUpdate(CLI::App &app, Commands &commands);

// Shared option helpers.
void addIdArgument(CLI::App &sub, int &id);
void addJsonFlag(CLI::App &sub, bool &json);

} // namespace zorctl
