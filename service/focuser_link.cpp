// Reaching the focuser: opening it (USB) or connecting and pairing
// (Bluetooth), reading it, and losing and regaining its link.
#include "service_state.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace zorservice {
namespace {

constexpr auto kScanBeforeConnect = std::chrono::milliseconds(2000);
constexpr auto kBatteryInterval = std::chrono::seconds(30);

// The focusers on a Bluetooth link, told when the library's connection-state
// callback (which carries no context) reports the link gone.
std::mutex g_watchersMutex;
std::vector<FocuserImpl *> g_watchers;

void onBluetoothState(bool connected)
{
    if (connected)
        return;
    std::lock_guard<std::mutex> lock(g_watchersMutex);
    for (FocuserImpl *focuser : g_watchers)
        focuser->bluetoothLinkDropped();
}

void watchBluetooth(FocuserImpl *focuser, bool on)
{
    std::lock_guard<std::mutex> lock(g_watchersMutex);
    g_watchers.erase(std::remove(g_watchers.begin(), g_watchers.end(), focuser), g_watchers.end());
    if (on)
        g_watchers.push_back(focuser);
}

// Another program driving the same focuser would fight this one over every
// move, and the USB link does not keep it out. Programs on this service
// agree through an advisory lock per serial number, whose file names the
// holder.
std::string lockPath(const std::string &serial)
{
    const char *dir = std::getenv("XDG_RUNTIME_DIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/zor-focuser-" + serial + ".lock";
}

std::string holderOf(int fd)
{
    char text[128] = {};
    const ssize_t n = pread(fd, text, sizeof text - 1, 0);
    return n > 0 ? std::string(text, static_cast<std::size_t>(n)) : "another program";
}

// A descriptor holding the lock; -2 where no lock can be made (go on
// without); -1 with `problem` set when another program holds it.
int lockAgainstOthers(const std::string &serial, const std::string &program, std::string &problem)
{
    const int fd = ::open(lockPath(serial).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return -2;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        problem = "the focuser " + serial + " is in use by " + holderOf(fd) + "; disconnect it there first";
        ::close(fd);
        return -1;
    }
    const std::string me = program + " (process " + std::to_string(getpid()) + ")";
    if (ftruncate(fd, 0) == 0 && pwrite(fd, me.data(), me.size(), 0) < 0)
        std::perror("focuser lock file");
    return fd;
}

std::string firmwareText(int id)
{
    unsigned char major = 0, minor = 0, build = 0;
    if (ZORGetFirmwareVersion(id, &major, &minor, &build) != ZOR_SUCCESS)
        return "";
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

std::optional<bool> readOnOff(ZOR_ERROR_CODE (*getter)(int, bool *), int id)
{
    bool on = false;
    if (getter(id, &on) != ZOR_SUCCESS)
        return std::nullopt;
    return on;
}

} // namespace

FocuserImpl::Outcome FocuserImpl::openLink()
{
    const Outcome outcome = m_bluetooth ? openBluetooth() : openUsb();
    if (outcome.code == ZOR_SUCCESS) {
        m_nextPoll = TaskQueue::Clock::now();
        m_nextBattery = m_nextPoll + kBatteryInterval;
        m_compensation.forget();
    }
    return outcome;
}

FocuserImpl::Outcome FocuserImpl::openUsb()
{
    const std::string serial = m_key.substr(4);
    Outcome outcome{kNotFound, "the focuser " + serial + " is not connected by USB"};
    std::unique_lock<std::shared_mutex> tables(usbTables());
    for (const int id : enumerateUsbIds()) {
        {
            std::lock_guard<std::mutex> lock(m_service.mutex);
            if (m_service.usbClaims.count(id))
                continue;
        }
        const int opened = ZOROpen(id);
        if (opened != ZOR_SUCCESS) {
            outcome = {opened, "a focuser could not be opened (" + resultText(opened) + ")"};
            continue;
        }
        if (usbKey(id) != m_key) {
            ZORClose(id);
            continue;
        }
        std::string problem;
        const int lockFd = lockAgainstOthers(serial, m_service.programName, problem);
        if (lockFd == -1) {
            ZORClose(id);
            return {kInUse, problem};
        }
        m_id = id;
        m_lockFd = lockFd;
        std::lock_guard<std::mutex> lock(m_service.mutex);
        m_service.usbClaims[id] = m_key;
        return {};
    }
    return outcome;
}

FocuserImpl::Outcome FocuserImpl::openBluetooth()
{
    const std::string name = m_key.substr(4);
    std::lock_guard<std::mutex> session(bluetoothSession());
    BLE_DEVICE_INFO device{};
    if (!m_service.advertisedAs(name, device)) {
        const int scanned = m_service.scanBluetooth(kScanBeforeConnect);
        if (scanned != ZOR_SUCCESS)
            return {scanned, "scanning for Bluetooth focusers failed: " + resultText(scanned)};
        if (!m_service.advertisedAs(name, device))
            return {kNotFound,
                    "no Bluetooth focuser named \"" + name +
                        "\" advertises; is it on, in range, and free of another program or computer?"};
    }
    int id = -1;
    const int connected = ZORBLEConnect(device.Name, device.Address, &id);
    if (connected != ZOR_SUCCESS)
        return {connected, "connecting to \"" + name + "\" failed: " + resultText(connected) +
                               ". It may be connected to another program or computer."};
    const int paired = ZORBLEPair(id);
    if (paired != ZOR_SUCCESS) {
        ZORBLEDisconnect(id);
        return {paired, "pairing with \"" + name + "\" failed: " + resultText(paired)};
    }
    m_id = id;
    m_linkDropped = false;
    watchBluetooth(this, true);
    ZORBLERegConnStateCallback(id, onBluetoothState);
    return {};
}

void FocuserImpl::closeLink()
{
    if (m_id < 0)
        return;
    if (m_bluetooth) {
        watchBluetooth(this, false);
        std::lock_guard<std::mutex> session(bluetoothSession());
        ZORBLEDisconnect(m_id);
    } else {
        std::unique_lock<std::shared_mutex> tables(usbTables());
        ZORClose(m_id);
        std::lock_guard<std::mutex> lock(m_service.mutex);
        m_service.usbClaims.erase(m_id);
    }
    if (m_lockFd >= 0)
        ::close(m_lockFd);
    m_id = m_lockFd = -1;
}

// What the focuser is and how it is set, read once a link is made.
void FocuserImpl::readIdentityAndSettings()
{
    auto tables = callLock();
    Identity identity;
    ZOR_TYPE type{};
    ZOR_SN serial{};
    ZOR_INFO info{};
    ZORGetType(m_id, &type);
    ZORGetProperty(m_id, &info);
    identity.firmware = firmwareText(m_id);
    identity.model = textOf(type.Type, sizeof type.Type);
    if (ZORGetSerialNumber(m_id, &serial) == ZOR_SUCCESS)
        identity.serial = serialText(serial);
    const std::string name = textOf(info.Name, sizeof info.Name);
    const auto open = name.find('(');
    if (open != std::string::npos && name.size() > open + 1)
        identity.alias = name.substr(open + 1, name.size() - open - 2);
    identity.transport = m_bluetooth ? Transport::Bluetooth : Transport::Usb;

    int range = 0, maxStep = 0, backlash = 0;
    bool reverse = false;
    ZORStepRange(m_id, &range);
    ZORGetMaxStep(m_id, &maxStep);
    ZORGetBacklash(m_id, &backlash);
    ZORGetReverse(m_id, &reverse);
    const std::optional<bool> beep = readOnOff(ZORGetBeep, m_id);
    const std::optional<bool> led = readOnOff(ZORGetLedState, m_id);
    if (tables.owns_lock())
        tables.unlock();
    publish([&](Snapshot &s) {
        s.identity = identity;
        s.stepRange = range;
        s.maxStep = maxStep;
        s.backlash = backlash;
        s.reverse = reverse;
        s.beep = beep;
        s.led = led;
        s.compensationReference.reset();
    });
    readBattery();
    poll();
}

void FocuserImpl::readBattery()
{
    ZOR_BATTERY_INFO info{};
    int code;
    {
        auto tables = callLock();
        code = ZORGetBatteryInfo(m_id, &info);
    }
    m_nextBattery = TaskQueue::Clock::now() + kBatteryInterval;
    publish([&](Snapshot &s) {
        if (code == ZOR_SUCCESS) {
            s.battery = info.battery_percentage;
            s.charging = info.battery_charge_curr > 0;
        } else if (code == ZOR_ERROR_NOT_SUPPORTED) {
            s.battery.reset();
        }
    });
}

// Over Bluetooth one exchange answers all of it; over USB each call reads
// the focuser's status record.
int FocuserImpl::readState(Snapshot &state)
{
    if (m_bluetooth) {
        ZOR_ALL_INFO all{};
        const int code = ZORBLEgetAllInfo(m_id, &all);
        state.position = all.Position;
        state.moving = all.IsMoving != 0;
        state.handMoving = all.HandControlMoving != 0;
        state.temperature = all.Temperature;
        return code;
    }
    auto tables = callLock();
    int code = ZORGetPosition(m_id, &state.position);
    if (code == ZOR_SUCCESS)
        code = ZORIsMoving(m_id, &state.moving, &state.handMoving);
    // The focuser answered just now: a failed temperature read means no
    // probe (or no reading from it), not a lost focuser.
    float celsius = 0;
    state.temperature.reset();
    if (code == ZOR_SUCCESS && ZORGetTemp(m_id, &celsius) == ZOR_SUCCESS)
        state.temperature = celsius;
    return code;
}

void FocuserImpl::poll()
{
    m_nextPoll = TaskQueue::Clock::now() + std::chrono::milliseconds(m_pollMs.load());
    Snapshot state;
    int code = readState(state);
    if (code != ZOR_SUCCESS) {
        if (m_linkDropped)
            return; // the run loop takes the link down next
        // Any failure of the status read may be the link going, whatever
        // the code (a failed Bluetooth exchange reads as 3): one more read
        // tells a lost link from a passing fault.
        int position = 0;
        auto tables = callLock();
        if (ZORGetPosition(m_id, &position) != ZOR_SUCCESS) {
            if (tables.owns_lock())
                tables.unlock();
            loseLink(code, "reading its state");
            return;
        }
        return;
    }
    if (m_linkDropped)
        return; // the worker handles the drop next
    publish([&](Snapshot &s) {
        s.position = state.position;
        s.moving = state.moving || state.handMoving;
        s.handMoving = state.handMoving;
        if (!s.moving)
            s.compensating = false;
        s.temperature = state.temperature;
    });
    if (TaskQueue::Clock::now() >= m_nextBattery)
        readBattery();
    compensate();
}

void FocuserImpl::loseLink(int code, const std::string &doing)
{
    closeLink();
    m_lost = true;
    m_attempts = 0;
    m_nextReconnect = TaskQueue::Clock::now() + reconnectDelay(0);
    publish([&](Snapshot &s) {
        s.link = Link::Lost;
        s.moving = s.handMoving = s.compensating = false;
        s.lastError = code;
        s.lastErrorText = "Lost the focuser while " + doing + ": " + resultText(code);
        s.reconnectAttempts = 0;
        s.nextReconnect = reconnectDelay(0);
    });
}

void FocuserImpl::tryReconnect()
{
    const Outcome outcome = openLink();
    if (outcome.code != ZOR_SUCCESS) {
        ++m_attempts;
        m_nextReconnect = TaskQueue::Clock::now() + reconnectDelay(m_attempts);
        publish([&](Snapshot &s) {
            s.reconnectAttempts = m_attempts;
            s.nextReconnect = reconnectDelay(m_attempts);
        });
        return;
    }
    m_lost = false;
    finishOpen();
}

int FocuserImpl::finishOpen()
{
    readIdentityAndSettings();
    if (!linkUp())
        return snapshot().lastError;
    publish([](Snapshot &s) {
        s.link = Link::Connected;
        s.lastError = 0;
        s.lastErrorText.clear();
        s.reconnectAttempts = 0;
        s.nextReconnect = std::chrono::seconds(0);
    });
    return ZOR_SUCCESS;
}

} // namespace zorservice
