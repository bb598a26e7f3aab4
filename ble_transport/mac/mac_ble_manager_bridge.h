// The macOS central: the shared central logic over CoreBluetooth. The
// delegate object (MacCoreBluetoothImp) owns the CBCentralManager and turns
// each delegate call into one of the shared logic's events, on the central
// manager's serial queue; the manager hears of them on the main queue.
// Objective-C++ only: it holds an object of the platform's runtime.
#pragma once

#include "ble_transport/central_core.h"

#include <memory>

@class MacCoreBluetoothImp;

class MacBLEManagerBridge final : public CentralCore {
public:
    MacBLEManagerBridge();
    // Must not run on the central manager's queue.
    ~MacBLEManagerBridge() override;

    void start(Listener &listener) override;
    // Runs the calling thread's run loop in its default mode (at most one
    // cycle), so that the events posted to the main queue reach the manager
    // when the caller is the main thread.
    void waitForEvents(std::chrono::milliseconds limit) override;
    // True while the main queue delivers one of this central's events.
    bool isEventThread() const override;

protected:
    void platformStart() override;
    void platformStartScan() override;
    void platformStopScan() override;
    void platformConnect(const std::string &peripheral) override;
    void platformCancelConnect(const std::string &peripheral) override;
    void platformDiscoverServices(const std::string &peripheral) override;
    void platformDiscoverCharacteristics(const std::string &peripheral, const std::string &service) override;
    void platformSubscribe(const std::string &peripheral, const std::string &characteristic) override;
    void platformWrite(const std::string &peripheral, const std::string &characteristic,
                       const Bytes &data) override;
    std::optional<std::string> platformHostAddress() override;

private:
    class MainQueueListener;

    MacCoreBluetoothImp *_cbimp = nullptr;
    std::unique_ptr<MainQueueListener> m_mainQueue;
};
