// The part of a Bluetooth LE central that every platform shares, fed by the
// platform's events: the table of discovered peripherals, connecting by name,
// the connection sequence that ends in one completion event, telling a
// requested disconnect from a lost link, and which notifications count.
//
// A platform derives from it, implements the platform hooks (each may act at
// once or later, but reports back only through the event entry points) and
// calls the event entry points from one event thread. Nothing here holds its
// lock while calling a hook or the listener.
#pragma once

#include "ble_transport/ble_central.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

// The radio's state, numbered as CoreBluetooth numbers it.
enum class RadioState : long { Unknown = 0, Unsupported = 2, PoweredOff = 4, PoweredOn = 5 };

// An error's description; empty optional for none.
using BleError = std::optional<std::string>;

// The device's one GATT service.
extern const char kFocuserServiceUuid[];

class CentralCore : public BleCentral {
public:
    struct Advertisement {
        std::string id; // the platform's identifier of the peripheral
        std::string name; // empty when it has none
        std::string address;
        int64_t bluetoothAddress = 0;
        int16_t rssi = 0;
    };
    struct GattService {
        std::string id;
        std::string uuid;
    };
    struct GattCharacteristic {
        std::string id;
        std::string uuid;
        bool canWrite = false;
        bool canNotify = false;
    };

    // --- BleCentral -------------------------------------------------------
    void start(Listener &listener) override;
    bool isPoweredOn() override;
    int startScanning() override;
    void stopScanning() override;
    void getDiscoveredPeripherals(std::vector<DeviceInfo> &devices) override;
    int startConnect(const std::string &name) override;
    void stopConnect() override;
    bool isConnectSuccess() override;
    void sendMessage(const Bytes &data) override;
    void getLocalMacAddress(std::string &address) override;
    void waitForEvents(std::chrono::milliseconds limit) override;

    // --- platform events --------------------------------------------------
    void onRadioState(RadioState state);
    // A peripheral was seen (again): added to the table or updated in it.
    void onDiscovered(const Advertisement &advertisement);
    void onConnected(const std::string &peripheral);
    void onConnectFailed(const std::string &peripheral, const std::string &error);
    void onServicesDiscovered(const std::string &peripheral, const std::vector<GattService> &services,
                              const BleError &error);
    void onCharacteristicsDiscovered(const std::string &peripheral,
                                     const std::vector<GattCharacteristic> &characteristics,
                                     const BleError &error);
    void onNotificationState(const std::string &peripheral, const std::string &characteristic, bool notifying,
                             const BleError &error);
    // `error` is empty for a disconnect that was asked for.
    void onDisconnected(const std::string &peripheral, const BleError &error);
    void onValue(const std::string &peripheral, const std::string &characteristic, const Bytes &value,
                 const BleError &error);
    void onWritten(const BleError &error);

protected:
    // --- platform hooks ---------------------------------------------------
    virtual void platformStart() = 0; // reports the first radio state
    virtual void platformStartScan() = 0;
    virtual void platformStopScan() = 0;
    virtual void platformConnect(const std::string &peripheral) = 0;
    virtual void platformCancelConnect(const std::string &peripheral) = 0;
    virtual void platformDiscoverServices(const std::string &peripheral) = 0;
    virtual void platformDiscoverCharacteristics(const std::string &peripheral,
                                                 const std::string &service) = 0;
    virtual void platformSubscribe(const std::string &peripheral, const std::string &characteristic) = 0;
    virtual void platformWrite(const std::string &peripheral, const std::string &characteristic,
                               const Bytes &data) = 0;
    virtual std::optional<std::string> platformHostAddress() = 0;
    // The pause that lets the device settle once notifications are on.
    virtual void settle(std::chrono::milliseconds duration) { sleepFor(duration); }

private:
    const Advertisement *findByName(const std::string &name) const;
    std::string displayName(const std::string &peripheral) const;
    // Ends the attempt on `peripheral` with one completion event, if it is
    // the attempt in progress.
    void completeAttempt(const std::string &peripheral, const BleError &error);
    bool isAttemptOn(const std::string &peripheral);
    void forgetLinks();
    // Wakes a caller in waitForEvents.
    void signalEvent();

    Listener *m_listener = nullptr;

    mutable std::mutex m_mutex;
    RadioState m_radio = RadioState::Unknown;
    std::vector<Advertisement> m_discovered; // in the order first seen
    std::set<std::string> m_connected;
    std::string m_current; // the peripheral last chosen by startConnect
    bool m_attemptOpen = false;
    bool m_connectSuccess = false;
    std::string m_writeCharacteristic;

    std::mutex m_eventMutex;
    std::condition_variable m_eventCondition;
    bool m_eventPending = false;
};

// --- the host's hardware address ------------------------------------------

struct HostInterface {
    std::string name;
    std::vector<unsigned char> hardwareAddress;
    bool loopback = false;
};

// The link-layer entries of the host's interfaces (getifaddrs).
std::vector<HostInterface> hostInterfaces();
// Six bytes as "%02x:%02x:%02x:%02x:%02x:%02x"; nothing for another length.
std::optional<std::string> formatHardwareAddress(const std::vector<unsigned char> &bytes);
// The address of the first interface with this name.
std::optional<std::string> interfaceAddress(const std::vector<HostInterface> &interfaces,
                                            const std::string &name);
// The address of the first interface that is not the loopback.
std::optional<std::string> firstNonLoopbackAddress(const std::vector<HostInterface> &interfaces);
