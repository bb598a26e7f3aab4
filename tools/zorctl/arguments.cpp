// The numeric and shared arguments of the subcommands.
#include "ble.h"
#include "commands.h"

#include "ZOR_focuser.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace zorctl {

std::optional<int> parseWholeNumber(const std::string &text)
{
    const std::size_t digitsAt = !text.empty() && text[0] == '-' ? 1 : 0;
    if (text.size() == digitsAt || text.find_first_not_of("0123456789", digitsAt) != std::string::npos)
        return std::nullopt;
    errno = 0;
    const long value = std::strtol(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return std::nullopt;
    return static_cast<int>(value);
}

CLI::Option *addWholeNumber(CLI::App &sub, const std::string &name, int &value,
                            const std::string &description, int lo, int hi, const std::string &note)
{
    const std::string range = hi == INT_MAX ? ", " + std::to_string(lo) + " or more,"
                                            : " from " + std::to_string(lo) + " to " + std::to_string(hi);
    const std::string need =
        "a whole number" + range + " is needed" + (note.empty() ? "" : " (" + note + ")");
    // CLI11's own conversion reads "0x10" as 16 and "010" as 8; the text it
    // gets is rewritten into plain decimal first.
    CLI::Validator decimal(
        [=](std::string &text) -> std::string {
            const std::optional<int> v = parseWholeNumber(text);
            if (!v || *v < lo || *v > hi)
                return need + ", not " + text;
            text = std::to_string(*v);
            return std::string();
        },
        hi == INT_MAX ? ">=" + std::to_string(lo) : std::to_string(lo) + "-" + std::to_string(hi));
    return sub.add_option(name, value, description)->transform(decimal);
}

void addIdArgument(CLI::App &sub, int &id)
{
    // With --ble there is no ID: refusing every word here hands them all to
    // the positionals that follow ("move 30" then moves to step 30).
    if (bluetoothChosen())
        sub.validate_positionals();
    addWholeNumber(sub, "ID", id, "Focuser ID, as 'zorctl list' shows it (none with --ble)", 0,
                   ZOR_BLE_ID_BASE - 1, "a focuser on USB")
        ->check(CLI::Validator(
            [](const std::string &) {
                return bluetoothChosen() ? std::string("no ID is taken with --ble") : std::string();
            },
            ""));
}

void addStepArgument(CLI::App &sub, int &step, const std::string &description)
{
    addWholeNumber(sub, "STEP", step, description, 0)->required();
}

void addJsonFlag(CLI::App &sub, bool &json) { sub.add_flag("--json", json, "Print JSON instead of text"); }

} // namespace zorctl
