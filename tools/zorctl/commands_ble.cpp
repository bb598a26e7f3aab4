// ble scan, ble pair, ble clear-pair: the Bluetooth side of the focusers.
#include "ble.h"
#include "commands.h"
#include "errors.h"
#include "json.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <memory>

namespace zorctl {
namespace {

std::string text(const char *field, std::size_t size) { return std::string(field, strnlen(field, size)); }

int runScan(int ms, bool json)
{
    const std::vector<BLE_DEVICE_INFO> found = scanForFocusers(ms, !json);
    Json list = Json::array();
    if (!json && !found.empty())
        std::printf("%-16s %-17s %s\n", "NAME", "ADDRESS", "SIGNAL");
    for (const BLE_DEVICE_INFO &d : found) {
        const std::string name = text(d.Name, sizeof d.Name), address = text(d.Address, sizeof d.Address);
        if (json)
            list.push(Json::object().set("name", name).set("address", address).set("rssi", d.RSSI));
        else
            std::printf("%-16s %-17s %d dBm\n", name.c_str(), address.c_str(), d.RSSI);
    }
    if (json)
        std::printf("%s\n", list.dump().c_str());
    if (!found.empty())
        return 0;
    if (!json)
        std::printf("No Bluetooth focuser found; is it switched on and in range?\n");
    return kFailedExit;
}

struct NameArgs {
    std::string name;
    int scanMs = kDefaultScanMs;
};

void addNameArguments(CLI::App &sub, NameArgs &args)
{
    sub.add_option("NAME", args.name, "The name the focuser advertises, as 'zorctl ble scan' shows it")
        ->required();
    addWholeNumber(sub, "--time", args.scanMs, "Milliseconds to scan for it (default 2000)", 100, 60000);
}

} // namespace

void addBle(CLI::App &app, Commands &commands)
{
    CLI::App *ble = app.add_subcommand("ble", "Bluetooth focusers: scan, pair, clear the pairing");
    ble->require_subcommand(1);

    struct ScanArgs {
        int ms = kDefaultScanMs;
        bool json = false;
    };
    auto scan = std::make_shared<ScanArgs>();
    CLI::App *scanCmd =
        ble->add_subcommand("scan", "List the focusers that advertise: name, address, signal (strongest first)");
    addWholeNumber(*scanCmd, "--time", scan->ms, "Milliseconds to scan (default 2000)", 100, 60000);
    addJsonFlag(*scanCmd, scan->json);
    commands.push_back({scanCmd, [scan] { return runScan(scan->ms, scan->json); }});

    auto pair = std::make_shared<NameArgs>();
    CLI::App *pairCmd = ble->add_subcommand(
        "pair", "Connect to a focuser and pair this computer with it, showing the pairing states");
    addNameArguments(*pairCmd, *pair);
    commands.push_back({pairCmd, [pair] {
                            BleLink link(pair->name, pair->scanMs);
                            std::printf("%s is paired with this computer.\n", link.name().c_str());
                            return 0;
                        }});

    auto clear = std::make_shared<NameArgs>();
    CLI::App *clearCmd =
        ble->add_subcommand("clear-pair", "Make a focuser forget its pairing with this computer");
    addNameArguments(*clearCmd, *clear);
    commands.push_back({clearCmd, [clear] {
                            BleLink link(clear->name, clear->scanMs);
                            check(ZORBLEClearPair(link.id()), "clearing the pairing with " + link.name());
                            std::printf("%s no longer knows this computer.\n", link.name().c_str());
                            return 0;
                        }});
}

} // namespace zorctl
