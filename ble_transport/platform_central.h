// The contract between the shared central logic and one platform's Bluetooth
// LE stack (BlueZ on Linux, CoreBluetooth on macOS).
//
// The shared logic owns a PlatformCentral and calls down into it; the
// platform reports everything that happens through the PlatformEvents it was
// started with, on a thread of its own (the event thread). Operations return
// at once: their outcome, where there is one, comes as an event. Nothing in
// a platform knows of the manager or of the shared logic's state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ble {

using Bytes = std::vector<unsigned char>;

// The radio's state, numbered as CoreBluetooth numbers it.
enum class RadioState : long { Unknown = 0, Unsupported = 2, PoweredOff = 4, PoweredOn = 5 };

// An error's description; empty optional for none.
using Error = std::optional<std::string>;

// Peripherals, services and characteristics are named by the platform's
// identifiers (BlueZ object paths, CoreBluetooth UUID texts).
struct Advertisement {
    std::string id;
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

class PlatformEvents {
public:
    // At start (always, even without a radio) and on every change.
    virtual void onRadioState(RadioState state) = 0;
    // A peripheral was seen (again) while scanning.
    virtual void onDiscovered(const Advertisement &advertisement) = 0;
    virtual void onScanStopped() = 0;
    virtual void onConnected(const std::string &peripheral) = 0;
    virtual void onConnectFailed(const std::string &peripheral, const std::string &error) = 0;
    virtual void onServicesDiscovered(const std::string &peripheral, const std::vector<GattService> &services,
                                      const Error &error) = 0;
    virtual void onCharacteristicsDiscovered(const std::string &peripheral,
                                             const std::vector<GattCharacteristic> &characteristics,
                                             const Error &error) = 0;
    virtual void onNotificationState(const std::string &peripheral, const std::string &characteristic,
                                     bool notifying, const Error &error) = 0;
    // The link is down; `error` is empty for a disconnect that was asked for.
    virtual void onDisconnected(const std::string &peripheral, const Error &error) = 0;
    // The platform has answered a disconnect request (whether or not a link
    // was up).
    virtual void onDisconnectAnswered(const std::string &peripheral) = 0;
    virtual void onValue(const std::string &peripheral, const std::string &characteristic, const Bytes &value,
                         const Error &error) = 0;
    // The oldest write not yet answered has been answered.
    virtual void onWritten(const Error &error) = 0;

protected:
    ~PlatformEvents() = default;
};

class PlatformCentral {
public:
    virtual ~PlatformCentral() = default;

    // Begins serving `events`; the first onRadioState follows.
    virtual void start(PlatformEvents &events) = 0;
    // Discovery without a service filter; peripherals come as onDiscovered.
    virtual void startScan() = 0;
    virtual void stopScan() = 0;
    virtual void connect(const std::string &peripheral) = 0;
    virtual void disconnect(const std::string &peripheral) = 0;
    // The steps of the connection sequence after onConnected.
    virtual void discoverServices(const std::string &peripheral) = 0;
    virtual void discoverCharacteristics(const std::string &peripheral, const std::string &service) = 0;
    virtual void subscribe(const std::string &peripheral, const std::string &characteristic) = 0;
    // One write with response.
    virtual void write(const std::string &peripheral, const std::string &characteristic, const Bytes &data) = 0;
    // The host's address as sent at pairing; nothing when none is known.
    virtual std::optional<std::string> hostAddress() = 0;
};

} // namespace ble
