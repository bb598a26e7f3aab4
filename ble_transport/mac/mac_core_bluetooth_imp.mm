#import "ble_transport/mac/mac_core_bluetooth_imp.h"

#include "support/log.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr char kLogModule[] = "MacCoreBluetoothImp";
constexpr char kQueueLabel[] = "org.zor.focuser.corebluetooth";

std::string text(NSString *string)
{
    const char *utf8 = string.UTF8String;
    return utf8 ? std::string(utf8) : std::string();
}

ble::Error describe(NSError *error)
{
    if (!error)
        return std::nullopt;
    return text(error.localizedDescription);
}

std::string identifierOf(CBPeripheral *peripheral) { return text(peripheral.identifier.UUIDString); }

// The indices after the last '@' of a service ("@s") or characteristic
// ("@s/c") identifier; false when there are fewer than `wanted`.
bool parseIndices(NSString *identifier, int wanted, NSUInteger *service, NSUInteger *characteristic)
{
    const NSRange at = [identifier rangeOfString:@"@" options:NSBackwardsSearch];
    if (at.location == NSNotFound)
        return false;
    unsigned long first = 0;
    unsigned long second = 0;
    const char *indices = [identifier substringFromIndex:at.location + 1].UTF8String;
    if (!indices || std::sscanf(indices, "%lu/%lu", &first, &second) < wanted)
        return false;
    *service = first;
    *characteristic = second;
    return true;
}

} // namespace

@implementation MacCoreBluetoothImp

- (instancetype)initWithDelegate:(ble::PlatformEvents *)delegate
{
    self = [super init];
    if (!self)
        return nil;
    _delegate = delegate;
    _discoveredPeripherals = [NSMutableDictionary dictionary];
    _connectedPeripherals = [NSMutableDictionary dictionary];
    _queue = dispatch_queue_create(kQueueLabel, DISPATCH_QUEUE_SERIAL);
    _centralManager = [[CBCentralManager alloc] initWithDelegate:self queue:_queue options:nil];
    return self;
}

- (void)detach
{
    dispatch_sync(_queue, ^{
        self->_delegate = nullptr;
    });
}

// CoreBluetooth is driven from its own queue only, so that calls and the
// delegate's reports never interleave.
- (void)onQueue:(dispatch_block_t)work
{
    dispatch_async(_queue, work);
}

// --- looking up the objects behind identifiers --------------------------------

- (CBPeripheral *)peripheralWithIdentifier:(NSString *)identifier
{
    NSUUID *key = [[NSUUID alloc] initWithUUIDString:identifier];
    if (!key)
        return nil;
    @synchronized(_connectedPeripherals) {
        CBPeripheral *connected = [_connectedPeripherals objectForKey:key];
        if (connected)
            return connected;
    }
    @synchronized(_discoveredPeripherals) {
        return [_discoveredPeripherals objectForKey:key];
    }
}

- (CBService *)service:(NSString *)identifier of:(CBPeripheral *)peripheral
{
    NSUInteger index = 0;
    NSUInteger unused = 0;
    if (!parseIndices(identifier, 1, &index, &unused) || index >= peripheral.services.count)
        return nil;
    return [peripheral.services objectAtIndex:index];
}

- (CBCharacteristic *)characteristic:(NSString *)identifier of:(CBPeripheral *)peripheral
{
    NSUInteger service = 0;
    NSUInteger index = 0;
    if (!parseIndices(identifier, 2, &service, &index) || service >= peripheral.services.count)
        return nil;
    NSArray<CBCharacteristic *> *characteristics = [peripheral.services objectAtIndex:service].characteristics;
    return index < characteristics.count ? [characteristics objectAtIndex:index] : nil;
}

- (std::string)identifierOfService:(CBService *)service peripheral:(CBPeripheral *)peripheral
{
    const NSUInteger index = [peripheral.services indexOfObjectIdenticalTo:service];
    if (index == NSNotFound)
        return std::string();
    return text([NSString stringWithFormat:@"%@@%lu", service.UUID.UUIDString, (unsigned long)index]);
}

// Empty for a characteristic of no known service: it is then no one's write
// characteristic.
- (std::string)identifierOfCharacteristic:(CBCharacteristic *)characteristic
                               peripheral:(CBPeripheral *)peripheral
{
    CBService *service = characteristic.service;
    const NSUInteger serviceIndex = service ? [peripheral.services indexOfObjectIdenticalTo:service] : NSNotFound;
    if (serviceIndex == NSNotFound)
        return std::string();
    const NSUInteger index = [service.characteristics indexOfObjectIdenticalTo:characteristic];
    if (index == NSNotFound)
        return std::string();
    return text([NSString stringWithFormat:@"%@@%lu/%lu", characteristic.UUID.UUIDString,
                                           (unsigned long)serviceIndex, (unsigned long)index]);
}

// --- requests from the bridge -------------------------------------------------

- (void)startScanning
{
    [self onQueue:^{
        // The objects kept are those the shared table keeps at a scan's start:
        // the connected peripherals'.
        @synchronized(self->_discoveredPeripherals) {
            NSMutableArray<NSUUID *> *stale = [NSMutableArray array];
            @synchronized(self->_connectedPeripherals) {
                for (NSUUID *key in self->_discoveredPeripherals) {
                    if (![self->_connectedPeripherals objectForKey:key])
                        [stale addObject:key];
                }
            }
            [self->_discoveredPeripherals removeObjectsForKeys:stale];
        }
        // No service filter: the application picks the focuser by name.
        [self->_centralManager scanForPeripheralsWithServices:nil options:nil];
    }];
}

- (void)stopScanning
{
    // CoreBluetooth stops at once and says nothing more.
    [self onQueue:^{
        [self->_centralManager stopScan];
        if (self->_delegate)
            self->_delegate->onScanStopped();
    }];
}

- (void)startConnect:(NSString *)identifier
{
    [self onQueue:^{
        CBPeripheral *peripheral = [self peripheralWithIdentifier:identifier];
        if (!peripheral) {
            ZOR_LOG_AS("startConnect:", "startConnect: peripheral is nil!");
            return;
        }
        [self->_centralManager connectPeripheral:peripheral options:nil];
    }];
}

- (void)stopConnect:(NSString *)identifier
{
    [self onQueue:^{
        CBPeripheral *peripheral = [self peripheralWithIdentifier:identifier];
        if (peripheral)
            [self->_centralManager cancelPeripheralConnection:peripheral];
        // The cancel is taken at once; the disconnect, if a link was up, follows.
        if (self->_delegate)
            self->_delegate->onDisconnectAnswered(text(identifier));
    }];
}

- (void)discoverServices:(NSString *)identifier
{
    [self onQueue:^{
        [[self peripheralWithIdentifier:identifier] discoverServices:nil];
    }];
}

- (void)discoverCharacteristics:(NSString *)identifier service:(NSString *)serviceIdentifier
{
    [self onQueue:^{
        CBPeripheral *peripheral = [self peripheralWithIdentifier:identifier];
        CBService *service = [self service:serviceIdentifier of:peripheral];
        if (service)
            [peripheral discoverCharacteristics:nil forService:service];
    }];
}

- (void)subscribe:(NSString *)identifier characteristic:(NSString *)characteristicIdentifier
{
    [self onQueue:^{
        CBPeripheral *peripheral = [self peripheralWithIdentifier:identifier];
        CBCharacteristic *characteristic = [self characteristic:characteristicIdentifier of:peripheral];
        if (characteristic)
            [peripheral setNotifyValue:YES forCharacteristic:characteristic];
    }];
}

- (void)sendMessage:(NSString *)identifier characteristic:(NSString *)characteristicIdentifier data:(NSData *)data
{
    [self onQueue:^{
        CBPeripheral *peripheral = [self peripheralWithIdentifier:identifier];
        CBCharacteristic *characteristic = [self characteristic:characteristicIdentifier of:peripheral];
        if (!characteristic) {
            ZOR_LOG_AS("sendMessage:data:", "Error, NOT found writable characteristic");
            return;
        }
        [peripheral writeValue:data forCharacteristic:characteristic type:CBCharacteristicWriteWithResponse];
    }];
}

// --- CBCentralManagerDelegate -------------------------------------------------

- (void)centralManagerDidUpdateState:(CBCentralManager *)central
{
    // With the radio off the links are gone, and no disconnect reports
    // follow: their peripherals are no longer held for them.
    if (central.state == CBManagerStatePoweredOff) {
        @synchronized(_connectedPeripherals) {
            [_connectedPeripherals removeAllObjects];
        }
    }
    if (_delegate)
        _delegate->onRadioState(static_cast<ble::RadioState>(central.state));
}

- (void)centralManager:(CBCentralManager *)central
    didDiscoverPeripheral:(CBPeripheral *)peripheral
        advertisementData:(NSDictionary<NSString *, id> *)advertisementData
                     RSSI:(NSNumber *)RSSI
{
    @synchronized(_discoveredPeripherals) {
        [_discoveredPeripherals setObject:peripheral forKey:peripheral.identifier];
    }
    ble::Advertisement seen;
    seen.id = identifierOf(peripheral);
    seen.name = text(peripheral.name);
    seen.rssi = static_cast<int16_t>(RSSI.integerValue);
    if (_delegate)
        _delegate->onDiscovered(seen);
}

- (void)centralManager:(CBCentralManager *)central didConnectPeripheral:(CBPeripheral *)peripheral
{
    peripheral.delegate = self;
    @synchronized(_connectedPeripherals) {
        [_connectedPeripherals setObject:peripheral forKey:peripheral.identifier];
    }
    if (_delegate)
        _delegate->onConnected(identifierOf(peripheral));
}

- (void)centralManager:(CBCentralManager *)central
    didFailToConnectPeripheral:(CBPeripheral *)peripheral
                         error:(NSError *)error
{
    if (_delegate)
        _delegate->onConnectFailed(identifierOf(peripheral), describe(error).value_or("(null)"));
}

- (void)centralManager:(CBCentralManager *)central
    didDisconnectPeripheral:(CBPeripheral *)peripheral
                      error:(NSError *)error
{
    @synchronized(_connectedPeripherals) {
        [_connectedPeripherals removeObjectForKey:peripheral.identifier];
    }
    // Its services and characteristics go with it.
    peripheral.delegate = nil;
    if (_delegate)
        _delegate->onDisconnected(identifierOf(peripheral), describe(error));
}

// --- CBPeripheralDelegate -----------------------------------------------------

- (void)peripheral:(CBPeripheral *)peripheral didDiscoverServices:(NSError *)error
{
    std::vector<ble::GattService> services;
    for (CBService *service in peripheral.services)
        services.push_back({[self identifierOfService:service peripheral:peripheral], text(service.UUID.UUIDString)});
    if (_delegate)
        _delegate->onServicesDiscovered(identifierOf(peripheral), services, describe(error));
}

- (void)peripheral:(CBPeripheral *)peripheral
    didDiscoverCharacteristicsForService:(CBService *)service
                                   error:(NSError *)error
{
    std::vector<ble::GattCharacteristic> characteristics;
    for (CBCharacteristic *characteristic in service.characteristics) {
        const CBCharacteristicProperties properties = characteristic.properties;
        characteristics.push_back({[self identifierOfCharacteristic:characteristic peripheral:peripheral],
                                   text(characteristic.UUID.UUIDString),
                                   (properties & CBCharacteristicPropertyWrite) != 0,
                                   (properties & CBCharacteristicPropertyNotify) != 0});
    }
    if (_delegate)
        _delegate->onCharacteristicsDiscovered(identifierOf(peripheral), characteristics, describe(error));
}

- (void)peripheral:(CBPeripheral *)peripheral
    didUpdateNotificationStateForCharacteristic:(CBCharacteristic *)characteristic
                                          error:(NSError *)error
{
    if (_delegate)
        _delegate->onNotificationState(identifierOf(peripheral),
                                       [self identifierOfCharacteristic:characteristic peripheral:peripheral],
                                       characteristic.isNotifying, describe(error));
}

- (void)peripheral:(CBPeripheral *)peripheral
    didWriteValueForCharacteristic:(CBCharacteristic *)characteristic
                             error:(NSError *)error
{
    if (_delegate)
        _delegate->onWritten(describe(error));
}

- (void)peripheral:(CBPeripheral *)peripheral
    didUpdateValueForCharacteristic:(CBCharacteristic *)characteristic
                              error:(NSError *)error
{
    NSData *value = characteristic.value;
    const auto *bytes = static_cast<const unsigned char *>(value.bytes);
    const ble::Bytes copied = bytes ? ble::Bytes(bytes, bytes + value.length) : ble::Bytes();
    if (_delegate)
        _delegate->onValue(identifierOf(peripheral), [self identifierOfCharacteristic:characteristic peripheral:peripheral],
                           copied, describe(error));
}

@end
