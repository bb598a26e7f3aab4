// The platform Bluetooth manager: turns the central's events into the
// blocking calls the device side expects (a scan of a given length, a connect
// that returns once the link is usable or has failed, a wait for the
// notification that answers a request). Every wait wakes on its event, or on
// the loss of the link it waits on, and ends at its limit otherwise.
#pragma once

#include "ble_transport/ble_manager.h"
#include "ble_transport/central_core.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// How long each wait of the manager may last.
struct BleWaitLimits {
    std::chrono::milliseconds connect{10000};
    std::chrono::milliseconds data{5000};
    // An answer that arrives this close to the data limit fails the wait
    // that sees it and is left for the next one.
    std::chrono::milliseconds lateData{20};
    // The device settles this long once its notifications are on.
    std::chrono::milliseconds settle{2000};
    // How long a write, the end of a scan or a disconnect waits for the
    // platform's answer.
    std::chrono::milliseconds answer{5000};
};

class BluetoothLEManager final : public IBluetoothLEManager, private CentralCore::Listener {
public:
    using Limits = BleWaitLimits;

    // Starts the platform central and blocks until it has reported the
    // radio's state.
    explicit BluetoothLEManager(std::unique_ptr<ble::PlatformCentral> platform, Limits limits = Limits());
    ~BluetoothLEManager() override;

    void ScanForDevices(uint32_t durationMs, std::vector<DeviceInfo> &devices) override;
    bool ConnectToDevice(const std::string &name, const std::string &address) override;
    void DisconnectFromDevice() override;
    // False at once while no link is up; otherwise true once the platform has
    // answered the write (or the link went while it waited: false).
    bool SendData(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2) override;
    void ReceiveData(uint32_t reserved1, uint32_t reserved2) override;
    void GetReceivedData(std::vector<unsigned char> &data) override;
    void GetLocalBluetoothMacAddress(std::string &address) override;
    bool IsBluetoothLESupported() override;
    bool WaitForDataAndProcess() override;
    void setIsRead(bool isRead) override;
    void ConnectStateCallbackFunc(std::function<void(bool)> callback) override;

private:
    using Clock = std::chrono::steady_clock;

    // --- CentralCore::Listener, on the event thread ------------------------
    void onRadioStateReported() override;
    void onConnectCompleted() override;
    void onLinkLost() override;
    void onNotified(const std::vector<unsigned char> &data) override;
    void onRequestAnswered() override;

    // Waits on m_changed until `ready` or `deadline`; false at the deadline.
    template <typename Ready>
    bool waitUntil(std::unique_lock<std::mutex> &lock, Clock::time_point deadline, Ready ready);
    // Waits for the platform's answer to `ticket`, or for the link to go.
    bool waitForAnswer(CentralCore::Ticket ticket, bool whileLinkUp);
    bool connect(const std::string &name);
    // The link goes (lost, disconnected or taken over): waits on it end, and
    // the callback it had is handed back.
    std::function<void(bool)> endLink();
    std::function<void(bool)> connectStatusCallback();
    std::function<void(bool)> replaceCallback(std::function<void(bool)> callback);

    const Limits m_limits;
    // Serialises connects and scans, each with the other of its kind.
    std::mutex m_connectMutex;
    std::mutex m_scanMutex;

    std::mutex m_stateMutex;
    std::condition_variable m_changed;
    bool m_stateReported = false;
    bool m_attemptCompleted = false;
    bool m_linkUp = false;
    // Counts the links that went: a wait begun on one link ends when it changes.
    uint64_t m_linkEpoch = 0;
    bool m_dataReady = false;
    Clock::time_point m_dataArrived;
    std::vector<unsigned char> m_received;
    std::atomic<bool> m_isRead{false};

    std::mutex m_callbackMutex;
    std::function<void(bool)> m_connectStatusCallback;

    // Last: it goes first, and its events call into everything above.
    std::unique_ptr<CentralCore> m_core;
};
