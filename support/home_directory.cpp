#include "support/home_directory.h"

#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace zor {
namespace {

std::string passwordDatabaseHome()
{
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !found->pw_dir)
        return "";
    return found->pw_dir;
}

} // namespace

std::string homeDirectory()
{
    const char *home = std::getenv("HOME");
    if (home && *home)
        return home;
    return passwordDatabaseHome();
}

bool isDirectory(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace zor
