// The platform Bluetooth manager: turns a central's events into the blocking
// calls the device side expects (a scan of a given length, a connect that
// returns once the link is usable or has failed, a wait for the notification
// that answers a request). It polls flags that the central's events set, in
// fixed cycles: each lets the events that have come run, then sleeps.
#pragma once

#include "ble_transport/ble_central.h"
#include "ble_transport/ble_manager.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class BluetoothLEManager final : public IBluetoothLEManager, private BleCentral::Listener {
public:
    // Starts the central and blocks until it has reported the radio's state.
    explicit BluetoothLEManager(std::unique_ptr<BleCentral> central);
    ~BluetoothLEManager() override;

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

private:
    void onCentralManagerUpdateState() override;
    void onPeripheralConnectCompleted() override;
    void onPeripheralDisconnect() override;
    void onPeripheralNotified(const std::vector<unsigned char> &data) override;

    // Lets events run for one cycle, then sleeps `pause`.
    void runCycle(std::chrono::milliseconds pause);
    bool waitForConnectCompletion();
    std::function<void(bool)> connectStatusCallback();
    void replaceCallback(std::function<void(bool)> callback);

    std::unique_ptr<BleCentral> m_central;
    // Serialises scan, connect, disconnect, the support check and setIsRead.
    std::mutex m_mutex;

    std::atomic<bool> m_isCMStateUpdated{false};
    std::atomic<bool> m_isPCCompleted{false};
    std::atomic<bool> m_bIsRead{false};
    std::atomic<bool> m_bDataReady{false};

    std::mutex m_dataMutex;
    std::vector<unsigned char> m_ui8ReceivedDatas;

    std::mutex m_callbackMutex;
    std::function<void(bool)> m_connectStatusCallback;
};
