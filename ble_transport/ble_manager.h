// The Bluetooth LE transport seen by a device object: it moves byte vectors
// to and from one connected focuser and knows nothing of their framing.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class IBluetoothLEManager {
public:
    struct DeviceInfo {
        std::string name;
        std::string address;
        std::string uuid;
        int16_t rssi = 0;
        int64_t bluetoothAddress = 0;
    };

    // The slots below keep this order.
    virtual void ScanForDevices(uint32_t durationMs, std::vector<DeviceInfo> &devices) = 0;
    virtual bool ConnectToDevice(const std::string &name, const std::string &address) = 0;
    virtual void DisconnectFromDevice() = 0;
    virtual bool SendData(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2) = 0;
    virtual void ReceiveData(uint32_t reserved1, uint32_t reserved2) = 0;
    virtual void GetReceivedData(std::vector<unsigned char> &data) = 0;
    virtual void GetLocalBluetoothMacAddress(std::string &address) = 0;
    virtual bool IsBluetoothLESupported() = 0;
    virtual bool WaitForDataAndProcess() = 0;
    virtual void setIsRead(bool isRead) = 0;
    virtual void ConnectStateCallbackFunc(std::function<void(bool)> callback) = 0;
    virtual ~IBluetoothLEManager() = default;

    // A new handle on the process-wide platform manager, owned by the caller.
    // Making one never touches the platform.
    static IBluetoothLEManager *CreateBluetoothLEManager();

    // Sends through SendData, ignores its result, then reports true to
    // `onSent` when one is given.
    void SendData1(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2,
                   std::function<void(bool)> onSent);
};

// What CreateBluetoothLEManager hands out: a handle without state of its own
// that forwards every operation to the one platform manager of the process.
// Deleting it frees only the handle: the link and the connection-state
// callback stay as they are for every other handle.
class BluetoothLEManagerWin : public IBluetoothLEManager {
public:
    void ScanForDevices(uint32_t durationMs, std::vector<DeviceInfo> &devices) override;
    bool ConnectToDevice(const std::string &name, const std::string &address) override;
    void DisconnectFromDevice() override;
    bool SendData(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2) override;
    void ReceiveData(uint32_t reserved1, uint32_t reserved2) override;
    void GetReceivedData(std::vector<unsigned char> &data) override;
    void GetLocalBluetoothMacAddress(std::string &address) override;
    bool IsBluetoothLESupported() override;
    bool WaitForDataAndProcess() override;
    void setIsRead(bool isRead) override;
    void ConnectStateCallbackFunc(std::function<void(bool)> callback) override;

    // The platform manager's SendData1.
    void SendData1(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2,
                   std::function<void(bool)> onSent);
};
