// The diagnostic log: where it goes, what a line looks like, and the pruning
// of old files. The logger is set up once per process; every test here runs
// as its own process under ctest.
#include "support/log.h"

#include "home_sandbox.h"

#include <gtest/gtest.h>

#include <ctime>
#include <dirent.h>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kLogModule[] = "ZOR_focuser";

std::set<std::string> entriesOf(const std::string &dir)
{
    std::set<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..")
                names.insert(name);
        }
        closedir(d);
    }
    return names;
}

void touch(const std::string &path, time_t mtime)
{
    std::ofstream(path) << "old log\n";
    const timeval times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(utimes(path.c_str(), times), 0) << path;
}

// Fills `dir` with log files whose modification times rise with their number.
std::vector<std::string> oldLogFiles(const std::string &dir, int count)
{
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "log_2020-01-01_00-00-%02d.txt", i);
        touch(dir + "/" + name, 1600000000 + i * 60);
        names.push_back(name);
    }
    return names;
}

TEST(Log, NothingBeforeSetUpThenLinesCarryTimeLevelModuleLineAndFunction)
{
    ZOR_LOG("too early %d", 1);
    LogInfo("too early", "Log", 1, "probe");
    EXPECT_TRUE(zor::currentLogFile().empty());
    EXPECT_FALSE(entriesOf(zor_test::sandboxHome()).count("Library"));

    InitLogger();
    const std::string file = zor::currentLogFile();
    ASSERT_EQ(file.rfind(zor_test::sandboxHome() + "/Library/Application Support/zor_sdk/log_", 0), 0u) << file;
    EXPECT_TRUE(std::regex_search(file, std::regex(R"(/log_\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.txt$)"))) << file;

    LogDebug("debug line", "Log", 7, "probe"); // written out by the next info line's flush
    const int line = __LINE__ + 1;
    ZOR_LOG("ID%d: %s", 0, "/dev/hidraw3");
    ZOR_LOG("%s", std::string(400, 'x').c_str()); // cut to its 256-byte buffer

    const std::string text = zor_test::readFile(file);
    const std::regex expected(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[info\] \[ZOR_focuser:)" +
                              std::to_string(line) + R"( TestBody\] ID0: /dev/hidraw3\n)");
    EXPECT_TRUE(std::regex_search(text, expected)) << text;
    EXPECT_NE(text.find("] [debug] [Log:7 probe] debug line"), std::string::npos) << text;
    EXPECT_NE(text.find(std::string(255, 'x') + "\n"), std::string::npos);
    EXPECT_EQ(text.find(std::string(256, 'x')), std::string::npos);
    EXPECT_EQ(text.find("too early"), std::string::npos);
}

std::string logFileNameAt(std::time_t when)
{
    std::tm local{};
    localtime_r(&when, &local);
    char name[64];
    std::strftime(name, sizeof name, "log_%Y-%m-%d_%H-%M-%S.txt", &local);
    return name;
}

TEST(Log, SetUpPrunesToTheNewestTwentyThenStartsAFileOfItsOwn)
{
    const std::string dir = zor_test::sandboxHome() + "/Library/Application Support/zor_sdk";
    ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0);
    const std::vector<std::string> logs = oldLogFiles(dir, 23);
    touch(dir + "/notes.txt.bak", 1500000000); // oldest of all, and counted
    ASSERT_EQ(mkdir((dir + "/x.txt").c_str(), 0755), 0);
    touch(dir + "/readme.md", 1400000000);
    // Processes started this second (or the next, should it turn meanwhile)
    // hold the plain names: this one must not share their files.
    const std::time_t now = std::time(nullptr);
    const std::string taken[] = {logFileNameAt(now), logFileNameAt(now + 1)};
    for (const std::string &name : taken)
        std::ofstream(dir + "/" + name) << "another process\n";

    InitLogger();
    ZOR_LOG("this process");

    // 26 counted: the 6 oldest go, then the new file comes.
    std::set<std::string> expected(logs.begin() + 5, logs.end());
    expected.insert({"x.txt", "readme.md", taken[0], taken[1]});
    const std::string file = zor::currentLogFile();
    EXPECT_TRUE(std::regex_search(file, std::regex("_" + std::to_string(getpid()) + R"(\.txt$)"))) << file;
    expected.insert(file.substr(file.rfind('/') + 1));
    EXPECT_EQ(entriesOf(dir), expected);
    for (const std::string &name : taken)
        EXPECT_EQ(zor_test::readFile(dir + "/" + name), "another process\n");
}

TEST(Log, ConcurrentSetUpCreatesOneLogger)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([i] {
            InitLogger();
            ZOR_LOG("thread %d", i);
        });
    for (auto &t : threads)
        t.join();

    const std::string dir = zor_test::sandboxHome() + "/Library/Application Support/zor_sdk";
    ASSERT_EQ(entriesOf(dir).size(), 1u);
    const std::string text = zor_test::readFile(zor::currentLogFile());
    for (int i = 0; i < 4; ++i)
        EXPECT_NE(text.find("thread " + std::to_string(i)), std::string::npos);
}

} // namespace
