// The platform manager of a host without Bluetooth support in this library:
// Bluetooth is reported unavailable, nothing is ever found, connected, sent
// or received, and no call blocks.
#pragma once

#include "ble_transport/ble_manager.h"

class UnavailableBluetoothLEManager : public IBluetoothLEManager {
public:
    void ScanForDevices(uint32_t, std::vector<DeviceInfo> &) override {}
    bool ConnectToDevice(const std::string &, const std::string &) override { return false; }
    void DisconnectFromDevice() override {}
    bool SendData(const std::vector<unsigned char> &, uint32_t, uint32_t) override { return false; }
    void ReceiveData(uint32_t, uint32_t) override {}
    void GetReceivedData(std::vector<unsigned char> &data) override { data.clear(); }
    void GetLocalBluetoothMacAddress(std::string &) override {}
    bool IsBluetoothLESupported() override { return false; }
    bool WaitForDataAndProcess() override { return false; }
    void setIsRead(bool) override {}
    void ConnectStateCallbackFunc(std::function<void(bool)>) override {}
};
