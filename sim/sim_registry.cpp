#include "sim/sim_registry.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <unordered_set>

namespace zorsim {

VirtualDevice::VirtualDevice(int n, const DeviceConfig &config, Nanos now)
    : number(n), path("sim:" + std::to_string(n)), model(config, n, now)
{
    reply[0] = kReplyReportId;
}

Registry &Registry::instance()
{
    static Registry *registry = new Registry;
    return *registry;
}

Registry::Registry()
{
    const char *env = std::getenv("ZOR_SIM");
    if (!env)
        return;
    try {
        for (const DeviceConfig &c : parseDescription(env))
            add(c);
    } catch (const std::invalid_argument &e) {
        devices_.clear();
        // Printed here, once: a program may never ask hid_error why
        // hid_init failed.
        environmentError = std::string("ZOR_SIM: ") + e.what();
        std::fprintf(stderr, "zor_hidsim: %s\n", environmentError.c_str());
    }
}

Nanos Registry::now() const { return manual_ ? manualClock_.now() : wallClock_.now() + wallOffset_; }

void Registry::useManualClock(bool manual)
{
    // Time runs on without a jump whichever way the clock is switched, so a
    // move in progress carries on from where it is.
    if (manual && !manual_)
        manualClock_.set(now());
    else if (!manual && manual_)
        wallOffset_ = manualClock_.now() - wallClock_.now();
    manual_ = manual;
}

void Registry::refresh()
{
    const Nanos t = now();
    for (auto &d : devices_) {
        if (d->backAt && *d->backAt <= t) {
            d->backAt.reset();
            d->plugged = true;
        }
    }
}

VirtualDevice &Registry::device(int number)
{
    if (number < 0 || number >= static_cast<int>(devices_.size()))
        throw std::out_of_range("no virtual focuser " + std::to_string(number));
    return *devices_[static_cast<std::size_t>(number)];
}

int Registry::add(const DeviceConfig &config)
{
    if (config.reportSize != 16 && config.reportSize != 64)
        throw std::invalid_argument("the report size must be 16 or 64");
    const int n = static_cast<int>(devices_.size());
    devices_.push_back(std::make_unique<VirtualDevice>(n, config, now()));
    return n;
}

void Registry::clear()
{
    for (hid_device_ *h : handles_)
        h->device = nullptr;
    devices_.clear();
    useManualClock(false);
    invalidUses = 0;
}

void Registry::plug(VirtualDevice &d)
{
    if (d.plugged)
        return;
    d.backAt.reset();
    d.plugged = true;
    if (!d.model.powered()) {
        d.model.powerOn(now());
        d.reply = {kReplyReportId};
    }
}

void Registry::unplug(VirtualDevice &d)
{
    if (!d.plugged && !d.backAt)
        return;
    d.plugged = false;
    d.backAt.reset();
    ++d.connection;
    if (!d.model.hasBattery() || d.model.shippingRequested())
        d.model.powerOff(now(), d.model.shippingRequested() ? 1 : 0);
}

void Registry::restart(VirtualDevice &d)
{
    const Nanos t = now();
    if (d.plugged || d.backAt)
        ++d.connection;
    d.plugged = false;
    d.backAt = t + d.model.config().restartTime;
    d.model.reboot(t);
    d.reply = {kReplyReportId};
}

const wchar_t *internError(const std::string &text)
{
    static std::mutex m;
    static auto *texts = new std::unordered_set<std::wstring>;
    std::lock_guard<std::mutex> lock(m);
    // Error texts are plain ASCII.
    return texts->emplace(text.begin(), text.end()).first->c_str();
}

// ---------------------------------------------------------------- control API

namespace {

// Runs `f` on the registry under its lock, after bringing restarted devices back.
template <typename F> auto locked(F &&f)
{
    Registry &r = Registry::instance();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.refresh();
    return f(r);
}

template <typename F> auto onDevice(int number, F &&f)
{
    return locked([&](Registry &r) { return f(r, r.device(number)); });
}

} // namespace

void reset()
{
    locked([](Registry &r) { r.clear(); });
}

int addDevice(const DeviceConfig &config)
{
    return locked([&](Registry &r) { return r.add(config); });
}

int addDevices(const std::string &description)
{
    const std::vector<DeviceConfig> configs = parseDescription(description);
    return locked([&](Registry &r) {
        int first = static_cast<int>(r.devices().size());
        for (const DeviceConfig &c : configs)
            r.add(c);
        return first;
    });
}

int deviceCount()
{
    return locked([](Registry &r) { return static_cast<int>(r.devices().size()); });
}

std::string devicePath(int device)
{
    return onDevice(device, [](Registry &, VirtualDevice &d) { return d.path; });
}

void unplug(int device)
{
    onDevice(device, [](Registry &r, VirtualDevice &d) { r.unplug(d); });
}

void plug(int device)
{
    onDevice(device, [](Registry &r, VirtualDevice &d) { r.plug(d); });
}

bool isPlugged(int device)
{
    return onDevice(device, [](Registry &, VirtualDevice &d) { return d.plugged; });
}

void restart(int device)
{
    onDevice(device, [](Registry &r, VirtualDevice &d) { r.restart(d); });
}

void useManualClock()
{
    locked([](Registry &r) { r.useManualClock(true); });
}

void useWallClock()
{
    locked([](Registry &r) { r.useManualClock(false); });
}

void advance(Nanos d)
{
    locked([&](Registry &r) {
        r.advance(d);
        r.refresh();
    });
}

DeviceState state(int device)
{
    return onDevice(device, [](Registry &r, VirtualDevice &d) { return d.model.state(r.now()); });
}

void setPosition(int device, int step)
{
    onDevice(device, [&](Registry &r, VirtualDevice &d) { d.model.setPosition(step, r.now()); });
}

void setTemperature(int device, double celsius)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.model.setTemperature(celsius); });
}

void setProbeAttached(int device, bool attached)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.model.setProbeAttached(attached); });
}

void setHandController(int device, bool attached)
{
    onDevice(device, [&](Registry &r, VirtualDevice &d) { d.model.setHandController(attached, r.now()); });
}

void pressHandButton(int device, int direction)
{
    onDevice(device, [&](Registry &r, VirtualDevice &d) { d.model.setHandButton(direction, r.now()); });
}

void enterErrorState(int device, char motorError)
{
    onDevice(device, [&](Registry &r, VirtualDevice &d) { d.model.enterErrorState(motorError, r.now()); });
}

void setErrorCodes(int device, char motorError, char batteryError)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.model.setErrorCodes(motorError, batteryError); });
}

void setBattery(int device, const Battery &battery)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.model.setBattery(battery); });
}

void setPowerOffReason(int device, int reason)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.model.setPowerOffReason(reason); });
}

void setStepsPerSecond(int device, int stepsPerSecond)
{
    onDevice(device,
             [&](Registry &r, VirtualDevice &d) { d.model.setStepsPerSecond(stepsPerSecond, r.now()); });
}

void setFirmwareAfterUpdate(int device, int version)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.model.setFirmwareAfterUpdate(version); });
}

std::vector<Transfer> transfers(int device)
{
    return onDevice(device, [](Registry &, VirtualDevice &d) {
        return std::vector<Transfer>(d.log.begin(), d.log.end());
    });
}

std::vector<std::vector<uint8_t>> receivedReports(int device)
{
    return onDevice(device, [](Registry &, VirtualDevice &d) {
        std::vector<std::vector<uint8_t>> out;
        for (const Transfer &t : d.log)
            if (t.kind == Transfer::SendFeature && t.result >= 0)
                out.push_back(t.bytes);
        return out;
    });
}

void clearTransfers(int device)
{
    onDevice(device, [](Registry &, VirtualDevice &d) { d.log.clear(); });
}

int openHandles(int device)
{
    return onDevice(device, [](Registry &, VirtualDevice &d) { return d.handles; });
}

int invalidHandleUses()
{
    return locked([](Registry &r) { return r.invalidUses; });
}

void failNext(int device, Direction direction, int count, int code, int error)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) {
        (direction == Direction::Send ? d.sendFault : d.readFault) = Fault{count, code, error};
    });
}

void garbleNextReplies(int device, int count)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.garble = count; });
}

void failNextOpens(int device, int count, int error)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) {
        d.failOpens = count;
        d.openError = error;
    });
}

void setStalled(int device, bool stalled)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.stalled = stalled; });
}

void setLatency(int device, std::chrono::microseconds latency)
{
    onDevice(device, [&](Registry &, VirtualDevice &d) { d.latency = latency; });
}

} // namespace zorsim
