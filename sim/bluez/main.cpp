// zor_bluez_sim: owns org.bluez on a D-Bus bus and serves virtual Bluetooth
// focusers there, with com.zor.Sim beside it to make them misbehave.
#include "sim/bluez/virtual_bluez.h"

#include <sdbus-c++/sdbus-c++.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

namespace {

constexpr char kHelp[] = R"(Usage: zor_bluez_sim [--bus ADDRESS] [--devices DESCRIPTION] [--adapter-address MAC]

Serves virtual Bluetooth focusers as org.bluez would with a radio: the
adapter /org/bluez/hci0, devices that appear during discovery, their GATT
service 7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5 and its write-and-notify
characteristic. Meant for a private bus (scripts/ble-sim-bus.sh starts one).

  --bus ADDRESS         the bus to serve (default: DBUS_SYSTEM_BUS_ADDRESS; with neither
                        the program refuses to start, to keep off the machine's own bus)
  --devices TEXT        the focusers (default: ZOR_BLE_SIM, else "pro")
  --adapter-address MAC the adapter's address (default 00:1A:7D:DA:71:13)

The description is ZOR_SIM's (for example "pro@382/pos=1000,2*pro"), and an
entry may also carry /name=TEXT (advertised name, 11 characters at most),
/address=MAC, /battery=PERCENT and /rssi=DBM.

Control, on the same bus: name com.zor.Sim, object /com/zor/Sim, interface
com.zor.Sim; DEVICE is a focuser's name or address.
  SetFault(s DEVICE, s FAULT)   none | silent | stale | checksum | refuse-pair |
                                drop | vanish | no-notify
  DropLink(s DEVICE)            the link is lost now
  SetPowered(b ON)              the radio (Adapter1.Powered can be set too)
  SetBattery(s DEVICE, i PERCENT)
  GetState(s DEVICE) -> a{sv}   position, connection, pairing, update progress, ...
  ReleaseBluez()                org.bluez leaves the bus
  Quit()
For example:
  dbus-send --bus=$DBUS_SYSTEM_BUS_ADDRESS --print-reply --dest=com.zor.Sim \
      /com/zor/Sim com.zor.Sim.SetFault string:Garage string:silent
)";

constexpr char kControlName[] = "com.zor.Sim";
constexpr char kControl[] = "com.zor.Sim";
constexpr char kBluezName[] = "org.bluez";

int g_stopPipe[2] = {-1, -1};

void onStopSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] ssize_t n = write(g_stopPipe[1], &byte, 1);
}

struct Options {
    std::string bus;
    std::string devices = "pro";
    std::string adapterAddress = "00:1A:7D:DA:71:13";
};

// Returns false when the program should stop here (help, or a bad argument).
bool parseArguments(int argc, char **argv, Options &o, int &status)
{
    if (const char *env = std::getenv("ZOR_BLE_SIM"))
        o.devices = env;
    if (const char *env = std::getenv("DBUS_SYSTEM_BUS_ADDRESS"))
        o.bus = env;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        std::string *target = arg == "--bus" ? &o.bus
                              : arg == "--devices" ? &o.devices
                              : arg == "--adapter-address" ? &o.adapterAddress
                                                           : nullptr;
        if (target && i + 1 < argc) {
            *target = argv[++i];
            continue;
        }
        status = arg == "--help" || arg == "-h" ? 0 : 2;
        (status == 0 ? std::cout : std::cerr) << kHelp;
        return false;
    }
    if (o.bus.empty()) {
        std::cerr << "zor_bluez_sim: no bus given (--bus or DBUS_SYSTEM_BUS_ADDRESS); see --help\n";
        status = 2;
        return false;
    }
    return true;
}

void registerControl(sdbus::IObject &control, sdbus::IConnection &connection, zorsim::VirtualBluez &bluez,
                     bool &quit)
{
    using State = std::map<std::string, sdbus::Variant>;
    control.registerMethod("SetFault").onInterface(kControl).implementedAs(
        [&bluez](const std::string &device, const std::string &fault) { bluez.setFault(device, fault); });
    control.registerMethod("DropLink").onInterface(kControl).implementedAs(
        [&bluez](const std::string &device) { bluez.dropLink(device); });
    control.registerMethod("SetPowered").onInterface(kControl).implementedAs(
        [&bluez](const bool &on) { bluez.setPowered(on); });
    control.registerMethod("SetBattery").onInterface(kControl).implementedAs(
        [&bluez](const std::string &device, const int32_t &percentage) { bluez.setBattery(device, percentage); });
    control.registerMethod("GetState").onInterface(kControl).implementedAs(
        [&bluez](const std::string &device) -> State { return bluez.deviceState(device); });
    control.registerMethod("ReleaseBluez").onInterface(kControl).implementedAs(
        [&connection] { connection.releaseName(kBluezName); });
    control.registerMethod("Quit").onInterface(kControl).implementedAs([&quit] { quit = true; });
    control.finishRegistration();
}

// One thread serves the bus and the radio's scheduled work until a stop
// signal, Quit, or the bus going away.
void serve(sdbus::IConnection &connection, zorsim::Scheduler &scheduler, const bool &quit)
{
    while (!quit) {
        while (connection.processPendingRequest())
            ;
        if (quit)
            break;
        const sdbus::IConnection::PollData bus = connection.getEventLoopPollData();
        int timeout = bus.getPollTimeout();
        const int next = scheduler.pollTimeout();
        if (next >= 0 && (timeout < 0 || next < timeout))
            timeout = next;
        pollfd fds[] = {{bus.fd, bus.events, 0}, {g_stopPipe[0], POLLIN, 0}};
        if (poll(fds, 2, timeout) < 0 && errno != EINTR)
            throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
        if (fds[1].revents != 0 || (fds[0].revents & (POLLHUP | POLLERR)) != 0)
            return;
        scheduler.runDue();
    }
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    int status = 0;
    if (!parseArguments(argc, argv, options, status))
        return status;
    if (pipe(g_stopPipe) != 0)
        return 1;
    struct sigaction stop {};
    stop.sa_handler = onStopSignal;
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);
    try {
        const auto peripherals = zorsim::parseBleDescription(options.devices);
        auto connection = sdbus::createSessionBusConnectionWithAddress(options.bus);
        zorsim::Scheduler scheduler;
        zorsim::VirtualBluez bluez(*connection, scheduler, peripherals, options.adapterAddress);
        bool quit = false;
        auto control = sdbus::createObject(*connection, "/com/zor/Sim");
        registerControl(*control, *connection, bluez, quit);
        connection->requestName(kBluezName);
        connection->requestName(kControlName);
        std::cout << "zor_bluez_sim: " << peripherals.size() << " virtual focuser(s) on org.bluez" << std::endl;
        serve(*connection, scheduler, quit);
    } catch (const std::exception &e) {
        std::cerr << "zor_bluez_sim: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
