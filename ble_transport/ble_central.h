// What the portable Bluetooth manager needs from a platform's Bluetooth LE
// central: scanning, a table of discovered peripherals, connecting by name,
// writes to and notifications from the device's one characteristic, the
// host's hardware address, and a way to let platform events reach it while
// a caller waits.
#pragma once

#include "ble_transport/ble_manager.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

class BleCentral {
public:
    using Bytes = std::vector<unsigned char>;
    using DeviceInfo = IBluetoothLEManager::DeviceInfo;

    // Receives the central's events, on the thread that the central's waits
    // let run.
    class Listener {
    public:
        // The radio's state was reported (at start and on every change).
        virtual void onCentralManagerUpdateState() = 0;
        // The connection attempt finished; isConnectSuccess tells how.
        virtual void onPeripheralConnectCompleted() = 0;
        // The link was lost (not asked for) or the radio was switched off.
        virtual void onPeripheralDisconnect() = 0;
        // A notification arrived on the write characteristic.
        virtual void onPeripheralNotified(const Bytes &data) = 0;

    protected:
        ~Listener() = default;
    };

    virtual ~BleCentral() = default;

    // Starts the platform side; its first radio-state report follows.
    virtual void start(Listener &listener) = 0;
    virtual bool isPoweredOn() = 0;
    // 0 when scanning started, -1 when the radio is not powered on.
    virtual int startScanning() = 0;
    virtual void stopScanning() = 0;
    // Appends the named peripherals of the discovered table.
    virtual void getDiscoveredPeripherals(std::vector<DeviceInfo> &devices) = 0;
    // 0 when a connection was requested, -1 when no discovered peripheral
    // has exactly this name.
    virtual int startConnect(const std::string &name) = 0;
    // Cancels the current peripheral's connection.
    virtual void stopConnect() = 0;
    virtual bool isConnectSuccess() = 0;
    // One write with response to the write characteristic.
    virtual void sendMessage(const Bytes &data) = 0;
    // Fills `address` with the host's hardware address, or leaves it alone.
    virtual void getLocalMacAddress(std::string &address) = 0;

    // Lets platform events reach the listener for at most `limit`; returns
    // early once one has.
    virtual void waitForEvents(std::chrono::milliseconds limit) = 0;
    virtual void sleepFor(std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }
    // True on the thread that delivers the events: no wait there can see one.
    virtual bool isEventThread() const { return false; }
};
