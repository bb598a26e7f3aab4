// Tests write settings and logs under $HOME; this points HOME at a fresh
// temporary directory for the whole test process.
#pragma once

#include <string>

namespace zor_test {

// The sandbox home of this process (created on first use).
const std::string &sandboxHome();
// A new empty directory inside the sandbox.
std::string makeTempDir(const std::string &stem);
std::string readFile(const std::string &path);

} // namespace zor_test
