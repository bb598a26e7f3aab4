// zorctl sim: a shell reaching the virtual focusers of another process
// through the control socket that ZOR_SIM_CONTROL names.
#include "home_sandbox.h"
#include "zorctl_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using namespace zor_test;

// A socket file whose process is gone, as a killed program leaves it.
void leaveStaleSocket(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(fd);
}

TEST(ZorctlSim, ControlsTheVirtualFocusersOfAnotherProcess)
{
    const std::string path = makeTempDir("control") + "/zs.sock";
    leaveStaleSocket(path);
    const std::string control = "ZOR_SIM_CONTROL=" + path;
    ZorctlProcess watch({"--simulate=pro@382,pro@382", "watch", "0", "-i", "0.05"}, "", {control});
    ASSERT_TRUE(watch.waitForOutput("TEMP(C)"));

    struct Step {
        std::vector<std::string> words;
        int status;
        const char *out; // a pattern of standard output, or of the error for a failure
    };
    const Step steps[] = {
        {{"devices"}, 0, "^2\n$"},
        {{"temperature", "0", "12.5"}, 0, "^$"},
        {{"hand", "0", "out"}, 0, "^$"},
        {{"state", "0"},
         0,
         "^position=[0-9]+ target=[0-9]+ moving=0 hand=1 temperature=12.5 plugged=1 backlash=[0-9]+ "
         "reverse=[01] max=[0-9]+\n$"},
        {{"hand", "0", "release"}, 0, "^$"},
        {{"unplug", "1"}, 0, "^$"},
        {{"state", "1"}, 0, "plugged=0"},
        {{"plug", "1"}, 0, "^$"},
        {{"position", "1", "1234"}, 0, "^$"},
        {{"state", "1"}, 0, "^position=1234 .* plugged=1 "},
        {{"add", "n@370/temp=-3"}, 0, "^2\n$"},
        {{"state", "2"}, 0, "temperature=-3.0"},
        {{"fail-opens", "2", "1", "busy"}, 0, "^$"},
        {{"temperature", "0", "300"}, 1, "^zorctl: the temperature must be .* from -100 to 250, not 300\n$"},
        {{"state", "7"}, 1, "no virtual focuser 7"},
        {{"state", "0x1"}, 1, "whole number"},
        {{"frobnicate"}, 1, "unknown command frobnicate"},
    };
    for (const Step &s : steps) {
        std::vector<std::string> args{"sim", "--socket", path};
        args.insert(args.end(), s.words.begin(), s.words.end());
        const Outcome o = zorctl(args);
        SCOPED_TRACE(s.words[0]);
        EXPECT_EQ(o.status, s.status) << o.err;
        EXPECT_THAT(s.status == 0 ? o.out : o.err, ContainsRegex(s.out));
    }

    // The focuser as the watching program's library reads it.
    EXPECT_TRUE(watch.waitForOutput(" 12.5\n"));

    // A second program with the same path keeps its own focusers working and
    // leaves the socket to the first.
    const Outcome second = zorctl({"--simulate", "list"}, "", {control});
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.err,
                HasSubstr("ZOR_SIM_CONTROL: " + path + ": another process already listens there"));
    EXPECT_EQ(zorctl({"sim", "devices"}, "", {control}).out, "3\n");

    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish().status, 0);
    EXPECT_FALSE(std::filesystem::exists(path)); // removed at exit
    const Outcome gone = zorctl({"sim", "devices"}, "", {control});
    EXPECT_EQ(gone.status, 2);
    EXPECT_THAT(gone.err, HasSubstr("cannot connect"));
}

} // namespace
