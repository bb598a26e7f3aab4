// zorctl over Bluetooth, against virtual Bluetooth focusers on a private bus:
// every command through --ble, the failures a user meets, a lost link, and
// --simulate's own bus coming and going.
#include "json_reader.h"
#include "private_bluez.h"
#include "zorctl_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using namespace zor_test;
namespace fs = std::filesystem;

const std::string kFocusers = "pro@382/name=Garage/battery=80,pro@382/name=Shed/rssi=-40";

std::vector<std::string> onGarage(std::vector<std::string> command)
{
    command.insert(command.begin(), {"--ble", "Garage", "--ble-scan", "300"});
    return command;
}

class ZorctlBle : public testing::Test {
  protected:
    Outcome run(const std::vector<std::string> &args, const std::string &input = "")
    {
        return zorctl(args, input, {"DBUS_SYSTEM_BUS_ADDRESS=" + bluez.address()});
    }

    PrivateBluez bluez{kFocusers};
};

TEST_F(ZorctlBle, ScanListsTheFocusersStrongestFirst)
{
    const Outcome o = run({"ble", "scan", "--time", "300", "--json"});
    ASSERT_EQ(o.status, 0) << o.err;
    const JsonValue list = parseJson(o.out);
    ASSERT_EQ(list.array.size(), 2u) << o.out;
    EXPECT_EQ(list[0]["name"].string, "Shed");
    EXPECT_EQ(list[0]["rssi"].number, -40);
    EXPECT_EQ(list[1]["name"].string, "Garage");
    EXPECT_EQ(list[1]["address"].string, "C0:FF:EE:00:00:01");
}

TEST_F(ZorctlBle, EveryCommandRunsOnTheNamedFocuser)
{
    const std::string image = testing::TempDir() + "/zorctl-ble-image.bin";
    std::ofstream(image) << std::string(1000, '\x5a');
    struct Case {
        std::vector<std::string> args;
        std::string input;
        std::string expected; // a regular expression over standard output
    };
    const Case cases[] = {
        {onGarage({"info"}), "", "Battery: +80 % charged(.|\n)*All status: +at 30000, max step 600000"},
        {onGarage({"move", "2000", "--wait"}), "", "Focuser 50 reached 2000\\."},
        {onGarage({"set", "backlash", "40"}), "", "backlash set to 40"},
        // One link for the whole sequence; the earlier commands' effects show.
        {onGarage({"shell"}), "get backlash\nposition --json\nsync 2500\nstop\n",
         "zorctl> get backlash\n40\n(.|\n)*\"position\": 2000(.|\n)*now step 2500(.|\n)*stopped at 2500"},
        {onGarage({"watch", "-n", "2", "-i", "0.1"}), "", "POSITION(.|\n)* 2500 +no"},
        {onGarage({"update", image}), "", "100%  1000 of 1000 bytes\nImage of 1000 bytes written"},
        {{"ble", "pair", "Shed", "--time", "300"}, "", "Shed is paired"},
        {{"ble", "clear-pair", "Shed", "--time", "300"}, "", "Shed no longer knows this computer"},
    };
    for (const Case &c : cases) {
        const Outcome o = run(c.args, c.input);
        EXPECT_EQ(o.status, 0) << c.args.back() << ": " << o.err;
        EXPECT_THAT(o.out, ContainsRegex(c.expected)) << c.args.back();
    }
}

TEST_F(ZorctlBle, FailuresNameTheirCode)
{
    struct Case {
        std::function<void()> before;
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    const Case cases[] = {
        {[] {}, {"--ble", "Attic", "--ble-scan", "300", "info"}, 1,
         "no focuser named \"Attic\" advertises (seen: Shed, Garage): ZOR_ERROR_BLE_CONNECT_FAILED"},
        {[&] { bluez.control("SetFault", std::string("Shed"), std::string("refuse-pair")); },
         {"--ble", "Shed", "--ble-scan", "300", "info"}, 1, "pairing with Shed: ZOR_ERROR_BLE_PAIR_FAILED"},
        {[] {}, onGarage({"info", "0"}), 2, "with --ble a command takes no ID"},
        {[] {}, {"--ble", "Garage", "list"}, 2, "'list' acts on no single focuser"},
        {[] {}, onGarage({"update", "/nonexistent/image.bin"}), 1, "cannot read the firmware image"},
        {[&] { bluez.control("SetPowered", false); }, {"ble", "scan", "--time", "300"}, 1,
         "ZOR_ERROR_BLE_UNAVAILABLE (58)"},
    };
    for (const Case &c : cases) {
        c.before();
        const Outcome o = run(c.args);
        EXPECT_EQ(o.status, c.status) << c.message << "\n" << o.err;
        EXPECT_THAT(o.err, HasSubstr(c.message));
    }
}

TEST_F(ZorctlBle, ALostLinkEndsAWatch)
{
    ZorctlProcess watch(onGarage({"watch", "-i", "0.2"}), "", {"DBUS_SYSTEM_BUS_ADDRESS=" + bluez.address()});
    ASSERT_TRUE(watch.waitForOutput("TEMP(C)"));
    bluez.control("DropLink", std::string("Garage"));
    const Outcome o = watch.finish();
    EXPECT_EQ(o.status, 1);
    EXPECT_THAT(o.err, HasSubstr("the Bluetooth link to focuser 50 was lost"));
}

// Processes whose command line names `dir` (the private bus and the
// simulator are started with paths inside it).
int processesUsing(const std::string &dir)
{
    int count = 0;
    for (const fs::directory_entry &p : fs::directory_iterator("/proc")) {
        std::ifstream in(p.path() / "cmdline");
        const std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        count += cmdline.find(dir) != std::string::npos;
    }
    return count;
}

TEST(ZorctlSimulateBle, ServesBothLinksAndLeavesNothingBehind)
{
    const fs::path tmp = fs::path(testing::TempDir()) / "zorctl-simulate-ble";
    fs::remove_all(tmp);
    fs::create_directories(tmp);
    const std::vector<std::string> env = {"TMPDIR=" + tmp.string()};
    const std::string devices = "--simulate=pro@382,ble:pro@382/name=Garage";

    const Outcome both = zorctl({devices, "shell"}, "list\nble scan --time 300\n", env);
    ASSERT_EQ(both.status, 0) << both.err;
    EXPECT_THAT(both.out, ContainsRegex("0 +ZOR +600000 +3\\.8\\.2 +ZOR Pro"));
    EXPECT_THAT(both.out, ContainsRegex("Garage +C0:FF:EE:00:00:01 +-60 dBm"));
    EXPECT_TRUE(fs::is_empty(tmp));

    // Ctrl-C in the middle of a command.
    ZorctlProcess watch({devices, "--ble", "Garage", "--ble-scan", "300", "watch", "-i", "0.2"}, "", env);
    ASSERT_TRUE(watch.waitForOutput("TEMP(C)"));
    EXPECT_EQ(processesUsing(tmp.string()), 2); // the bus and the simulator
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish().status, 0); // Ctrl-C is how a watch ends
    EXPECT_TRUE(fs::is_empty(tmp));
    EXPECT_EQ(processesUsing(tmp.string()), 0);
}

} // namespace
