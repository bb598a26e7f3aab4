#include "ble_transport/mac/mac_ble_manager_bridge.h"

#import "ble_transport/mac/mac_core_bluetooth_imp.h"

#include "ble_transport/host_address.h"

namespace {

// The host's "Bluetooth" address is the hardware address of this interface.
constexpr char kHostInterface[] = "en0";

NSString *nsString(const std::string &value) { return [NSString stringWithUTF8String:value.c_str()]; }

} // namespace

MacBLEManagerBridge::~MacBLEManagerBridge()
{
    [_cbimp detach];
    _cbimp = nil;
}

void MacBLEManagerBridge::start(ble::PlatformEvents &events)
{
    _cbimp = [[MacCoreBluetoothImp alloc] initWithDelegate:&events];
}

void MacBLEManagerBridge::startScan() { [_cbimp startScanning]; }

void MacBLEManagerBridge::stopScan() { [_cbimp stopScanning]; }

void MacBLEManagerBridge::connect(const std::string &peripheral) { [_cbimp startConnect:nsString(peripheral)]; }

void MacBLEManagerBridge::disconnect(const std::string &peripheral) { [_cbimp stopConnect:nsString(peripheral)]; }

void MacBLEManagerBridge::discoverServices(const std::string &peripheral)
{
    [_cbimp discoverServices:nsString(peripheral)];
}

void MacBLEManagerBridge::discoverCharacteristics(const std::string &peripheral, const std::string &service)
{
    [_cbimp discoverCharacteristics:nsString(peripheral) service:nsString(service)];
}

void MacBLEManagerBridge::subscribe(const std::string &peripheral, const std::string &characteristic)
{
    [_cbimp subscribe:nsString(peripheral) characteristic:nsString(characteristic)];
}

void MacBLEManagerBridge::write(const std::string &peripheral, const std::string &characteristic,
                                const ble::Bytes &data)
{
    NSData *bytes = [NSData dataWithBytes:data.data() length:data.size()];
    [_cbimp sendMessage:nsString(peripheral) characteristic:nsString(characteristic) data:bytes];
}

std::optional<std::string> MacBLEManagerBridge::hostAddress()
{
    return interfaceAddress(hostInterfaces(), kHostInterface);
}
