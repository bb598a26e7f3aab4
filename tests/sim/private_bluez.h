// Virtual Bluetooth focusers on a private bus for one test: runs
// scripts/ble-sim-bus.sh (a private dbus-daemon with zor_bluez_sim owning
// org.bluez on it) and stops both when destroyed. The script also goes when
// the test process dies, so no daemon outlives a crashed test.
#pragma once

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>

class PrivateBluez {
  public:
    // `devices` is a ZOR_BLE_SIM description.
    explicit PrivateBluez(const std::string &devices)
    {
        setenv("ZOR_BLE_SIM", devices.c_str(), 1);
        setenv("ZOR_BLUEZ_SIM", ZOR_BLUEZ_SIM_PROGRAM, 1);
        int out[2];
        if (pipe(out) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            close(out[1]);
            execl(ZOR_BLE_SIM_BUS_SCRIPT, ZOR_BLE_SIM_BUS_SCRIPT, static_cast<char *>(nullptr));
            _exit(127);
        }
        close(out[1]);
        address_ = readAddress(out[0]);
        close(out[0]);
        EXPECT_FALSE(address_.empty()) << "the private bus did not start";
    }

    ~PrivateBluez()
    {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
    }

    PrivateBluez(const PrivateBluez &) = delete;
    PrivateBluez &operator=(const PrivateBluez &) = delete;

    // The bus address, as DBUS_SYSTEM_BUS_ADDRESS takes it; empty on failure.
    const std::string &address() const { return address_; }

    // Calls a method of the simulator's control interface, for example
    // control("SetFault", "Garage", "silent"); see zor_bluez_sim --help.
    template <typename... Args>
    void control(const std::string &method, const Args &...args) const
    {
        auto bus = sdbus::createSessionBusConnectionWithAddress(address_);
        sdbus::createProxy(*bus, "com.zor.Sim", "/com/zor/Sim")
            ->callMethod(method)
            .onInterface("com.zor.Sim")
            .withArguments(args...);
    }

    // The simulator's GetState of one focuser: "Position", "Connected", ...
    std::map<std::string, sdbus::Variant> state(const std::string &device) const
    {
        std::map<std::string, sdbus::Variant> state;
        auto bus = sdbus::createSessionBusConnectionWithAddress(address_);
        sdbus::createProxy(*bus, "com.zor.Sim", "/com/zor/Sim")
            ->callMethod("GetState")
            .onInterface("com.zor.Sim")
            .withArguments(device)
            .storeResultsTo(state);
        return state;
    }

  private:
    // The script's one line, "DBUS_SYSTEM_BUS_ADDRESS=...", within 10 s.
    static std::string readAddress(int fd)
    {
        const std::string prefix = "DBUS_SYSTEM_BUS_ADDRESS=";
        std::string line;
        char c;
        pollfd p{fd, POLLIN, 0};
        while (poll(&p, 1, 10000) > 0 && read(fd, &c, 1) == 1 && c != '\n')
            line += c;
        return line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : std::string();
    }

    pid_t pid_ = -1;
    std::string address_;
};
