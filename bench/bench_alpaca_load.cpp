// zor_alpaca under load: CLIENTS Alpaca clients (default 50), each on its own
// keep-alive connection, poll position and ismoving of a virtual focuser for
// SECONDS (default 10) while one long move runs. Every answer is checked
// (HTTP 200, no error, its own ClientTransactionID, a position on the way
// and never going back, moving throughout); the latencies are reported.
//
//   zor_bench_alpaca_load [CLIENTS] [SECONDS]
//
// It starts the server itself (ZOR_ALPACA_PROGRAM) on a free loopback port
// with the virtual focuser library preloaded.
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <signal.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A move of 60 s, longer than any run of this benchmark should be.
constexpr int kStart = 0, kTarget = 600000, kSpeed = 10000;

int freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

pid_t startServer(int port, const std::string &home)
{
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("LD_PRELOAD", ZOR_HIDSIM_LIBRARY, 1);
        setenv("ZOR_SIM",
               ("pro/speed=" + std::to_string(kSpeed) + "/pos=" + std::to_string(kStart) +
                "/max=" + std::to_string(kTarget))
                   .c_str(),
               1);
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_CONFIG_HOME", home.c_str(), 1);
        setenv("XDG_RUNTIME_DIR", home.c_str(), 1);
        const std::string portText = std::to_string(port), discovery = std::to_string(freePort());
        execl(ZOR_ALPACA_PROGRAM, "zor_alpaca", "--port", portText.c_str(), "--discovery-port",
              discovery.c_str(), "--bind", "127.0.0.1", static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

nlohmann::json call(httplib::Client &client, const char *method, const std::string &member,
                    const std::string &params = "")
{
    const std::string path = "/api/v1/focuser/0/" + member;
    auto result = std::string(method) == "GET"
                      ? client.Get((path + "?" + params).c_str())
                      : client.Put(path.c_str(), params, "application/x-www-form-urlencoded");
    if (!result || result->status != 200)
        return nullptr;
    return nlohmann::json::parse(result->body, nullptr, false);
}

struct ClientResult {
    std::vector<double> latencies; // ms
    long wrong = 0;
    std::string firstWrong;
};

void poll(int port, int client, Clock::time_point end, ClientResult &out)
{
    httplib::Client http("127.0.0.1", port);
    http.set_keep_alive(true);
    int lastPosition = kStart;
    for (std::uint32_t n = 1; Clock::now() < end; ++n) {
        const bool position = n % 2;
        const std::string tid = std::to_string(client * 1000000 + n);
        const auto sent = Clock::now();
        const auto answer =
            call(http, "GET", position ? "position" : "ismoving", "ClientTransactionID=" + tid);
        out.latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
        bool right = answer.is_object() && answer.value("ErrorNumber", -1) == 0 &&
                     answer.value("ClientTransactionID", 0u) == std::stoul(tid) && answer.contains("Value");
        if (right && position) {
            const int at = answer["Value"].get<int>();
            right = at >= lastPosition && at < kTarget;
            lastPosition = at;
        } else if (right) {
            right = answer["Value"] == true;
        }
        if (!right && out.wrong++ == 0)
            out.firstWrong = answer.is_null() ? "no answer" : answer.dump();
    }
}

double percentile(const std::vector<double> &sorted, double p)
{
    return sorted[std::min(sorted.size() - 1,
                           static_cast<std::size_t>(p * static_cast<double>(sorted.size())))];
}

} // namespace

int main(int argc, char **argv)
{
    const int clients = argc > 1 ? std::atoi(argv[1]) : 50;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;
    char home[] = "/tmp/zor-alpaca-bench.XXXXXX";
    if (clients < 1 || seconds < 1 || !mkdtemp(home)) {
        std::fprintf(stderr, "usage: zor_bench_alpaca_load [CLIENTS] [SECONDS]\n");
        return 2;
    }
    const int port = freePort();
    const pid_t server = startServer(port, home);
    httplib::Client setup("127.0.0.1", port);
    nlohmann::json connected;
    for (int i = 0; i < 100 && !(connected = call(setup, "PUT", "connected", "Connected=true")).is_object();
         ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const bool moving = connected.is_object() && connected["ErrorNumber"] == 0 &&
                        call(setup, "PUT", "move", "Position=" + std::to_string(kTarget))["ErrorNumber"] == 0;
    if (!moving) {
        std::fprintf(stderr, "zor_bench_alpaca_load: the server did not start a move\n");
        kill(server, SIGTERM);
        return 1;
    }

    std::vector<ClientResult> results(static_cast<std::size_t>(clients));
    std::vector<std::thread> threads;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (int c = 0; c < clients; ++c)
        threads.emplace_back(poll, port, c, end, std::ref(results[static_cast<std::size_t>(c)]));
    for (auto &t : threads)
        t.join();
    call(setup, "PUT", "halt");
    kill(server, SIGTERM);
    int status = 0;
    waitpid(server, &status, 0);

    std::vector<double> all;
    long wrong = 0;
    std::string firstWrong;
    for (const auto &r : results) {
        all.insert(all.end(), r.latencies.begin(), r.latencies.end());
        if (r.wrong && firstWrong.empty())
            firstWrong = r.firstWrong;
        wrong += r.wrong;
    }
    std::sort(all.begin(), all.end());
    std::printf("%d clients, %d s, one move running: %zu answers (%.0f/s), %ld wrong\n", clients, seconds,
                all.size(), static_cast<double>(all.size()) / seconds, wrong);
    std::printf("latency ms: p50 %.2f  p90 %.2f  p99 %.2f  max %.2f\n", percentile(all, 0.5),
                percentile(all, 0.9), percentile(all, 0.99), all.back());
    if (wrong)
        std::printf("first wrong answer: %s\n", firstWrong.c_str());
    std::printf("server exit status %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return wrong == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
