// zorctl get and set, its failures and usage messages, and --simulate's
// own checks.
#include "zorctl_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace {

using testing::HasSubstr;
using namespace zor_test;

using Session = std::vector<std::pair<std::string, std::string>>; // command, what it prints

// Runs the commands in one zorctl shell and checks the whole transcript.
void expectSession(const std::string &simulate, const Session &session)
{
    std::string input, transcript;
    for (const auto &[command, output] : session) {
        input += command + "\n";
        transcript += "zorctl> " + command + "\n" + output;
    }
    const Outcome o = zorctl({simulate, "shell"}, input);
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(o.out, transcript);
}

std::string json(const std::string &setting, const std::string &value)
{
    return "{\n  \"id\": 0,\n  \"setting\": \"" + setting + "\",\n  \"value\": " + value + "\n}\n";
}

TEST(ZorctlSettings, EverySettingReadsBackWhatWasSet)
{
    expectSession("--simulate", {
                                    {"get 0 led", "on\n"},
                                    {"get 0 beep", "off\n"},
                                    {"set 0 backlash 040", "backlash set to 40\n"}, // decimal, not octal
                                    {"set 0 max-step 50000", "max-step set to 50000\n"},
                                    {"set 0 beep on", "beep set to on\n"},
                                    {"set 0 reverse yes", "reverse set to on\n"},
                                    {"set 0 max-force 7", "max-force set to 7\n"},
                                    {"set 0 led off", "led set to off\n"},
                                    {"set 0 ble-name north", "ble-name set to north\n"},
                                    {"set 0 alias \"a\\ b\"", "alias set to a\\ b\n"},
                                    {"get 0 backlash --json", json("backlash", "40")},
                                    {"get 0 max-step", "50000\n"},
                                    {"get 0 beep --json", json("beep", "true")},
                                    {"get 0 reverse", "on\n"},
                                    {"get 0 max-force", "7\n"},
                                    {"get 0 led --json", json("led", "false")},
                                    {"get 0 ble-name", "ZOR Pro_north\n"}, // as the focuser advertises it
                                    {"get 0 alias --json", json("alias", "\"a\\\\ b\"")},
                                });
}

TEST(ZorctlSettings, SpeedOnEarlyFirmwareAndTemperature)
{
    // Firmware before 3.3.6 carries a speed word; later firmware has none.
    expectSession(
        "--simulate=old@321:16",
        {{"get 0 speed", "3000\n"}, {"set 0 speed 1200", "speed set to 1200\n"}, {"get 0 speed", "1200\n"}});
    expectSession("--simulate=pro/temp=-5.5", {{"get 0 temperature --json", json("temperature", "-5.5")}});
}

struct Failing {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> messages; // each said once
    std::vector<std::string> env = {};
};

std::size_t occurrences(const std::string &text, const std::string &part)
{
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

TEST(ZorctlErrors, NameTheCodeOrShowTheUsage)
{
    const std::string devices = "--simulate: DEVICES does not describe virtual focusers: ";
    const std::vector<Failing> cases = {
        {{"--simulate", "info", "5"},
         1,
         {"opening focuser 5: ZOR_ERROR_INVALID_ID (2): no focuser has this ID"}},
        {{"--simulate", "info", "50"},
         2,
         {"ID: a whole number from 0 to 49 is needed (a focuser on USB), not 50", "Usage: zorctl info"}},
        {{"--simulate", "move", "0"}, 2, {"STEP is required", "Usage: zorctl move"}},
        {{"--simulate", "move", "0", "abc"},
         2,
         {"STEP: a whole number, 0 or more, is needed, not abc", "Usage:"}},
        {{"--simulate", "sync", "0", "0x10"}, 2, {"STEP: a whole number, 0 or more, is needed, not 0x10"}},
        {{"--simulate", "watch", "0", "-n", "1e3"},
         2,
         {"--count: a whole number, 0 or more, is needed, not 1e3"}},
        {{"--simulate", "move", "0", "600001"},
         1,
         {"step 600001 is outside this focuser's range 0 to 600000"}},
        {{"--simulate", "set", "0", "backlash", "300"},
         2,
         {"backlash takes a whole number from 0 to 255, not 300", "Usage: zorctl set"}},
        {{"--simulate", "set", "0", "max-force", "+7"},
         2,
         {"max-force takes a whole number from 0 to 15, not +7"}},
        {{"--simulate", "get", "0", "speed"}, 1, {"focuser 0 (firmware 3.8.2) has no speed setting"}},
        {{"--simulate", "set", "0", "temperature", "3"}, 2, {"Usage: zorctl set"}},
        {{"--simulate", "set", "0", "alias", "ninechars"}, 2, {"alias holds at most 8 characters"}},
        {{"--simulate", "set", "0", "led", "dim"}, 2, {"led takes on or off"}},
        {{"--simulate", "get", "0", "colour"}, 2, {"NAME: colour not in", "Usage: zorctl get"}},
        {{"--simulate=old@321:16", "get", "0", "led"},
         1,
         {"ZOR_ERROR_NOT_SUPPORTED (8): this focuser's model or firmware does not have this feature"}},
        {{"--simulate=n@370", "set", "0", "ble-name", "x"}, 1, {"ZOR_ERROR_NOT_SUPPORTED (8)"}},
        // A bad description is reported once, by zorctl, not again by the
        // virtual focusers; --simulate takes the word after it when that is
        // no command.
        {{"--simulate=tele", "list"}, 2, {devices + "\"tele\": the model must be pro, n or old"}},
        {{"--simulate", "frobnicate"}, 2, {devices + "\"frobnicate\": the model", "Usage: zorctl"}},
        {{"--simulate=pro/temp=nan", "list"},
         2,
         {"temp must be a number of degrees Celsius from -100 to 250"}},
        {{"--simulate", "list"},
         1,
         {"ZOR_SIM does not describe virtual focusers: \"pro:32\": the report size must be 16 or 64"},
         {"ZOR_SIM=pro:32"}},
        {{"--simulate=pro"}, 2, {"a command is needed", "Usage: zorctl"}},
        {{"frobnicate"}, 2, {"frobnicate", "Usage: zorctl"}},
    };
    for (const Failing &c : cases) {
        const Outcome o = zorctl(c.args, "", c.env);
        const std::string what = testing::PrintToString(c.args);
        EXPECT_EQ(o.status, c.status) << what << o.err;
        for (const std::string &m : c.messages)
            EXPECT_EQ(occurrences(o.err, m), 1u) << what << ": " << m << "\n" << o.err;
        EXPECT_EQ(o.out, "") << what;
    }
}

TEST(ZorctlErrors, ASettingIsRefusedWhileTheFocuserMoves)
{
    const Outcome o =
        zorctl({"--simulate=pro/speed=100", "shell"}, "move 0 31000\nset 0 backlash 10\nstop 0\n");
    EXPECT_EQ(o.status, 1);
    EXPECT_THAT(o.err, HasSubstr("setting the backlash: ZOR_ERROR_MOVING (5): the focuser is moving"));
    EXPECT_THAT(o.out, HasSubstr("Focuser 0 stopped at"));
}

TEST(ZorctlSimulate, KeepsItsSettingsApartAndFindsItsLibrary)
{
    const Outcome set = zorctl({"--simulate", "set", "0", "backlash", "40"});
    ASSERT_EQ(set.status, 0) << set.err;
    const std::string home = std::getenv("HOME");
    EXPECT_TRUE(std::filesystem::exists(home + "/.local/state/zorctl/simulated-home/.KVO/ZORconfig.xml"));
    EXPECT_FALSE(std::filesystem::exists(home + "/.KVO")); // where a real focuser's settings are kept
    // The library restores the saved backlash when the next virtual focuser powers up.
    EXPECT_EQ(zorctl({"--simulate", "get", "0", "backlash"}).out, "40\n");

    // Each run powers the virtual focusers up anew: each comes back with
    // its own position and backlash.
    const std::string two = "--simulate=n@370/sn=5a4f524e00000001,n@370/sn=5a4f524e00000002";
    expectSession(two, {{"set 0 backlash 11", "backlash set to 11\n"},
                        {"set 1 backlash 22", "backlash set to 22\n"},
                        {"sync 0 40000", "Focuser 0: the current position is now step 40000.\n"},
                        {"sync 1 20000", "Focuser 1: the current position is now step 20000.\n"}});
    expectSession(two, {{"position 0", "40000\n"},
                        {"get 0 backlash", "11\n"},
                        {"position 1", "20000\n"},
                        {"get 1 backlash", "22\n"}});

    const Outcome missing =
        zorctl({"--simulate", "list"}, "", {"ZORCTL_SIM_LIBRARY=/nowhere/libzor_hidsim.so"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("cannot find the virtual focuser library"));
    EXPECT_THAT(missing.err, HasSubstr("/nowhere/libzor_hidsim.so"));
}

} // namespace
