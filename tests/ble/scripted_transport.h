// A Bluetooth LE transport for tests: the test decides whether sends are
// accepted, how each wait ends and which frames arrive, and reads back what
// the device object did with it.
//
// Arrival model: frames wait in a queue. A wait that succeeds moves the next
// queued frame into the "received" slot, which GetReceivedData hands out (as
// often as asked, like the real transport's last stored notification). Waits
// take their outcomes from the scripted list first; once it is used up, a wait
// succeeds exactly when a frame is queued. A responder, when set, is asked on
// every accepted send for the frames that answer it, and they are queued.
#pragma once

#include "ble/ble_protocol.h"
#include "ble_transport/ble_manager.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zor_test {

using Bytes = std::vector<unsigned char>;

// Appends the additive 8-bit checksum of all of `frame`.
inline Bytes withChecksum(Bytes frame)
{
    frame.push_back(BLEProtocol::calculateChecksum(frame.data(), frame.size()));
    return frame;
}

// A response frame: 01, length byte, sequence, status, then `content` (the
// three bytes kept out of the decoded payload come first), then the checksum.
// The length byte counts the content bytes, as a request's counts its payload;
// the host never reads it.
inline Bytes responseFrame(uint8_t sequence, uint8_t status, const Bytes &content = {})
{
    Bytes frame{BLEProtocol::FRAME_RESPONSE, static_cast<unsigned char>(content.size()), sequence, status};
    frame.insert(frame.end(), content.begin(), content.end());
    return withChecksum(frame);
}

// A notification frame: 02, length byte, sequence position, status, payload,
// checksum.
inline Bytes notificationFrame(uint8_t status, const Bytes &payload = {}, uint8_t sequence = 0)
{
    Bytes frame{BLEProtocol::FRAME_NOTIFICATION, static_cast<unsigned char>(payload.size()), sequence, status};
    frame.insert(frame.end(), payload.begin(), payload.end());
    return withChecksum(frame);
}

// The same frame with its checksum byte changed to a wrong value.
inline Bytes corrupted(Bytes frame)
{
    frame.back() = static_cast<unsigned char>(frame.back() + 1);
    return frame;
}

// The sequence number of a request frame.
inline uint8_t sequenceOf(const Bytes &requestFrame) { return requestFrame.at(2); }

// The payload of a request frame: what lies between its four header bytes and
// its four reserved bytes and checksum (nothing when the frame is too short).
inline Bytes payloadOf(const Bytes &requestFrame)
{
    return requestFrame.size() < 9 ? Bytes{} : Bytes(requestFrame.begin() + 4, requestFrame.end() - 5);
}

class ScriptedTransport : public IBluetoothLEManager {
public:
    // Takes the frame just sent, returns the frames that arrive in answer.
    using Responder = std::function<std::vector<Bytes>(const Bytes &sent)>;

    // --- script ---------------------------------------------------------
    void setSendAccepted(bool accepted) { put(m_sendAccepted, accepted); }
    void queueFrame(Bytes frame) { locked([&] { m_queue.push_back(std::move(frame)); }); }
    // Outcomes of the next waits, in order.
    void scriptWaits(std::initializer_list<bool> outcomes)
    {
        locked([&] { m_waits.insert(m_waits.end(), outcomes.begin(), outcomes.end()); });
    }
    void setResponder(Responder responder) { put(m_responder, std::move(responder)); }
    void setConnectResult(bool connects) { put(m_connects, connects); }
    void setSupported(bool supported) { put(m_supported, supported); }
    void setLocalAddress(std::string address) { put(m_localAddress, std::move(address)); }
    void setScanResult(std::vector<DeviceInfo> devices) { put(m_scanResult, std::move(devices)); }
    // Runs the installed connection-state callback, as a link event would.
    void fireConnectionState(bool connected)
    {
        const std::function<void(bool)> callback = get(m_connCallback);
        if (callback)
            callback(connected);
    }

    // --- record ---------------------------------------------------------
    // Every frame handed to SendData, accepted or not.
    std::vector<Bytes> sent() const { return get(m_sent); }
    // The (reserved1, reserved2) arguments of every SendData call.
    std::vector<std::pair<uint32_t, uint32_t>> sendArguments() const { return get(m_sendArgs); }
    // The (reserved1, reserved2) arguments of every ReceiveData call.
    std::vector<std::pair<uint32_t, uint32_t>> receiveDataArguments() const { return get(m_receiveDataArgs); }
    std::vector<bool> isReadCalls() const { return get(m_isReadCalls); }
    int waitCalls() const { return get(m_waitCalls); }
    int receiveCalls() const { return get(m_receiveCalls); }
    int disconnectCalls() const { return get(m_disconnects); }
    bool hasConnectionCallback() const { return static_cast<bool>(get(m_connCallback)); }

    // --- IBluetoothLEManager ----------------------------------------------
    void ScanForDevices(uint32_t, std::vector<DeviceInfo> &devices) override
    {
        locked([&] { devices.insert(devices.end(), m_scanResult.begin(), m_scanResult.end()); });
    }
    bool ConnectToDevice(const std::string &, const std::string &) override { return get(m_connects); }
    void DisconnectFromDevice() override
    {
        locked([&] {
            ++m_disconnects;
            m_connCallback = nullptr;
        });
    }
    bool SendData(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2) override
    {
        Responder responder;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_sent.push_back(data);
            m_sendArgs.emplace_back(reserved1, reserved2);
            if (!m_sendAccepted)
                return false;
            responder = m_responder;
        }
        if (responder) {
            std::vector<Bytes> answers = responder(data);
            locked([&] { std::move(answers.begin(), answers.end(), std::back_inserter(m_queue)); });
        }
        return true;
    }
    void ReceiveData(uint32_t reserved1, uint32_t reserved2) override
    {
        locked([&] { m_receiveDataArgs.emplace_back(reserved1, reserved2); });
    }
    void GetReceivedData(std::vector<unsigned char> &data) override
    {
        locked([&] {
            ++m_receiveCalls;
            data = m_received;
        });
    }
    void GetLocalBluetoothMacAddress(std::string &address) override
    {
        locked([&] {
            if (!m_localAddress.empty())
                address = m_localAddress;
        });
    }
    bool IsBluetoothLESupported() override { return get(m_supported); }
    bool WaitForDataAndProcess() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_waitCalls;
        bool arrived = !m_queue.empty();
        if (!m_waits.empty()) {
            arrived = m_waits.front();
            m_waits.pop_front();
        }
        if (arrived && !m_queue.empty()) {
            m_received = std::move(m_queue.front());
            m_queue.pop_front();
        }
        return arrived;
    }
    void setIsRead(bool isRead) override { locked([&] { m_isReadCalls.push_back(isRead); }); }
    void ConnectStateCallbackFunc(std::function<void(bool)> callback) override
    {
        put(m_connCallback, std::move(callback));
    }

private:
    // Every member is read and written under m_mutex: tests drive the
    // transport from several threads.
    template <class Action> void locked(Action action) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        action();
    }
    template <class T> T get(const T &member) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return member;
    }
    template <class T> void put(T &member, T value)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        member = std::move(value);
    }

    mutable std::mutex m_mutex;
    bool m_sendAccepted = true;
    bool m_connects = true;
    bool m_supported = true;
    std::string m_localAddress;
    std::vector<DeviceInfo> m_scanResult;
    std::deque<Bytes> m_queue;
    std::deque<bool> m_waits;
    Responder m_responder;
    Bytes m_received;
    std::function<void(bool)> m_connCallback;

    std::vector<Bytes> m_sent;
    std::vector<std::pair<uint32_t, uint32_t>> m_sendArgs;
    std::vector<std::pair<uint32_t, uint32_t>> m_receiveDataArgs;
    std::vector<bool> m_isReadCalls;
    int m_waitCalls = 0;
    int m_receiveCalls = 0;
    int m_disconnects = 0;
};

// Test programs' process-wide Bluetooth manager, in place of the platform's
// (which only the library links): every factory handle forwards to it.
ScriptedTransport &platformTransport();

} // namespace zor_test
