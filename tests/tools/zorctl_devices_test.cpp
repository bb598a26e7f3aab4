// zorctl against virtual focusers: list, info, move, watch and update, as a
// user runs them.
#include "home_sandbox.h"
#include "json_reader.h"
#include "zorctl_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <regex>

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using namespace zor_test;

const std::string kThreeModels = "--simulate=pro@382,n@370,old@321:16";

// The percentages of the progress lines in `out`, in order.
std::vector<int> percentages(const std::string &out)
{
    std::vector<int> seen;
    const std::regex bar(R"(\] *([0-9]+)%)");
    for (const std::string &line : lines(out)) {
        std::smatch m;
        if (std::regex_search(line, m, bar))
            seen.push_back(std::stoi(m[1]));
    }
    return seen;
}

TEST(ZorctlList, ShowsEveryFocuserAsTextAndAsJson)
{
    const Outcome text = zorctl({kThreeModels, "list"});
    ASSERT_EQ(text.status, 0) << text.err;
    const std::vector<std::string> rows = lines(text.out);
    ASSERT_EQ(rows.size(), 4u) << text.out;
    EXPECT_THAT(rows[0], ContainsRegex("ID +NAME +MAX STEP +FIRMWARE +MODEL"));
    EXPECT_THAT(rows[1], ContainsRegex("^0 +ZOR +600000 +3\\.8\\.2 +ZOR Pro$"));
    EXPECT_THAT(rows[2], ContainsRegex("^1 +ZOR +600000 +3\\.7\\.0 +ZORN$"));
    EXPECT_THAT(rows[3], ContainsRegex("^2 +ZOR +60000 +3\\.2\\.1 +-$"));

    const Outcome json = zorctl({kThreeModels, "list", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    const JsonValue list = parseJson(json.out);
    ASSERT_EQ(list.array.size(), 3u);
    const char *models[] = {"ZOR Pro", "ZORN", ""};
    const char *firmware[] = {"3.8.2", "3.7.0", "3.2.1"};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(list[i]["id"].number, static_cast<double>(i));
        EXPECT_EQ(list[i]["model"].string, models[i]);
        EXPECT_EQ(list[i]["firmware"].string, firmware[i]);
    }
    EXPECT_EQ(list[2]["max_step"].number, 60000);
}

TEST(ZorctlInfo, ReportsWhatEachModelOffers)
{
    const Outcome pro = zorctl({"--simulate=pro@382/alias=north/sn=0123456789abcdef", "info", "0", "--json"});
    ASSERT_EQ(pro.status, 0) << pro.err;
    const JsonValue p = parseJson(pro.out);
    EXPECT_EQ(p["name"].string, "ZOR(north)");
    EXPECT_EQ(p["alias"].string, "north");
    EXPECT_EQ(p["serial"].string, "0123456789abcdef");
    EXPECT_EQ(p["capabilities"].array.size(), 8u);
    EXPECT_EQ(p["capabilities"][6]["name"].string, "USB update ZOR FW");
    EXPECT_TRUE(p["capabilities"][6]["supported"].boolean);
    EXPECT_EQ(p["error_codes"]["motor"].string, "E0");
    EXPECT_EQ(p["power_off"]["reason"].number, 0);
    EXPECT_EQ(p["battery"]["percentage"].number, 80);

    // Mains powered: no battery, no power-off reason.
    const Outcome n = zorctl({"--simulate=n@370", "info", "0", "--json"});
    ASSERT_EQ(n.status, 0) << n.err;
    const JsonValue z = parseJson(n.out);
    EXPECT_EQ(z["capabilities"].array.size(), 5u);
    EXPECT_TRUE(z["battery"].isNull());
    EXPECT_TRUE(z["power_off"].isNull());
    EXPECT_EQ(z["error_codes"]["battery"].string, "E0");

    // Early firmware: no serial, no error codes, one capability.
    const Outcome old = zorctl({"--simulate=old@321:16", "info", "0"});
    ASSERT_EQ(old.status, 0) << old.err;
    EXPECT_THAT(old.out, ContainsRegex("Firmware: +3\\.2\\.1"));
    EXPECT_THAT(old.out, ContainsRegex("Serial: +not supported"));
    EXPECT_THAT(old.out, ContainsRegex("Error codes: +not supported"));
    EXPECT_THAT(old.out, ContainsRegex("Capabilities:\n  BUZZER +yes, writable +BUZZER control support"));
}

TEST(ZorctlMove, WaitsWithAProgressBarUntilTheFocuserStops)
{
    const Outcome o = zorctl({"--simulate=pro@382/speed=4000", "shell"},
                             "move 0 33000 --wait\nposition 0 --json\nmove 0 20000\nposition 0\n");
    ASSERT_EQ(o.status, 0) << o.err;
    const std::size_t positionAt = o.out.find("zorctl> position 0 --json\n");
    ASSERT_NE(positionAt, std::string::npos) << o.out;
    const std::string moveOut = o.out.substr(0, positionAt);
    EXPECT_THAT(moveOut, HasSubstr("Focuser 0 reached 33000.\n"));
    // Not a terminal: one line per tenth, never going back, ending full.
    const std::vector<int> seen = percentages(moveOut);
    ASSERT_GE(seen.size(), 2u) << moveOut;
    EXPECT_LE(seen.size(), 11u) << moveOut;
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end())) << moveOut;
    EXPECT_EQ(seen.back(), 100);

    const std::size_t jsonStart = positionAt + std::string("zorctl> position 0 --json\n").size();
    const std::string json = o.out.substr(jsonStart, o.out.find("zorctl> move", jsonStart) - jsonStart);
    const JsonValue position = parseJson(json);
    EXPECT_EQ(position["position"].number, 33000);
    EXPECT_FALSE(position["moving"].boolean);
    // Without --wait the command returns while the focuser moves on.
    EXPECT_THAT(o.out, HasSubstr("Focuser 0 is moving from 33000 to 20000.\n"));
    EXPECT_THAT(o.out, ContainsRegex("zorctl> position 0\n[0-9]+ \\(moving\\)\n"));
}

TEST(ZorctlMove, CtrlCStopsTheFocuserAndAMoveEndedShortFails)
{
    // Ctrl-C stops the focuser before zorctl exits, whichever command follows the move.
    int previous = 30000;
    for (const auto &[command, shown] :
         {std::pair<std::vector<std::string>, std::string>{{"move", "0", "40000", "--wait"}, "moving ["},
          {{"watch", "0", "-i", "0.05", "--move", "40000"}, "40000"}}) {
        std::vector<std::string> args{"--simulate=pro@382/speed=200"};
        args.insert(args.end(), command.begin(), command.end());
        ZorctlProcess p(args);
        ASSERT_TRUE(p.waitForOutput(shown)) << command[0];
        p.signal(SIGINT);
        const Outcome o = p.finish();
        EXPECT_EQ(o.status, 130) << o.out << o.err;
        std::smatch m;
        ASSERT_TRUE(std::regex_search(o.out, m, std::regex("Interrupted: focuser 0 stopped at ([0-9]+)\\.")))
            << o.out;
        const int stoppedAt = std::stoi(m[1]);
        EXPECT_GT(stoppedAt, previous) << command[0];
        EXPECT_LT(stoppedAt, 40000) << command[0];
        // The library saved the stopped position at close; the next run starts there.
        EXPECT_EQ(zorctl({"--simulate", "position", "0"}).out, std::to_string(stoppedAt) + "\n");
        previous = stoppedAt;
    }

    // The firmware ends the move at the maximum step, short of the target.
    const Outcome stopped =
        zorctl({"--simulate=pro@382/pos=30900/max=31000", "move", "0", "40000", "--wait"});
    EXPECT_EQ(stopped.status, 1);
    EXPECT_THAT(stopped.err, HasSubstr("focuser 0 stopped at 31000 before reaching 40000"));
}

TEST(ZorctlWatch, SamplesPositionMotionAndTemperature)
{
    const Outcome o = zorctl({"--simulate=pro@382/temp=-5.5/speed=4000", "watch", "0", "-n", "3", "-i",
                              "0.05", "--move", "30600"});
    ASSERT_EQ(o.status, 0) << o.err;
    const std::vector<std::string> rows = lines(o.out);
    ASSERT_EQ(rows.size(), 4u) << o.out;
    EXPECT_THAT(rows[0], ContainsRegex("TIME +POSITION +TARGET +MOVING +HAND +TEMP\\(C\\)"));
    int last = 0;
    for (std::size_t i = 1; i < rows.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(
            std::regex_search(rows[i], m, std::regex(R"(s +([0-9]+) +30600 +(yes|no) +(yes|no) +-5\.5$)")))
            << rows[i];
        EXPECT_GE(std::stoi(m[1]), last);
        last = std::stoi(m[1]);
    }

    const Outcome plain = zorctl({"--simulate", "watch", "0", "-n", "1"});
    ASSERT_EQ(plain.status, 0) << plain.err;
    // The library restored the position it saved when the first run closed.
    EXPECT_THAT(
        plain.out,
        ContainsRegex("TIME +POSITION +MOVING +HAND +TEMP\\(C\\)\n +[0-9.]+s +30600 +no +no +20\\.0\n"));
}

std::string writeImage(std::size_t bytes)
{
    const std::string path = makeTempDir("image") + "/firmware.bin";
    std::ofstream out(path, std::ios::binary);
    for (std::size_t i = 0; i < bytes; ++i)
        out.put(static_cast<char>(i * 7));
    return path;
}

TEST(ZorctlUpdate, RefusesAFileThatIsNoImageOrAFocuserWithoutUsbUpdate)
{
    const std::string image = writeImage(200), empty = writeImage(0), huge = writeImage(0);
    std::filesystem::resize_file(huge, (4 << 20) + 1);
    const std::string notOverUsb = "cannot be updated over USB; that needs firmware 3.7.0 or later: "
                                   "ZOR_ERROR_NOT_SUPPORTED (8)";
    const std::vector<std::array<std::string, 3>> cases = {
        {"old@321:16", image, "focuser 0 (firmware 3.2.1) " + notOverUsb},
        {"n@369", image, "focuser 0 (firmware 3.6.9) " + notOverUsb},
        {"pro", empty, empty + " is empty"},
        {"pro", huge, huge + ": 4194305 bytes is more than the 4 MiB a firmware image can have"},
        {"pro", "/dev/zero", "cannot read the firmware image /dev/zero: it is not a regular file"},
        {"pro", "/", "cannot read the firmware image /: it is a directory"},
    };
    for (const auto &[devices, file, message] : cases) {
        const Outcome o = zorctl({"--simulate=" + devices, "update", "0", file});
        EXPECT_EQ(o.status, 1) << file;
        EXPECT_THAT(o.err, HasSubstr(message)) << file;
        EXPECT_EQ(o.out, "") << file;
    }
}

TEST(ZorctlUpdate, WritesTheImageAndSeesTheFocuserBackWithNewFirmware)
{
    const std::string image = writeImage(1000);
    for (const auto &[devices, version] : {std::pair<std::string, std::string>{"pro@382/newfw=383", "3.8.3"},
                                           {"n@370:16/newfw=371", "3.7.1"}}) {
        const Outcome o = zorctl({"--simulate=" + devices, "update", "0", image});
        ASSERT_EQ(o.status, 0) << devices << o.err;
        EXPECT_THAT(o.out, ContainsRegex("\\] 100%  1000 of 1000 bytes\n")) << devices;
        EXPECT_THAT(o.out, HasSubstr("Focuser 0 is back with firmware " + version + ".")) << devices;
    }
}

} // namespace
