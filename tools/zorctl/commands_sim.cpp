// sim: one command to the virtual focusers of another process, through the
// control socket its libzor_hidsim listens on (ZOR_SIM_CONTROL). The command
// goes as one line; the answer is one line, "ok [text]" or "error message".
#include "commands.h"
#include "errors.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace zorctl {
namespace {

// The virtual focusers serve one connection at a time and answer at once;
// this is how long zorctl waits for its turn and the answer.
constexpr int kAnswerTimeoutSeconds = 10;

// The socket could not be reached, or stopped answering.
class Unreachable : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Connection {
  public:
    explicit Connection(const std::string &path) : m_path(path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path)
            throw Unreachable(path + ": the path is longer than " +
                              std::to_string(sizeof address.sun_path - 1) + " bytes");
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        m_fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (m_fd < 0 || connect(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            fail("cannot connect");
        timeval timeout{kAnswerTimeoutSeconds, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
#ifdef SO_NOSIGPIPE
        const int on = 1;
        setsockopt(m_fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    }
    ~Connection()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void send(const std::string &line)
    {
        const std::string text = line + "\n";
        for (std::size_t sent = 0; sent < text.size();) {
#ifdef MSG_NOSIGNAL
            const ssize_t n = ::send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
#else
            const ssize_t n = ::send(m_fd, text.data() + sent, text.size() - sent, 0);
#endif
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                fail("cannot send the command");
            sent += static_cast<std::size_t>(n);
        }
    }

    std::string receiveLine()
    {
        std::string line;
        for (char c;;) {
            const ssize_t n = recv(m_fd, &c, 1, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                throw Unreachable(m_path + ": no answer within " + std::to_string(kAnswerTimeoutSeconds) +
                                  " s (another client may hold the connection)");
            if (n < 0)
                fail("cannot read the answer");
            if (n == 0)
                throw Unreachable(m_path + ": the connection closed without an answer");
            if (c == '\n')
                return line;
            line += c;
        }
    }

  private:
    [[noreturn]] void fail(const std::string &doing)
    {
        throw Unreachable(m_path + ": " + doing + ": " + std::strerror(errno));
    }

    std::string m_path;
    int m_fd = -1;
};

struct SimArgs {
    std::string socket;
    std::vector<std::string> words;
};

std::string socketPath(const SimArgs &a)
{
    if (!a.socket.empty())
        return a.socket;
    const char *env = std::getenv("ZOR_SIM_CONTROL");
    if (!env || !*env)
        throw UsageError("no control socket: give --socket PATH or set ZOR_SIM_CONTROL");
    return env;
}

int runSim(const SimArgs &a)
{
    std::string line;
    for (const std::string &w : a.words) {
        if (w.find_first_of("\r\n") != std::string::npos)
            throw UsageError("a word of the command holds a line break");
        line += (line.empty() ? "" : " ") + w;
    }
    const std::string path = socketPath(a);
    std::string answer;
    try {
        Connection connection(path);
        connection.send(line);
        answer = connection.receiveLine();
    } catch (const Unreachable &e) {
        printError(std::string("the virtual focusers' control socket ") + e.what());
        return kUsageExit;
    }
    if (answer == "ok")
        return 0;
    if (answer.rfind("ok ", 0) == 0) {
        std::printf("%s\n", answer.c_str() + 3);
        return 0;
    }
    if (answer.rfind("error ", 0) == 0)
        throw UserError(answer.substr(6));
    throw UserError(path + " answered something else than ok or error: " + answer);
}

} // namespace

void addSim(CLI::App &app, Commands &commands)
{
    auto args = std::make_shared<SimArgs>();
    CLI::App *sim = app.add_subcommand(
        "sim", "Send a command to the virtual focusers of a program run with ZOR_SIM_CONTROL (see README)");
    sim->add_option("--socket", args->socket, "The control socket (default: $ZOR_SIM_CONTROL)")
        ->type_name("PATH");
    sim->add_option("WORD", args->words,
                    "The command and its arguments, e.g. 'temperature 0 12.5', 'unplug 1', 'state 0'")
        ->required();
    commands.push_back({sim, [args] { return runSim(*args); }});
}

} // namespace zorctl
