// Inside the service: what the catalogue and the focusers share, the rules
// for reaching the library's tables from several threads, and one focuser's
// worker.
#pragma once

#include "focuser_service.h"
#include "task_queue.h"
#include "temperature_compensation.h"

#include "ZOR_focuser.h"

#include <atomic>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

namespace zorservice {

// The library's table of USB paths is rewritten by ZORGetNum and read by
// every call on a USB ID; enumeration, open and close are meant for one
// thread at a time. So they take this lock alone, and the calls on an open
// USB focuser share it.
std::shared_mutex &usbTables();
// Enumerates the USB focusers and returns their IDs; call with usbTables()
// held alone.
std::vector<int> enumerateUsbIds();
// Bluetooth scan, connect, pair and disconnect share one transport.
std::mutex &bluetoothSession();

std::string textOf(const char *chars, std::size_t size);
std::string serialText(const ZOR_SN &sn);
// "usb:<serial>", or "usb:id<N>" for firmware without a serial number.
std::string usbKey(int id);

class FocuserImpl;

struct Service::State {
    explicit State(std::string program) : programName(std::move(program)) {}

    const std::string programName;

    mutable std::mutex mutex; // everything below
    std::vector<CatalogueEntry> entries;
    std::vector<BLE_DEVICE_INFO> advertised; // every Bluetooth focuser seen, by name
    std::vector<std::string> problems;
    std::map<int, std::string> usbClaims; // open USB IDs and the keys of their focusers
    std::map<std::string, std::shared_ptr<FocuserImpl>> focusers;

    std::mutex listenerMutex; // held while the listener runs, so clearing it waits for a call
    std::function<void()> catalogueListener;

    TaskQueue catalogueTasks;
    std::thread catalogueThread;

    void catalogueChanged();
    // Adds or renames the scanned Bluetooth focusers; the caller holds bluetoothSession().
    void noteAdvertised(const std::vector<BLE_DEVICE_INFO> &scanned);
    bool advertisedAs(const std::string &name, BLE_DEVICE_INFO &device) const;
    int scanBluetooth(std::chrono::milliseconds duration);
    void rescanUsb();
};

class FocuserImpl final : public Focuser {
  public:
    FocuserImpl(Service::State &service, std::string key);
    ~FocuserImpl() override;

    const std::string &key() const override { return m_key; }
    Snapshot snapshot() const override;
    void setListener(std::function<void()> changed) override;

    void connect(Done done) override;
    void disconnect(Done done) override;
    void moveTo(int target, Done done) override;
    void moveBy(int steps, Done done) override;
    void stop(Done done) override;
    void sync(int position, Done done) override;
    void setMaxStep(int steps, Done done) override;
    void setBacklash(int steps, Done done) override;
    void setReverse(bool on, Done done) override;
    void setBeep(bool on, Done done) override;
    void setLed(bool on, Done done) override;
    void setBluetoothName(const std::string &name, Done done) override;
    void setCompensation(const CompensationSettings &settings, Done done) override;
    void setPollInterval(std::chrono::milliseconds interval) override;

    // The library's connection-state callback said the Bluetooth link went:
    // shown at once, handled by the worker.
    void bluetoothLinkDropped();
    // Ends the worker, closing the focuser; called by the service before it goes.
    void shutDown();

  private:
    struct Outcome {
        int code = ZOR_SUCCESS;
        std::string problem; // in words, for the user
    };

    // focuser_worker.cpp: the thread, commands, snapshots.
    void run();
    TaskQueue::Clock::time_point nextDeadline() const;
    void command(Done done, const char *doing, std::function<int()> action);
    void publish(const std::function<void(Snapshot &)> &change);
    void fail(int code, const std::string &what);
    bool linkUp() const { return m_id >= 0 && !m_lost; }
    // Held around calls on an open USB focuser (see usbTables()).
    std::shared_lock<std::shared_mutex> callLock() const
    {
        return m_bluetooth ? std::shared_lock<std::shared_mutex>()
                           : std::shared_lock<std::shared_mutex>(usbTables());
    }
    // Connected after an open: published, unless reading it lost it again.
    int finishOpen();

    // focuser_motion.cpp: moves, settings, compensation.
    int startMove(int target, bool compensating);
    int stopAndWait();
    void compensate();
    int applyMaxStep(int steps);

    // focuser_link.cpp: opening, reading, losing and regaining the focuser.
    Outcome openLink();
    Outcome openUsb();
    Outcome openBluetooth();
    void closeLink();
    void readIdentityAndSettings();
    void poll();
    int readState(Snapshot &state);
    void readBattery();
    void loseLink(int code, const std::string &doing);
    void tryReconnect();

    Service::State &m_service;
    const std::string m_key;
    const bool m_bluetooth;

    mutable std::mutex m_snapshotMutex;
    Snapshot m_snapshot;
    std::mutex m_listenerMutex;
    std::function<void()> m_listener;

    std::atomic<bool> m_linkDropped{false};
    std::atomic<int> m_pollMs{250};
    TaskQueue m_tasks;

    // The worker's own.
    int m_id = -1;
    int m_lockFd = -1;
    bool m_lost = false; // connected, and the link went: reconnect
    int m_attempts = 0;
    TaskQueue::Clock::time_point m_nextPoll;
    TaskQueue::Clock::time_point m_nextReconnect;
    TaskQueue::Clock::time_point m_nextBattery;
    std::optional<TaskQueue::Clock::time_point> m_lastClientMove;
    TemperatureCompensation m_compensation;
    CompensationSettings m_compensationSettings;

    std::thread m_thread; // last: starts once everything above is made
};

} // namespace zorservice
