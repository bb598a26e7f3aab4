// The control channel of the virtual focusers, for programs outside the
// process: when ZOR_SIM_CONTROL names a path, the library listens there on a
// Unix stream socket from the moment it is loaded. Each line a client sends
// is one command, answered with one line: "ok", "ok <text>" or
// "error <message>". Commands go through the control API of sim_control.h,
// which serialises them with the process's own hidapi calls.
//
// The path belongs to the first process that listens on it: a socket file
// nobody answers on is replaced, a live one is left alone (the library also
// loads into every program its LD_PRELOAD reaches). The owner removes the
// file when it exits.
#include "sim/description_values.h"
#include "sim/sim_control.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zorsim {
namespace {

// ---------------------------------------------------------------- commands

using Words = std::vector<std::string>;

[[noreturn]] void refuse(const std::string &why) { throw std::invalid_argument(why); }

int wholeNumber(const std::string &text, const char *what, long lo = INT_MIN)
{
    const std::optional<long> v = parseDecimal(text);
    if (!v || *v < lo || *v > INT_MAX)
        refuse(std::string(what) + " must be a whole number" + (lo == 0 ? ", 0 or more" : "") + ", not " +
               text);
    return static_cast<int>(*v);
}

int device(const Words &w) { return wholeNumber(w[1], "the device number"); }

std::string describeState(int n)
{
    const DeviceState s = state(n);
    char text[200];
    std::snprintf(text, sizeof text,
                  "position=%d target=%d moving=%d hand=%d temperature=%.1f "
                  "plugged=%d backlash=%d reverse=%d max=%d",
                  s.position, s.target, s.moving ? 1 : 0, s.handButton, s.temperature, isPlugged(n) ? 1 : 0,
                  s.backlash, s.reverse ? 1 : 0, s.maxStep);
    return text;
}

std::string setProbeTemperature(const Words &w)
{
    const std::optional<double> celsius = parseProbeCelsius(w[2]);
    if (!celsius)
        refuse("the temperature must be a number of degrees Celsius from -100 to 250, not " + w[2]);
    setTemperature(device(w), *celsius);
    return "";
}

std::string holdHandButton(const Words &w)
{
    const int n = device(w);
    const std::string &how = w[2];
    if (how != "out" && how != "in" && how != "release")
        refuse("the button is out, in or release, not " + how);
    setHandController(n, true);
    pressHandButton(n, how == "out" ? 1 : how == "in" ? -1 : 0);
    return "";
}

std::string placeAt(const Words &w)
{
    setPosition(device(w), wholeNumber(w[2], "the step"));
    return "";
}

std::string failOpens(const Words &w)
{
    const int n = device(w);
    const int count = wholeNumber(w[2], "the count", 0);
    const std::string why = w.size() > 3 ? w[3] : "denied";
    if (why != "busy" && why != "denied")
        refuse("an open fails busy or denied, not " + why);
    failNextOpens(n, count, why == "busy" ? EBUSY : EACCES);
    return "";
}

// `add` takes the rest of the line: a description may hold blanks.
std::string addFromDescription(const std::string &description)
{
    if (parseDescription(description).empty())
        refuse("a description of the devices to add is needed");
    return std::to_string(addDevices(description));
}

// A command whose whole work is one call on the device.
template <void (*act)(int)> std::string onDevice(const Words &w)
{
    act(device(w));
    return "";
}

struct Command {
    const char *verb;
    const char *usage;
    std::size_t minWords, maxWords; // the verb included
    std::string (*run)(const Words &);
};

// Plain data, so that nothing here is destroyed at exit under a client's feet.
constexpr Command kCommands[] = {
    {"devices", "devices", 1, 1, [](const Words &) { return std::to_string(deviceCount()); }},
    {"state", "state N", 2, 2, [](const Words &w) { return describeState(device(w)); }},
    {"temperature", "temperature N C", 3, 3, setProbeTemperature},
    {"unplug", "unplug N", 2, 2, onDevice<unplug>},
    {"plug", "plug N", 2, 2, onDevice<plug>},
    {"restart", "restart N", 2, 2, onDevice<restart>},
    {"hand", "hand N out|in|release", 3, 3, holdHandButton},
    {"position", "position N STEP", 3, 3, placeAt},
    {"fail-opens", "fail-opens N COUNT [busy|denied]", 3, 4, failOpens},
};

Words split(const std::string &line)
{
    std::istringstream in(line);
    Words words;
    for (std::string w; in >> w;)
        words.push_back(w);
    return words;
}

std::string run(const std::string &line)
{
    const Words words = split(line);
    if (words.empty())
        refuse("a command is needed");
    if (words[0] == "add")
        return addFromDescription(line.substr(line.find("add") + 3));
    for (const Command &c : kCommands) {
        if (words[0] != c.verb)
            continue;
        if (words.size() < c.minWords || words.size() > c.maxWords)
            refuse(std::string("usage: ") + c.usage);
        return c.run(words);
    }
    std::string verbs;
    for (const Command &c : kCommands)
        verbs += std::string(c.verb) + ", ";
    refuse("unknown command " + words[0] + "; the commands are " + verbs + "add");
}

std::string answer(const std::string &line)
{
    try {
        const std::string text = run(line);
        return text.empty() ? "ok" : "ok " + text;
    } catch (const std::exception &e) {
        std::string message = e.what();
        for (char &c : message)
            if (c == '\n' || c == '\r')
                c = ' ';
        return "error " + message;
    }
}

// ---------------------------------------------------------------- the socket

constexpr std::size_t kLongestLine = 4096;

// Where this process listens; read by the exit handler. Plain data, set
// before the serving thread starts.
struct Listening {
    char path[sizeof(sockaddr_un::sun_path)];
    pid_t owner;
    dev_t fileDevice;
    ino_t inode;
} listening;

void closeOnExec(int fd) { fcntl(fd, F_SETFD, FD_CLOEXEC); }

bool sendAll(int fd, const std::string &text)
{
    for (std::size_t sent = 0; sent < text.size();) {
#ifdef MSG_NOSIGNAL
        const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
#else
        const ssize_t n = send(fd, text.data() + sent, text.size() - sent, 0); // SO_NOSIGPIPE is set
#endif
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

void serveConnection(int fd)
{
#ifdef SO_NOSIGPIPE
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    std::string pending;
    char buffer[512];
    for (;;) {
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1))
            if (!sendAll(fd, answer(pending.substr(0, end)) + "\n"))
                return;
        if (pending.size() > kLongestLine) {
            sendAll(fd, "error the line is longer than " + std::to_string(kLongestLine) + " bytes\n");
            return;
        }
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            // A last command without its line end is answered all the same.
            if (n == 0 && split(pending).size() > 0)
                sendAll(fd, answer(pending) + "\n");
            return;
        }
        pending.append(buffer, static_cast<std::size_t>(n));
    }
}

void serve(int listener)
{
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            std::fprintf(stderr, "zor_hidsim: ZOR_SIM_CONTROL: %s: %s; no longer listening\n", listening.path,
                         std::strerror(errno));
            return;
        }
        closeOnExec(fd);
        serveConnection(fd);
        close(fd);
    }
}

void removeSocket()
{
    struct stat st;
    // Forked children inherit this handler; only the owner removes the file,
    // and only while it is still the one it made.
    if (getpid() == listening.owner && stat(listening.path, &st) == 0 && st.st_dev == listening.fileDevice &&
        st.st_ino == listening.inode)
        unlink(listening.path);
}

// Whether some process answers at `address`.
bool answered(const sockaddr_un &address)
{
    const int probe = socket(AF_UNIX, SOCK_STREAM, 0);
    const bool live =
        probe >= 0 && connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    if (probe >= 0)
        close(probe);
    return live;
}

// Makes the listening socket at `path`, or says why it cannot.
int listenAt(const std::string &path, std::string &why)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        why = "the path is longer than " + std::to_string(sizeof address.sun_path - 1) + " bytes";
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            why = "a file that is not a socket is in the way";
            return -1;
        }
        if (answered(address)) {
            why = "another process already listens there";
            return -1;
        }
        unlink(path.c_str()); // left behind by a process that ended
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, 8) != 0 || stat(path.c_str(), &st) != 0) {
        why = std::strerror(errno);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    closeOnExec(fd);
    std::memcpy(listening.path, address.sun_path, sizeof listening.path);
    listening.owner = getpid();
    listening.fileDevice = st.st_dev;
    listening.inode = st.st_ino;
    return fd;
}

// Starts the thread that serves `listener`. It takes no signals: they stay
// with the program's own threads, whichever it blocks them in to wait for them.
bool serveInBackground(int listener, std::string &why)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        std::thread(serve, listener).detach();
    } catch (const std::system_error &e) {
        why = e.what();
        started = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

__attribute__((constructor)) void startControlSocket()
{
    const char *path = std::getenv("ZOR_SIM_CONTROL");
    if (!path || !*path)
        return;
    std::string why;
    const int fd = listenAt(path, why);
    if (fd >= 0 && serveInBackground(fd, why)) {
        std::atexit(removeSocket);
        return;
    }
    if (fd >= 0) {
        close(fd);
        unlink(path);
    }
    std::fprintf(stderr, "zor_hidsim: ZOR_SIM_CONTROL: %s: %s\n", path, why.c_str());
}

} // namespace
} // namespace zorsim
