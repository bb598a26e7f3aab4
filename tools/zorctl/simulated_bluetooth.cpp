#include "simulated_bluetooth.h"

#include "errors.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zorctl {
namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kStartLimit = 5s;

// A bus on which anyone may own any name and talk to anyone.
std::string busConfig(const std::string &socket)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n  <type>custom</type>\n  <listen>unix:path=" +
           socket +
           "</listen>\n  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n    <allow own=\"*\"/>\n"
           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n    <allow eavesdrop=\"true\"/>\n"
           "  </policy>\n</busconfig>\n";
}

// In a forked child, before exec: a process group of its own keeps Ctrl-C
// at the terminal from reaching it (zorctl may still need the bus to stop a
// focuser), and it ends when zorctl does, however zorctl ends.
void detachHelper()
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

void redirect(int fd, const std::string &path)
{
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file >= 0)
        dup2(file, fd);
}

std::string fileText(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exited(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == pid; }

void terminate(pid_t &pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid = -1;
}

pid_t g_child = -1;

extern "C" void passOn(int sig)
{
    if (g_child > 0)
        kill(g_child, sig);
}

} // namespace

SimulatedBluetooth::SimulatedBluetooth(const std::string &program, const std::string &devices)
{
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/zorctl-ble.XXXXXX";
    if (!mkdtemp(pattern.data()))
        throw UserError("cannot create a directory for the private bus: " + std::string(std::strerror(errno)));
    m_dir = pattern;
    try {
        startDaemon();
        startSimulator(program, devices);
    } catch (...) {
        stop();
        throw;
    }
}

SimulatedBluetooth::~SimulatedBluetooth() { stop(); }

void SimulatedBluetooth::startDaemon()
{
    const std::string socket = m_dir + "/bus", config = m_dir + "/bus.conf", errors = m_dir + "/daemon.err";
    std::ofstream(config) << busConfig(socket);
    m_address = "unix:path=" + socket;
    m_daemon = fork();
    if (m_daemon == 0) {
        detachHelper();
        redirect(STDOUT_FILENO, "/dev/null");
        // Its complaint that it may not raise its file limit is noise; it is
        // shown only if the daemon fails.
        redirect(STDERR_FILENO, errors);
        const std::string option = "--config-file=" + config;
        execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork", "--nopidfile", static_cast<char *>(nullptr));
        _exit(127);
    }
    if (m_daemon < 0)
        throw UserError("cannot start dbus-daemon: " + std::string(std::strerror(errno)));
    const auto deadline = Clock::now() + kStartLimit;
    struct stat info {};
    while (stat(socket.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
        if (exited(m_daemon) || Clock::now() > deadline) {
            m_daemon = exited(m_daemon) ? -1 : m_daemon;
            throw UserError("the private bus (dbus-daemon, from the 'dbus' package) did not start: " +
                            fileText(errors));
        }
        std::this_thread::sleep_for(20ms);
    }
}

void SimulatedBluetooth::startSimulator(const std::string &program, const std::string &devices)
{
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        throw UserError("cannot start the virtual Bluetooth focusers: " + std::string(std::strerror(errno)));
    m_simulatorOutput = out[0];
    m_simulator = fork();
    if (m_simulator == 0) {
        detachHelper();
        dup2(out[1], STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), "--bus", m_address.c_str(), "--devices", devices.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    close(out[1]);
    if (m_simulator < 0)
        throw UserError("cannot start " + program + ": " + std::strerror(errno));
    // It says so once it owns org.bluez.
    std::string said;
    const auto deadline = Clock::now() + kStartLimit;
    while (said.find("on org.bluez") == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{m_simulatorOutput, POLLIN, 0};
        char buf[256];
        const ssize_t n = left.count() > 0 && poll(&p, 1, static_cast<int>(left.count())) > 0
                              ? read(m_simulatorOutput, buf, sizeof buf)
                              : 0;
        if (n <= 0)
            throw UserError("the virtual Bluetooth focusers (" + program + ") did not start");
        said.append(buf, static_cast<std::size_t>(n));
    }
}

void SimulatedBluetooth::stop()
{
    terminate(m_simulator);
    terminate(m_daemon);
    if (m_simulatorOutput >= 0)
        close(m_simulatorOutput);
    m_simulatorOutput = -1;
    std::error_code ec;
    fs::remove_all(m_dir, ec);
}

int runChild(char **argv)
{
    g_child = fork();
    if (g_child == 0) {
        execv("/proc/self/exe", argv);
        _exit(127);
    }
    if (g_child < 0)
        throw UserError("cannot start zorctl again with virtual focusers: " + std::string(std::strerror(errno)));
    // Ctrl-C at the terminal reaches the child too; a signal sent to this
    // process alone is passed on. Either way the child decides how to end.
    struct sigaction action {};
    action.sa_handler = passOn;
    sigemptyset(&action.sa_mask);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &action, nullptr);
    int status = 0;
    while (waitpid(g_child, &status, 0) < 0 && errno == EINTR) {
    }
    g_child = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace zorctl
