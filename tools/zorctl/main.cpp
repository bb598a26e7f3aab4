// zorctl: drives ZOR focusers from the command line through the SDK's
// public interface.
#include "ble.h"
#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "simulate.h"

#include "ZOR_focuser.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <optional>
#include <unistd.h>

namespace zorctl {
namespace {

// The top level accepts --simulate, --ble, --version and the shell; the
// commands typed into the shell get the rest.
enum class Level { Program, Shell };

int runShell(char **argv);

const Command *parsedCommand(const Commands &commands)
{
    for (const Command &c : commands)
        if (c.app->parsed())
            return &c;
    return nullptr;
}

// A command on one focuser takes either its ID or the --ble focuser (in a
// shell started with --ble, that focuser); the others take neither. (An ID
// given with --ble does not parse: see addIdArgument.)
void checkFocuserChoice(const Command &c, bool bluetooth)
{
    if (!c.id && bluetooth)
        throw UsageError("'" + c.app->get_name() + "' acts on no single focuser; --ble does not apply");
    if (c.id && c.app->get_option("ID")->count() == 0 && !bluetooth)
        throw UsageError("the focuser's ID is needed (or --ble NAME for a Bluetooth focuser)");
}

// Runs one command line (without the program name).
int runCommandLine(std::vector<std::string> args, Level level, char **argv)
{
    CLI::App app{"Drive ZOR focusers: list them, move them, read and change their settings, update their "
                 "firmware.",
                 "zorctl"};
    app.fallthrough();
    app.require_subcommand(0, 1);
    std::string simulation;
    CLI::Option *simulate = nullptr;
    bool version = false;
    CLI::App *shell = nullptr;
    std::string bleName;
    int bleScanMs = kDefaultScanMs;
    CLI::Option *ble = nullptr;
    Commands commands;
    if (level == Level::Program) {
        simulate =
            app.add_option("--simulate", simulation,
                           "Run against virtual focusers; DEVICES describes them as ZOR_SIM does (default: "
                           "$ZOR_SIM, else one ZOR Pro, " +
                               std::string(kDefaultSimulation) + ")")
                ->expected(0, 1)
                ->type_name("[DEVICES]")
                ->check(CLI::Validator(
                    [](std::string &devices) {
                        const std::string problem = descriptionProblem(devices);
                        return problem.empty() ? problem
                                               : "DEVICES does not describe virtual focusers: " + problem;
                    },
                    "DEVICES"));
        ble = app.add_option_function<std::string>(
                       "--ble",
                       [&bleName, &commands](const std::string &name) {
                           bleName = name;
                           chooseBluetooth();
                           for (const Command &c : commands) // see addIdArgument
                               if (c.id)
                                   c.app->validate_positionals();
                       },
                             "Run the command on the Bluetooth focuser that advertises NAME, instead of an ID: "
                             "zorctl scans, connects, pairs, runs it and disconnects (with 'shell': one link "
                             "for every command read)")
                  ->type_name("NAME")
                  ->trigger_on_parse(); // before the command's positionals are read
        addWholeNumber(app, "--ble-scan", bleScanMs, "Milliseconds to scan for the --ble focuser (default 2000)",
                       100, 60000);
        app.add_flag("--version", version, "Print the versions of zorctl and the library");
        app.footer("Examples:\n"
                   "  zorctl list\n"
                   "  zorctl move 0 12000 --wait\n"
                   "  zorctl set 0 backlash 40\n"
                   "  zorctl --simulate info 0          (a virtual ZOR Pro, no hardware needed)\n"
                   "  zorctl --simulate=pro@382,n@370 list\n"
                   "  zorctl --ble Garage info            (a Bluetooth focuser, by its advertised name)\n"
                   "  zorctl --simulate=ble:pro@382/name=Garage --ble Garage move 5000 --wait");
    }
    addListAndInfo(app, commands);
    addMotion(app, commands);
    addWatch(app, commands);
    addSettings(app, commands);
    addUpdate(app, commands);
    addBle(app, commands);
    addSim(app, commands);
    if (level == Level::Program)
        shell = app.add_subcommand("shell",
                                   "Read commands from standard input, one per line, on the same focusers");

    std::reverse(args.begin(), args.end()); // CLI11 takes them last first
    try {
        app.parse(args);
    } catch (const CLI::CallForHelp &) {
        std::cout << app.help();
        return 0;
    } catch (const CLI::CallForAllHelp &) {
        std::cout << app.help("", CLI::AppFormatMode::All);
        return 0;
    } catch (const CLI::ParseError &e) {
        printError(std::string(e.what()) + (bluetoothChosen() ? " (with --ble a command takes no ID)" : ""));
        std::cerr << app.help();
        return kUsageExit;
    }

    try {
        if (version) {
            std::printf("zorctl %s, library %s\n", ZORCTL_VERSION, ZORGetSDKVersion());
            return 0;
        }
        const Command *chosen = parsedCommand(commands);
        if (!chosen && !(shell && shell->parsed())) {
            printError("a command is needed");
            std::cerr << app.help();
            return kUsageExit;
        }
        const bool viaBle = ble && ble->count() > 0;
        try {
            if (chosen)
                checkFocuserChoice(*chosen, bluetoothChosen());
            if (simulate && simulate->count() > 0)
                if (const std::optional<int> status = enterSimulation(simulation, argv))
                    return *status;
            std::optional<BleLink> link;
            if (viaBle)
                link.emplace(bleName, bleScanMs);
            if (!chosen)
                return runShell(argv);
            if (chosen->id && BleLink::current())
                *chosen->id = BleLink::current()->id();
            return chosen->run();
        } catch (const UsageError &e) {
            printError(e.what());
            std::cerr << (chosen ? chosen->app->help("zorctl") : app.help());
            return kUsageExit;
        }
    } catch (const Failure &e) {
        printError(e.what());
        return kFailedExit;
    } catch (const UserError &e) {
        printError(e.what());
        return kFailedExit;
    }
}

// Words separated by blanks; double quotes keep blanks inside one word.
std::vector<std::string> splitWords(const std::string &line)
{
    std::vector<std::string> words;
    std::string word;
    bool quoted = false, inWord = false;
    for (const char c : line) {
        if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r')) {
            if (inWord)
                words.push_back(word);
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quoted)
        throw UsageError("a quote is not closed");
    if (inWord)
        words.push_back(word);
    return words;
}

// One process for many commands: with --simulate the virtual focusers, and
// everything they were told, last until the input ends.
int runShell(char **argv)
{
    const bool terminal = isatty(STDIN_FILENO) != 0;
    int status = 0;
    std::string line;
    for (;;) {
        if (terminal) {
            std::printf("zorctl> ");
            std::fflush(stdout);
        }
        if (!std::getline(std::cin, line))
            break;
        std::vector<std::string> words;
        try {
            words = splitWords(line);
        } catch (const UsageError &e) {
            printError(e.what());
            status = kFailedExit;
            continue;
        }
        if (words.empty() || words[0][0] == '#')
            continue;
        if (!terminal)
            std::printf("zorctl> %s\n", line.c_str()); // a transcript shows what ran
        if (words[0] == "exit" || words[0] == "quit")
            break;
        if (words[0] == "help")
            words = {"--help"};
        const int result = runCommandLine(words, Level::Shell, argv);
        if (result == kInterruptedExit || interrupted())
            return kInterruptedExit;
        if (result != 0)
            status = kFailedExit;
    }
    if (terminal)
        std::printf("\n");
    return status;
}

} // namespace

void printError(const std::string &message)
{
    std::fflush(stdout);
    std::fprintf(stderr, "zorctl: %s\n", message.c_str());
}

} // namespace zorctl

int main(int argc, char **argv)
{
    // Line by line even into a pipe, so output and errors keep their order.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        return zorctl::runCommandLine(std::vector<std::string>(argv + 1, argv + argc), zorctl::Level::Program,
                                      argv);
    } catch (const std::exception &e) {
        zorctl::printError(std::string("unexpected error: ") + e.what());
        return zorctl::kFailedExit;
    }
}
