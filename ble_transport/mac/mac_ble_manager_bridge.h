// The macOS platform central over CoreBluetooth. The delegate object
// (MacCoreBluetoothImp) owns the CBCentralManager, runs every CoreBluetooth
// call on the central manager's serial queue and reports each delegate call
// there as a platform event; that queue is the event thread.
// Objective-C++ only: it holds an object of the platform's runtime.
#pragma once

#include "ble_transport/platform_central.h"

@class MacCoreBluetoothImp;

class MacBLEManagerBridge final : public ble::PlatformCentral {
public:
    MacBLEManagerBridge() = default;
    // Must not run on the central manager's queue.
    ~MacBLEManagerBridge() override;

    void start(ble::PlatformEvents &events) override;
    void startScan() override;
    void stopScan() override;
    void connect(const std::string &peripheral) override;
    void disconnect(const std::string &peripheral) override;
    void discoverServices(const std::string &peripheral) override;
    void discoverCharacteristics(const std::string &peripheral, const std::string &service) override;
    void subscribe(const std::string &peripheral, const std::string &characteristic) override;
    void write(const std::string &peripheral, const std::string &characteristic, const ble::Bytes &data) override;
    std::optional<std::string> hostAddress() override;

private:
    MacCoreBluetoothImp *_cbimp = nullptr;
};
