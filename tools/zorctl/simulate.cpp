#include "simulate.h"

#include "errors.h"
#include "zorctl_paths.h"

#include "sim/sim_control.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#if defined(__linux__)
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>
#endif

namespace zorctl {
namespace fs = std::filesystem;

namespace {

// Set in the restarted program: the library it was started with.
constexpr const char *kMarker = "ZORCTL_SIMULATED";

std::string env(const char *name)
{
    const char *v = std::getenv(name);
    return v ? v : "";
}

#if defined(__linux__)

std::string executableDir()
{
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : self.parent_path().string();
}

// A sanitizer runtime must be the first library of the process; when this
// build carries one, it goes ahead of the virtual focusers.
int collectRuntime(dl_phdr_info *info, size_t, void *data)
{
    static const char *const kRuntimes[] = {"libasan.so",   "libtsan.so",       "liblsan.so",
                                            "libhwasan.so", "libclang_rt.asan", "libclang_rt.tsan"};
    const std::string path = info->dlpi_name ? info->dlpi_name : "";
    const std::string base = fs::path(path).filename().string();
    for (const char *runtime : kRuntimes)
        if (base.rfind(runtime, 0) == 0)
            static_cast<std::vector<std::string> *>(data)->push_back(path);
    return 0;
}

std::string preloadList(const std::string &library)
{
    std::vector<std::string> entries;
    dl_iterate_phdr(collectRuntime, &entries);
    const std::string existing = env("LD_PRELOAD");
    if (!existing.empty())
        entries.push_back(existing);
    entries.push_back(library);
    std::string list;
    for (const std::string &e : entries)
        list += (list.empty() ? "" : ":") + e;
    return list;
}

// The library keeps settings and logs under HOME. Virtual focusers get a
// home of their own, so they never overwrite what is saved for a real one;
// it persists, as a real home does, between runs.
std::string simulatedHome()
{
    fs::path base;
    const std::string state = env("XDG_STATE_HOME");
    if (!state.empty() && state[0] == '/')
        base = state;
    else if (!env("HOME").empty())
        base = fs::path(env("HOME")) / ".local" / "state";
    else
        throw UserError(
            "--simulate needs HOME (or XDG_STATE_HOME) to keep the virtual focusers' settings apart");
    const fs::path home = base / "zorctl" / "simulated-home";
    std::error_code ec;
    fs::create_directories(home, ec);
    if (ec)
        throw UserError("cannot create " + home.string() + ": " + ec.message());
    return home.string();
}

// hidapi's calls must reach the preloaded library.
void checkLoaded(const std::string &library)
{
    Dl_info info{};
    void *enumerate = dlsym(RTLD_DEFAULT, "hid_enumerate");
    std::error_code ec;
    if (!enumerate || !dladdr(enumerate, &info) || !info.dli_fname ||
        !fs::equivalent(info.dli_fname, library, ec))
        throw UserError("the virtual focusers did not load (" + library +
                        " was preloaded, but hidapi's calls do not reach it)");
}

#endif

} // namespace

std::string descriptionProblem(const std::string &description)
{
    try {
        zorsim::parseDescription(description);
        return std::string();
    } catch (const std::invalid_argument &e) {
        return e.what();
    }
}

std::string findSimLibrary()
{
#if defined(__linux__)
    std::vector<std::string> candidates;
    const std::string chosen = env("ZORCTL_SIM_LIBRARY");
    if (!chosen.empty()) {
        candidates.push_back(chosen);
    } else {
        const std::string dir = executableDir();
        if (!dir.empty()) {
            candidates.push_back(dir + "/" ZORCTL_SIM_DIR_FROM_INSTALLED_BIN "/" ZORCTL_SIM_LIBRARY_NAME);
            candidates.push_back(dir + "/" ZORCTL_SIM_DIR_FROM_BUILD_DIR "/" ZORCTL_SIM_LIBRARY_NAME);
        }
        candidates.push_back(ZORCTL_SIM_BUILD_PATH);
    }
    std::string searched;
    for (const std::string &c : candidates) {
        std::error_code ec;
        if (fs::is_regular_file(c, ec))
            return fs::canonical(c, ec).string();
        searched += "\n  " + c;
    }
    throw UserError("cannot find the virtual focuser library " ZORCTL_SIM_LIBRARY_NAME "; searched:" +
                    searched + "\nSet ZORCTL_SIM_LIBRARY to its path.");
#else
    throw UserError("--simulate works on Linux only");
#endif
}

void enterSimulation(const std::string &description, char **argv)
{
#if defined(__linux__)
    const std::string started = env(kMarker);
    if (!started.empty()) {
        checkLoaded(started);
        return;
    }
    const std::string library = findSimLibrary();
    std::string devices = description;
    if (devices.empty())
        devices = env("ZOR_SIM");
    if (devices.empty())
        devices = kDefaultSimulation;
    // Checked here, so that a mistake is reported once, by zorctl, rather
    // than by the virtual focusers of the restarted program.
    if (const std::string problem = descriptionProblem(devices); !problem.empty())
        throw UserError("ZOR_SIM does not describe virtual focusers: " + problem);
    const std::string home = simulatedHome();
    setenv("ZOR_SIM", devices.c_str(), 1);
    setenv("LD_PRELOAD", preloadList(library).c_str(), 1);
    setenv("HOME", home.c_str(), 1);
    setenv(kMarker, library.c_str(), 1);
    execv("/proc/self/exe", argv);
    throw UserError(std::string("cannot start zorctl again with virtual focusers: ") + std::strerror(errno));
#else
    (void)description;
    (void)argv;
    throw UserError("--simulate works on Linux only");
#endif
}

} // namespace zorctl
