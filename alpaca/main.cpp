// zor_alpaca [--port N] [--discovery-port N] [--bind ADDR] [--ble NAME]...
//
// Serves the USB focusers found at start (focuser/0, /1, ... in the
// library's ID order), then the Bluetooth focusers named with --ble or on
// the setup page, to Alpaca clients, until SIGINT or SIGTERM.
#include "alpaca_server.h"
#include "discovery.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <csignal>
#include <future>
#include <iostream>
#include <mutex>
#include <netinet/in.h>
#include <pthread.h>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace zoralpaca;

struct Options {
    int port = 11111;
    int discoveryPort = 32227;
    std::string bind; // empty: every interface, IPv6 and IPv4

    std::vector<std::string> bluetooth;
};

// A focuser served under the name a user reads in a client's list.
std::shared_ptr<AlpacaFocuser> serve(zorservice::Service &service, const ServerConfig &config,
                                     const std::string &key, const std::string &name)
{
    auto device = std::make_shared<AlpacaFocuser>(service.focuser(key), name, uniqueIdOf(key));
    if (auto compensation = config.compensation(key))
        device->setCompensation(*compensation);
    return device;
}

std::vector<zorservice::CatalogueEntry> usbFocusers(zorservice::Service &service)
{
    std::promise<void> scanned;
    service.rescanUsb([&scanned](int) { scanned.set_value(); });
    scanned.get_future().wait();
    for (const auto &problem : service.problems())
        std::cerr << "zor_alpaca: " << problem << '\n';
    std::vector<zorservice::CatalogueEntry> usb;
    for (auto &entry : service.catalogue())
        if (entry.transport == zorservice::Transport::Usb)
            usb.push_back(entry);
    return usb;
}

// Disconnects every focuser, each on its own worker, and waits for all.
void disconnectAll(const Devices &devices)
{
    std::vector<std::future<void>> done;
    for (const auto &device : devices.all()) {
        auto finished = std::make_shared<std::promise<void>>();
        done.push_back(finished->get_future());
        device->focuser().disconnect([finished](int) { finished->set_value(); });
    }
    for (auto &d : done)
        d.wait_for(std::chrono::seconds(20));
}

int run(const Options &options)
{
    // Signals are taken by one thread of ours, with sigwait: blocked here,
    // before any other thread starts, so every thread inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    ServerConfig config;
    zorservice::Service service("zor_alpaca (process " + std::to_string(getpid()) + ")");
    Devices devices;
    for (const auto &entry : usbFocusers(service))
        devices.add(serve(service, config, entry.key, entry.label));
    std::mutex bluetoothMutex;
    std::set<std::string> bluetoothServed;
    const auto addBluetooth = [&](const std::string &name) {
        std::lock_guard<std::mutex> lock(bluetoothMutex);
        if (!bluetoothServed.insert(name).second)
            return false;
        devices.add(serve(service, config, "ble:" + name, name + " (Bluetooth)"));
        return true;
    };
    for (const auto &name : options.bluetooth)
        addBluetooth(name);
    for (const auto &name : config.bluetoothNames())
        addBluetooth(name);

    httplib::Server http;
    // Clients keep their connections open, and each open connection holds
    // a thread of the pool while it waits for its next request.
    http.new_task_queue = [] { return new httplib::ThreadPool(96); };
    // Small answers go out at once rather than wait for the client's
    // delayed acknowledgement.
    http.set_tcp_nodelay(true);
    http.set_keep_alive_max_count(1000);
    int listeningSocket = -1;
    http.set_socket_options([&listeningSocket](socket_t fd) {
        const int yes = 1, no = 0;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no); // IPv4 too (fails on IPv4 sockets)
        listeningSocket = fd;
    });
    AlpacaServer server(devices, config, ServerInfo{options.port, ZOR_ALPACA_VERSION}, addBluetooth);
    server.install(http);
    // Every interface: one IPv6 socket that takes IPv4 too, or IPv4 alone
    // where the computer has no IPv6.
    const bool listening = options.bind.empty() ? http.bind_to_port("::", options.port) ||
                                                      http.bind_to_port("0.0.0.0", options.port)
                                                : http.bind_to_port(options.bind, options.port);
    if (!listening) {
        std::cerr << "zor_alpaca: cannot listen on "
                  << (options.bind.empty() ? "every interface" : options.bind) << " port " << options.port
                  << '\n';
        return 1;
    }
    // httplib listens with a backlog of 5, which drops the connections of
    // many clients starting at once; listen() again raises it.
    listen(listeningSocket, SOMAXCONN);
    Discovery discovery;
    std::string problem;
    if (!discovery.start(options.bind, options.discoveryPort, options.port, problem))
        std::cerr << "zor_alpaca: no discovery on port " << options.discoveryPort << ": " << problem << '\n';

    std::atomic<bool> served{false};
    std::thread stopper([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        // stop() does nothing before the server runs: a signal that came
        // while it was starting is acted on once it does.
        while (!served) {
            http.stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    std::cout << "zor_alpaca: serving " << devices.all().size() << " focuser(s) on port " << options.port
              << ", discovery on port " << options.discoveryPort << std::endl;
    const bool listened = http.listen_after_bind();
    served = true;
    if (!listened)
        kill(getpid(), SIGTERM); // ends the stopper
    stopper.join();
    discovery.stop();
    disconnectAll(devices);
    std::cout << "zor_alpaca: stopped" << std::endl;
    return listened ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    CLI::App app{"ASCOM Alpaca server for ZOR focusers"};
    app.add_option("--port", options.port, "HTTP port of the Alpaca API (default 11111)")
        ->check(CLI::Range(1, 65535));
    app.add_option("--discovery-port", options.discoveryPort, "UDP port of Alpaca discovery (default 32227)")
        ->check(CLI::Range(1, 65535));
    app.add_option("--bind", options.bind, "address to listen on (default: all interfaces)");
    app.add_option("--ble", options.bluetooth, "serve the Bluetooth focuser of this name (repeatable)");
    CLI11_PARSE(app, argc, argv);
    return run(options);
}
