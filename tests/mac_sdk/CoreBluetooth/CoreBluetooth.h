// CoreBluetooth, as the macOS sources use it.
#pragma once

#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>

typedef NS_ENUM(NSInteger, CBManagerState) {
    CBManagerStateUnknown = 0,
    CBManagerStateResetting,
    CBManagerStateUnsupported,
    CBManagerStateUnauthorized,
    CBManagerStatePoweredOff,
    CBManagerStatePoweredOn,
};

typedef NS_OPTIONS(NSUInteger, CBCharacteristicProperties) {
    CBCharacteristicPropertyBroadcast = 0x01,
    CBCharacteristicPropertyRead = 0x02,
    CBCharacteristicPropertyWriteWithoutResponse = 0x04,
    CBCharacteristicPropertyWrite = 0x08,
    CBCharacteristicPropertyNotify = 0x10,
    CBCharacteristicPropertyIndicate = 0x20,
    CBCharacteristicPropertyAuthenticatedSignedWrites = 0x40,
    CBCharacteristicPropertyExtendedProperties = 0x80,
};

typedef NS_ENUM(NSInteger, CBCharacteristicWriteType) {
    CBCharacteristicWriteWithResponse = 0,
    CBCharacteristicWriteWithoutResponse,
};

@class CBCentralManager, CBPeripheral, CBService, CBCharacteristic, CBDescriptor;

@interface CBUUID : NSObject <NSCopying>
@property(nonatomic, readonly) NSString *UUIDString;
+ (CBUUID *)UUIDWithString:(NSString *)theString;
@end

@interface CBAttribute : NSObject
@property(readonly, nonatomic) CBUUID *UUID;
@end

@interface CBService : CBAttribute
@property(assign, readonly, nonatomic) CBPeripheral *peripheral;
@property(readonly, nonatomic) BOOL isPrimary;
@property(retain, readonly) NSArray<CBCharacteristic *> *characteristics;
@end

@interface CBCharacteristic : CBAttribute
@property(assign, readonly, nonatomic) CBService *service;
@property(readonly, nonatomic) CBCharacteristicProperties properties;
@property(retain, readonly) NSData *value;
@property(readonly) BOOL isNotifying;
@end

@protocol CBPeripheralDelegate;

@interface CBPeer : NSObject <NSCopying>
@property(readonly, nonatomic) NSUUID *identifier;
@end

@interface CBPeripheral : CBPeer
@property(assign, nonatomic) id<CBPeripheralDelegate> delegate;
@property(retain, readonly) NSString *name;
@property(retain, readonly) NSArray<CBService *> *services;
- (void)discoverServices:(NSArray<CBUUID *> *)serviceUUIDs;
- (void)discoverCharacteristics:(NSArray<CBUUID *> *)characteristicUUIDs forService:(CBService *)service;
- (void)writeValue:(NSData *)data
    forCharacteristic:(CBCharacteristic *)characteristic
                 type:(CBCharacteristicWriteType)type;
- (void)setNotifyValue:(BOOL)enabled forCharacteristic:(CBCharacteristic *)characteristic;
@end

@protocol CBPeripheralDelegate <NSObject>
@optional
- (void)peripheral:(CBPeripheral *)peripheral didDiscoverServices:(NSError *)error;
- (void)peripheral:(CBPeripheral *)peripheral
    didDiscoverCharacteristicsForService:(CBService *)service
                                   error:(NSError *)error;
- (void)peripheral:(CBPeripheral *)peripheral
    didUpdateValueForCharacteristic:(CBCharacteristic *)characteristic
                              error:(NSError *)error;
- (void)peripheral:(CBPeripheral *)peripheral
    didWriteValueForCharacteristic:(CBCharacteristic *)characteristic
                             error:(NSError *)error;
- (void)peripheral:(CBPeripheral *)peripheral
    didUpdateNotificationStateForCharacteristic:(CBCharacteristic *)characteristic
                                          error:(NSError *)error;
- (void)peripheral:(CBPeripheral *)peripheral
    didDiscoverDescriptorsForCharacteristic:(CBCharacteristic *)characteristic
                                      error:(NSError *)error;
@end

@protocol CBCentralManagerDelegate <NSObject>
@required
- (void)centralManagerDidUpdateState:(CBCentralManager *)central;
@optional
- (void)centralManager:(CBCentralManager *)central
    didDiscoverPeripheral:(CBPeripheral *)peripheral
        advertisementData:(NSDictionary<NSString *, id> *)advertisementData
                     RSSI:(NSNumber *)RSSI;
- (void)centralManager:(CBCentralManager *)central didConnectPeripheral:(CBPeripheral *)peripheral;
- (void)centralManager:(CBCentralManager *)central
    didFailToConnectPeripheral:(CBPeripheral *)peripheral
                         error:(NSError *)error;
- (void)centralManager:(CBCentralManager *)central
    didDisconnectPeripheral:(CBPeripheral *)peripheral
                      error:(NSError *)error;
@end

@interface CBManager : NSObject
@property(nonatomic, assign, readonly) CBManagerState state;
@end

@interface CBCentralManager : CBManager
@property(nonatomic, assign) id<CBCentralManagerDelegate> delegate;
- (instancetype)initWithDelegate:(id<CBCentralManagerDelegate>)delegate
                           queue:(dispatch_queue_t)queue
                         options:(NSDictionary<NSString *, id> *)options;
- (void)scanForPeripheralsWithServices:(NSArray<CBUUID *> *)serviceUUIDs
                               options:(NSDictionary<NSString *, id> *)options;
- (void)stopScan;
- (void)connectPeripheral:(CBPeripheral *)peripheral options:(NSDictionary<NSString *, id> *)options;
- (void)cancelPeripheralConnection:(CBPeripheral *)peripheral;
@end
