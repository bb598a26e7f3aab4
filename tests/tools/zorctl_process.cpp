#include "zorctl_process.h"

#include "home_sandbox.h"

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace zor_test {
namespace {

// Variables that would change what zorctl does are not passed on.
bool inherited(const char *entry)
{
    for (const char *name :
         {"ZOR_SIM=", "ZORCTL_SIMULATED=", "ZORCTL_SIM_LIBRARY=", "XDG_STATE_HOME=", "LD_PRELOAD=",
                              "DBUS_SYSTEM_BUS_ADDRESS="})
        if (std::strncmp(entry, name, std::strlen(name)) == 0)
            return false;
    return true;
}

void makePipe(int fds[2])
{
    if (pipe2(fds, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
}

} // namespace

ZorctlProcess::ZorctlProcess(const std::vector<std::string> &args, const std::string &input,
                             const std::vector<std::string> &extraEnv)
{
    sandboxHome();                 // HOME points at the sandbox before zorctl inherits it
    std::signal(SIGPIPE, SIG_IGN); // a zorctl that exits early must not end the test
    std::vector<std::string> argStore{ZORCTL_PATH};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStore;
    for (char **e = environ; *e; ++e)
        if (inherited(*e))
            envStore.emplace_back(*e);
    envStore.insert(envStore.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char *> envp;
    for (std::string &e : envStore)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    int in[2], out[2], err[2];
    makePipe(in);
    makePipe(out);
    makePipe(err);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    const int rc = posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    m_out = out[0];
    m_err = err[0];
    if (rc != 0)
        throw std::runtime_error(std::string("cannot start zorctl: ") + std::strerror(rc));
    // The inputs of the tests are far smaller than a pipe holds.
    if (write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        throw std::runtime_error("cannot write zorctl's input");
    close(in[1]);
}

ZorctlProcess::~ZorctlProcess()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    for (int fd : {m_out, m_err})
        if (fd >= 0)
            close(fd);
}

// Reads what is there; false when both outputs are closed.
bool ZorctlProcess::pump(int timeoutMs)
{
    pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
    if (m_out < 0 && m_err < 0)
        return false;
    if (poll(fds, 2, timeoutMs) <= 0)
        return true;
    char buf[4096];
    std::string *sinks[2] = {&m_outcome.out, &m_outcome.err};
    int *sources[2] = {&m_out, &m_err};
    for (int i = 0; i < 2; ++i) {
        if (*sources[i] < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
            continue;
        const ssize_t n = read(*sources[i], buf, sizeof buf);
        if (n > 0) {
            sinks[i]->append(buf, static_cast<std::size_t>(n));
        } else {
            close(*sources[i]);
            *sources[i] = -1;
        }
    }
    return true;
}

bool ZorctlProcess::waitForOutput(const std::string &text)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (m_outcome.out.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > end || !pump(100))
            return false;
    }
    return true;
}

void ZorctlProcess::signal(int sig) { kill(m_pid, sig); }

Outcome ZorctlProcess::finish()
{
    // A guard against a hung zorctl, far beyond any command's run time.
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (pump(100))
        if (std::chrono::steady_clock::now() > end)
            kill(m_pid, SIGKILL);
    int wstatus = 0;
    waitpid(m_pid, &wstatus, 0);
    m_pid = -1;
    m_outcome.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    return m_outcome;
}

Outcome zorctl(const std::vector<std::string> &args, const std::string &input,
               const std::vector<std::string> &extraEnv)
{
    ZorctlProcess p(args, input, extraEnv);
    return p.finish();
}

std::vector<std::string> lines(const std::string &text)
{
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

} // namespace zor_test
