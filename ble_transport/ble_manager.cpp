// The factory of transport handles and the forwarding they do.
#include "ble_transport/ble_manager.h"

#include "ble_transport/platform_manager.h"
#include "support/log.h"

#include <utility>

namespace {
constexpr char kLogModule[] = "BluetoothLEManager";
} // namespace

IBluetoothLEManager *IBluetoothLEManager::CreateBluetoothLEManager() { return new BluetoothLEManagerWin(); }

void IBluetoothLEManager::SendData1(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2,
                                    std::function<void(bool)> onSent)
{
    ZOR_LOG("SendData1, size: %d", static_cast<int>(data.size()));
    SendData(data, reserved1, reserved2);
    if (onSent)
        onSent(true);
}

void BluetoothLEManagerWin::ScanForDevices(uint32_t durationMs, std::vector<DeviceInfo> &devices)
{
    platformBluetoothManager().ScanForDevices(durationMs, devices);
}

bool BluetoothLEManagerWin::ConnectToDevice(const std::string &name, const std::string &address)
{
    return platformBluetoothManager().ConnectToDevice(name, address);
}

void BluetoothLEManagerWin::DisconnectFromDevice() { platformBluetoothManager().DisconnectFromDevice(); }

bool BluetoothLEManagerWin::SendData(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2)
{
    return platformBluetoothManager().SendData(data, reserved1, reserved2);
}

void BluetoothLEManagerWin::ReceiveData(uint32_t reserved1, uint32_t reserved2)
{
    platformBluetoothManager().ReceiveData(reserved1, reserved2);
}

void BluetoothLEManagerWin::GetReceivedData(std::vector<unsigned char> &data)
{
    platformBluetoothManager().GetReceivedData(data);
}

void BluetoothLEManagerWin::GetLocalBluetoothMacAddress(std::string &address)
{
    platformBluetoothManager().GetLocalBluetoothMacAddress(address);
}

bool BluetoothLEManagerWin::IsBluetoothLESupported() { return platformBluetoothManager().IsBluetoothLESupported(); }

bool BluetoothLEManagerWin::WaitForDataAndProcess() { return platformBluetoothManager().WaitForDataAndProcess(); }

void BluetoothLEManagerWin::setIsRead(bool isRead) { platformBluetoothManager().setIsRead(isRead); }

void BluetoothLEManagerWin::ConnectStateCallbackFunc(std::function<void(bool)> callback)
{
    platformBluetoothManager().ConnectStateCallbackFunc(std::move(callback));
}

void BluetoothLEManagerWin::SendData1(const std::vector<unsigned char> &data, uint32_t reserved1, uint32_t reserved2,
                                      std::function<void(bool)> onSent)
{
    platformBluetoothManager().SendData1(data, reserved1, reserved2, std::move(onSent));
}
