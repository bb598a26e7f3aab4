// zorctl run as a separate process, the way a user or a script runs it:
// arguments, standard input, captured output and exit status.
#pragma once

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

namespace zor_test {

struct Outcome {
    int status = -1; // exit status; 128 + signal number when killed by one
    std::string out;
    std::string err;
};

class ZorctlProcess {
  public:
    // Starts zorctl with `args`; `input` is written to its standard input,
    // which is then closed. `extraEnv` holds NAME=VALUE entries.
    explicit ZorctlProcess(const std::vector<std::string> &args, const std::string &input = "",
                           const std::vector<std::string> &extraEnv = {});
    ~ZorctlProcess();
    ZorctlProcess(const ZorctlProcess &) = delete;
    ZorctlProcess &operator=(const ZorctlProcess &) = delete;

    // Reads until standard output contains `text`; false when the process
    // ends (or a minute passes) first.
    bool waitForOutput(const std::string &text);
    void signal(int sig);
    // Reads everything to the end and waits for the exit.
    Outcome finish();

  private:
    bool pump(int timeoutMs);

    pid_t m_pid = -1;
    int m_out = -1, m_err = -1;
    Outcome m_outcome;
};

// Runs zorctl to the end.
Outcome zorctl(const std::vector<std::string> &args, const std::string &input = "",
               const std::vector<std::string> &extraEnv = {});

// The lines of `text`, without their line ends.
std::vector<std::string> lines(const std::string &text);

} // namespace zor_test
