#include "ble_transport/mac/mac_ble_manager_bridge.h"

#import "ble_transport/mac/mac_core_bluetooth_imp.h"

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>

#include <algorithm>

namespace {

using std::chrono::milliseconds;

// The longest run-loop cycle of one wait.
constexpr milliseconds kRunLoopCycle{100};
// The host's "Bluetooth" address is the hardware address of this interface.
constexpr char kHostInterface[] = "en0";

// Set while the main queue runs one of the central's events.
thread_local bool t_delivering = false;

NSString *nsString(const std::string &value) { return [NSString stringWithUTF8String:value.c_str()]; }

} // namespace

// The shared logic reports on the central manager's queue; the manager
// hears of each event on the main queue, so that its flags change on the
// thread its waits let run.
class MacBLEManagerBridge::MainQueueListener final : public Listener {
public:
    explicit MainQueueListener(Listener &target) : m_target(target) {}

    void onCentralManagerUpdateState() override
    {
        post([](Listener &target) { target.onCentralManagerUpdateState(); });
    }
    void onPeripheralConnectCompleted() override
    {
        post([](Listener &target) { target.onPeripheralConnectCompleted(); });
    }
    void onPeripheralDisconnect() override
    {
        post([](Listener &target) { target.onPeripheralDisconnect(); });
    }
    void onPeripheralNotified(const Bytes &data) override
    {
        post([data](Listener &target) { target.onPeripheralNotified(data); });
    }

private:
    template <typename Event>
    void post(Event event)
    {
        Listener *target = &m_target;
        dispatch_async(dispatch_get_main_queue(), ^{
            t_delivering = true;
            event(*target);
            t_delivering = false;
        });
    }

    Listener &m_target;
};

MacBLEManagerBridge::MacBLEManagerBridge() = default;

MacBLEManagerBridge::~MacBLEManagerBridge()
{
    stopConnect();
    [_cbimp detach];
    _cbimp = nil;
}

void MacBLEManagerBridge::start(Listener &listener)
{
    m_mainQueue = std::make_unique<MainQueueListener>(listener);
    CentralCore::start(*m_mainQueue);
}

void MacBLEManagerBridge::waitForEvents(milliseconds limit)
{
    const milliseconds cycle = std::min(limit, kRunLoopCycle);
    const CFTimeInterval seconds = std::chrono::duration<double>(cycle).count();
    // Returns after the first event it handled, or at the end of the cycle.
    const SInt32 outcome = CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, true);
    // A run loop with nothing to serve (a thread other than the main one)
    // returns at once; the cycle then waits for the central's own events.
    if (outcome == kCFRunLoopRunFinished)
        CentralCore::waitForEvents(cycle);
}

bool MacBLEManagerBridge::isEventThread() const { return t_delivering; }

void MacBLEManagerBridge::platformStart() { _cbimp = [[MacCoreBluetoothImp alloc] initWithDelegate:this]; }

void MacBLEManagerBridge::platformStartScan() { [_cbimp startScanning]; }

void MacBLEManagerBridge::platformStopScan() { [_cbimp stopScanning]; }

void MacBLEManagerBridge::platformConnect(const std::string &peripheral)
{
    [_cbimp startConnect:nsString(peripheral)];
}

void MacBLEManagerBridge::platformCancelConnect(const std::string &peripheral)
{
    [_cbimp stopConnect:nsString(peripheral)];
}

void MacBLEManagerBridge::platformDiscoverServices(const std::string &peripheral)
{
    [_cbimp discoverServices:nsString(peripheral)];
}

void MacBLEManagerBridge::platformDiscoverCharacteristics(const std::string &peripheral,
                                                          const std::string &service)
{
    [_cbimp discoverCharacteristics:nsString(peripheral) service:nsString(service)];
}

void MacBLEManagerBridge::platformSubscribe(const std::string &peripheral, const std::string &characteristic)
{
    [_cbimp subscribe:nsString(peripheral) characteristic:nsString(characteristic)];
}

void MacBLEManagerBridge::platformWrite(const std::string &peripheral, const std::string &characteristic,
                                        const Bytes &data)
{
    NSData *bytes = [NSData dataWithBytes:data.data() length:data.size()];
    [_cbimp sendMessage:nsString(peripheral) characteristic:nsString(characteristic) data:bytes];
}

std::optional<std::string> MacBLEManagerBridge::platformHostAddress()
{
    return interfaceAddress(hostInterfaces(), kHostInterface);
}
