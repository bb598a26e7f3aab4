// The CoreBluetooth delegate: owns the central manager and its serial queue,
// keeps the CoreBluetooth objects behind the shared central's identifiers,
// and reports every delegate call as one of the platform events, on the
// central manager's queue.
//
// Identifiers: a peripheral is its `identifier` text; a service is
// "<UUID>@<index in the peripheral's services>"; a characteristic is
// "<UUID>@<service index>/<index in the service's characteristics>".
#pragma once

#import <CoreBluetooth/CoreBluetooth.h>
#import <Foundation/Foundation.h>

#include "ble_transport/platform_central.h"

@interface MacCoreBluetoothImp : NSObject <CBCentralManagerDelegate, CBPeripheralDelegate> {
    // Where the events go; owned elsewhere. Read on the queue only.
    ble::PlatformEvents *_delegate;
    dispatch_queue_t _queue;
    CBCentralManager *_centralManager;
    // The objects behind the shared central's identifiers, by `identifier`.
    NSMutableDictionary<NSUUID *, CBPeripheral *> *_discoveredPeripherals;
    NSMutableDictionary<NSUUID *, CBPeripheral *> *_connectedPeripherals;
}

// Creates the central manager on a serial queue of its own; its first state
// report follows on that queue.
- (instancetype)initWithDelegate:(ble::PlatformEvents *)delegate;
// Stops every later report. Not to be called on the queue.
- (void)detach;

- (void)startScanning;
- (void)stopScanning;
- (void)startConnect:(NSString *)peripheral;
- (void)stopConnect:(NSString *)peripheral;
- (void)discoverServices:(NSString *)peripheral;
- (void)discoverCharacteristics:(NSString *)peripheral service:(NSString *)service;
- (void)subscribe:(NSString *)peripheral characteristic:(NSString *)characteristic;
- (void)sendMessage:(NSString *)peripheral characteristic:(NSString *)characteristic data:(NSData *)data;

@end
