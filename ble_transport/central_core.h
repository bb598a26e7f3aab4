// The part of a Bluetooth LE central that every platform shares, fed by the
// platform's events: the table of discovered peripherals, connecting by name,
// the connection sequence that ends in one completion event, telling a
// requested disconnect from a lost link, which notifications count, and which
// requests the platform has answered.
//
// It owns the platform central and calls down into it; the manager above
// hears from it only through the Listener it was started with. Events come
// on the platform's event thread. Nothing here holds its lock while calling
// the platform or the listener.
#pragma once

#include "ble_transport/ble_manager.h"
#include "ble_transport/platform_central.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

// The device's one GATT service.
extern const char kFocuserServiceUuid[];

class CentralCore final : private ble::PlatformEvents {
public:
    using Bytes = ble::Bytes;
    using DeviceInfo = IBluetoothLEManager::DeviceInfo;
    // A request whose answer a caller may wait for; 0 when nothing was sent.
    using Ticket = uint64_t;

    // What the manager hears, on the event thread.
    class Listener {
    public:
        virtual void onRadioStateReported() = 0;
        // The connection attempt finished; isConnectSuccess tells how.
        virtual void onConnectCompleted() = 0;
        // The link was lost (not asked for), or the radio went away.
        virtual void onLinkLost() = 0;
        // A notification arrived on the write characteristic.
        virtual void onNotified(const Bytes &data) = 0;
        // A request was answered; isAnswered tells which.
        virtual void onRequestAnswered() = 0;

    protected:
        ~Listener() = default;
    };

    explicit CentralCore(std::unique_ptr<ble::PlatformCentral> platform);
    ~CentralCore();
    CentralCore(const CentralCore &) = delete;
    CentralCore &operator=(const CentralCore &) = delete;

    // Starts the platform; its first radio-state report follows.
    void start(Listener &listener);
    bool isPoweredOn();
    // 0 when scanning started, -1 when the radio is not powered on.
    int startScanning();
    Ticket stopScanning();
    // Appends the named peripherals of the discovered table.
    void getDiscoveredPeripherals(std::vector<DeviceInfo> &devices);
    // 0 when a connection was requested, -1 when no discovered peripheral
    // has exactly this name. Choosing another peripheral drops the current one.
    int startConnect(const std::string &name);
    // Disconnects the current peripheral, if there is one.
    Ticket stopConnect();
    bool isConnectSuccess();
    // One write to the write characteristic; 0 without one.
    Ticket sendMessage(const Bytes &data);
    bool isAnswered(Ticket ticket);
    // Fills `address` with the host's address, or leaves it alone.
    void getLocalMacAddress(std::string &address);

    // True on the thread that is delivering a platform event: a wait there
    // could never see the next one.
    static bool isEventThread();

private:
    // --- ble::PlatformEvents ----------------------------------------------
    void onRadioState(ble::RadioState state) override;
    void onDiscovered(const ble::Advertisement &advertisement) override;
    void onScanStopped() override;
    void onConnected(const std::string &peripheral) override;
    void onConnectFailed(const std::string &peripheral, const std::string &error) override;
    void onServicesDiscovered(const std::string &peripheral, const std::vector<ble::GattService> &services,
                              const ble::Error &error) override;
    void onCharacteristicsDiscovered(const std::string &peripheral,
                                     const std::vector<ble::GattCharacteristic> &characteristics,
                                     const ble::Error &error) override;
    void onNotificationState(const std::string &peripheral, const std::string &characteristic, bool notifying,
                             const ble::Error &error) override;
    void onDisconnected(const std::string &peripheral, const ble::Error &error) override;
    void onDisconnectAnswered(const std::string &peripheral) override;
    void onValue(const std::string &peripheral, const std::string &characteristic, const Bytes &value,
                 const ble::Error &error) override;
    void onWritten(const ble::Error &error) override;

    const ble::Advertisement *findByName(const std::string &name) const;
    std::string displayName(const std::string &peripheral) const;
    // Ends the attempt on `peripheral` with one completion event, if it is
    // the attempt in progress.
    void completeAttempt(const std::string &peripheral, const ble::Error &error);
    bool isAttemptOn(const std::string &peripheral);
    // The radio or the stack went away: every link and pending answer with it.
    void forgetLinks();
    Ticket openTicket(); // call with m_mutex held
    // Answers the oldest ticket of `waiting`; call with m_mutex held.
    bool answerOldest(std::deque<Ticket> &waiting);

    std::unique_ptr<ble::PlatformCentral> m_platform;
    Listener *m_listener = nullptr;

    mutable std::mutex m_mutex;
    ble::RadioState m_radio = ble::RadioState::Unknown;
    std::vector<ble::Advertisement> m_discovered; // in the order first seen
    std::set<std::string> m_connected;
    std::string m_current; // the peripheral last chosen by startConnect
    bool m_attemptOpen = false;
    bool m_connectSuccess = false;
    std::string m_writeCharacteristic;

    Ticket m_lastTicket = 0;
    std::set<Ticket> m_unanswered;
    std::deque<Ticket> m_writes;
    std::deque<Ticket> m_scanStops;
    std::map<std::string, std::deque<Ticket>> m_disconnects;
};
