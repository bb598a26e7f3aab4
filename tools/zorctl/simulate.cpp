#include "simulate.h"

#include "errors.h"
#include "zorctl_paths.h"

#include "sim/bluez/ble_sim_config.h"
#include "sim/sim_control.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <vector>

#if defined(__linux__)
#include "simulated_bluetooth.h"

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

SimulatedDevices splitDescription(const std::string &description)
{
    SimulatedDevices devices;
    std::istringstream entries(description);
    std::string entry;
    while (std::getline(entries, entry, ',')) {
        const std::size_t start = entry.find_first_not_of(" \t");
        const bool ble = start != std::string::npos && entry.compare(start, 4, kBluetoothPrefix) == 0;
        std::string &list = ble ? devices.bluetooth : devices.usb;
        list += (list.empty() ? "" : ",") + (ble ? entry.substr(start + 4) : entry);
    }
    return devices;
}

std::string descriptionProblem(const std::string &description)
{
    try {
        const SimulatedDevices devices = splitDescription(description);
        zorsim::parseDescription(devices.usb);
        if (!devices.bluetooth.empty())
            zorsim::parseBleDescription(devices.bluetooth);
        return std::string();
    } catch (const std::invalid_argument &e) {
        return e.what();
    }
}

std::string findSimFile(const char *what, const char *variable, const char *name, const char *buildPath)
{
#if defined(__linux__)
    std::vector<std::string> candidates;
    const std::string chosen = env(variable);
    if (!chosen.empty()) {
        candidates.push_back(chosen);
    } else {
        const std::string dir = executableDir();
        if (!dir.empty()) {
            candidates.push_back(dir + "/" ZORCTL_SIM_DIR_FROM_INSTALLED_BIN "/" + name);
            candidates.push_back(dir + "/" ZORCTL_SIM_DIR_FROM_BUILD_DIR "/" + name);
        }
        candidates.push_back(buildPath);
    }
    std::string searched;
    for (const std::string &c : candidates) {
        std::error_code ec;
        if (fs::is_regular_file(c, ec))
            return fs::canonical(c, ec).string();
        searched += "\n  " + c;
    }
    throw UserError(std::string("cannot find ") + what + " " + name + "; searched:" + searched +
                    "\nSet " + variable + " to its path.");
#else
    (void)what;
    (void)variable;
    (void)name;
    (void)buildPath;
    throw UserError("--simulate works on Linux only");
#endif
}

std::optional<int> enterSimulation(const std::string &description, char **argv)
{
#if defined(__linux__)
    const std::string started = env(kMarker);
    if (!started.empty()) {
        checkLoaded(started);
        return std::nullopt;
    }
    const std::string library =
        findSimFile("the virtual focuser library", "ZORCTL_SIM_LIBRARY", ZORCTL_SIM_LIBRARY_NAME, ZORCTL_SIM_LIBRARY_BUILD_PATH);
    std::string wanted = description;
    if (wanted.empty())
        wanted = env("ZOR_SIM");
    if (wanted.empty())
        wanted = kDefaultSimulation;
    // Checked here, so that a mistake is reported once, by zorctl, rather
    // than by the virtual focusers of the restarted program.
    if (const std::string problem = descriptionProblem(wanted); !problem.empty())
        throw UserError("ZOR_SIM does not describe virtual focusers: " + problem);
    const SimulatedDevices devices = splitDescription(wanted);
    const std::string home = simulatedHome();
    // The private bus must outlive the restarted program and go with it, so
    // this process stays to stop it. Its programs start before the
    // environment below, which is the restarted zorctl's alone.
    std::optional<SimulatedBluetooth> bluetooth;
    if (!devices.bluetooth.empty()) {
        bluetooth.emplace(findSimFile("the virtual Bluetooth focusers' program", "ZORCTL_BLUEZ_SIM", ZORCTL_BLUEZ_SIM_NAME, ZORCTL_BLUEZ_SIM_BUILD_PATH),
                          devices.bluetooth);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bluetooth->address().c_str(), 1);
    }
    setenv("ZOR_SIM", devices.usb.c_str(), 1);
    setenv("LD_PRELOAD", preloadList(library).c_str(), 1);
    setenv("HOME", home.c_str(), 1);
    setenv(kMarker, library.c_str(), 1);
    if (bluetooth)
        return runChild(argv);
    execv("/proc/self/exe", argv);
    throw UserError(std::string("cannot start zorctl again with virtual focusers: ") + std::strerror(errno));
#else
    (void)description;
    (void)argv;
    throw UserError("--simulate works on Linux only");
#endif
}

} // namespace zorctl
