#include "home_sandbox.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zor_test {

const std::string &sandboxHome()
{
    static const std::string home = [] {
        char pattern[] = "/tmp/zor-test-home-XXXXXX";
        if (!mkdtemp(pattern))
            throw std::runtime_error("cannot create a sandbox home");
        setenv("HOME", pattern, 1);
        return std::string(pattern);
    }();
    return home;
}

std::string makeTempDir(const std::string &stem)
{
    std::string pattern = sandboxHome() + "/" + stem + "-XXXXXX";
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("cannot create " + pattern);
    return pattern;
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

namespace {

// Sets HOME before the first test runs, so nothing reaches the real home,
// and removes the sandbox when the tests are done.
class SandboxEnvironment : public ::testing::Environment {
public:
    void SetUp() override { sandboxHome(); }
    void TearDown() override
    {
        std::error_code ignored;
        std::filesystem::remove_all(sandboxHome(), ignored);
    }
};

const auto *const kSandbox = ::testing::AddGlobalTestEnvironment(new SandboxEnvironment);

} // namespace
} // namespace zor_test
