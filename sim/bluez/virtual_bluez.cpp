#include "sim/bluez/virtual_bluez.h"

#include <algorithm>
#include <stdexcept>

namespace zorsim {
namespace {

using namespace std::chrono_literals;

constexpr char kAdapterPath[] = "/org/bluez/hci0";
constexpr char kAdapter[] = "org.bluez.Adapter1";
constexpr char kDevice[] = "org.bluez.Device1";
constexpr char kService[] = "org.bluez.GattService1";
constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
constexpr char kServiceUuid[] = "7c3e0001-91b2-4d5a-8e61-2f04c3a9d7b5";
constexpr char kCharacteristicUuid[] = "7c3e0002-91b2-4d5a-8e61-2f04c3a9d7b5";

// How long the radio takes: between advertisements of neighbouring
// focusers, to set up a link, to resolve its services, and between the
// frames of one answer (so that the host sees each one).
constexpr auto kAdvertisingStagger = 20ms;
constexpr auto kConnectTime = 30ms;
constexpr auto kResolveTime = 20ms;
constexpr auto kFrameGap = 20ms;

using Options = std::map<std::string, sdbus::Variant>;

[[noreturn]] void fail(const char *name, const char *message) { throw sdbus::Error(name, message); }

std::string devicePath(const std::string &address)
{
    std::string path = std::string(kAdapterPath) + "/dev_" + address;
    std::replace(path.begin(), path.end(), ':', '_');
    return path;
}

} // namespace

struct VirtualBluez::Peripheral {
    Peripheral(const BlePeripheralConfig &c, int index, Nanos now)
        : firmware(c.device, index, now), address(c.address), rssi(static_cast<int16_t>(c.rssi)),
          path(devicePath(c.address))
    {
    }

    std::string name(Nanos now) { return firmware.model().state(now).bleName; }

    BleFirmware firmware;
    std::string address;
    int16_t rssi;
    std::string path;
    std::string advertisedName;
    std::unique_ptr<sdbus::IObject> device; // present once discovered
    std::unique_ptr<sdbus::IObject> service;
    std::unique_ptr<sdbus::IObject> characteristic;
    std::optional<sdbus::Result<>> pendingConnect;
    bool connected = false;
    bool servicesResolved = false;
    bool notifying = false;
    uint64_t link = 0; // counts links; work scheduled for an old one is dropped
    std::vector<uint8_t> value;
    bool vanishOnConnect = false;
    bool notifyStaysOff = false;
};

VirtualBluez::VirtualBluez(sdbus::IConnection &connection, Scheduler &scheduler,
                           const std::vector<BlePeripheralConfig> &peripherals, const std::string &adapterAddress)
    : connection_(connection), scheduler_(scheduler), adapterAddress_(adapterAddress)
{
    for (const BlePeripheralConfig &c : peripherals)
        peripherals_.push_back(std::make_unique<Peripheral>(c, static_cast<int>(peripherals_.size()), now()));
    root_ = sdbus::createObject(connection_, "/");
    root_->addObjectManager();
    registerAdapter();
}

VirtualBluez::~VirtualBluez() = default;

// ---------------------------------------------------------------- adapter

void VirtualBluez::registerAdapter()
{
    adapter_ = sdbus::createObject(connection_, kAdapterPath);
    sdbus::IObject &a = *adapter_;
    a.registerMethod("StartDiscovery").onInterface(kAdapter).implementedAs([this] { startDiscovery(); });
    a.registerMethod("StopDiscovery").onInterface(kAdapter).implementedAs([this] { stopDiscovery(); });
    a.registerMethod("SetDiscoveryFilter").onInterface(kAdapter).implementedAs([this](const Options &) {
        if (!powered_)
            fail("org.bluez.Error.NotReady", "Resource Not Ready");
    });
    a.registerProperty("Address").onInterface(kAdapter).withGetter([this] { return adapterAddress_; });
    a.registerProperty("AddressType").onInterface(kAdapter).withGetter([] { return std::string("public"); });
    a.registerProperty("Name").onInterface(kAdapter).withGetter([] { return std::string("zor-bluez-sim"); });
    a.registerProperty("Powered")
        .onInterface(kAdapter)
        .withGetter([this] { return powered_; })
        .withSetter([this](const bool &on) { setPowered(on); });
    a.registerProperty("Discovering").onInterface(kAdapter).withGetter([this] { return discovering_; });
    a.finishRegistration();
}

void VirtualBluez::setPowered(bool on)
{
    if (on == powered_)
        return;
    if (!on) {
        for (auto &p : peripherals_)
            tearDown(*p);
        if (discovering_)
            setDiscovering(false);
    }
    powered_ = on;
    adapter_->emitPropertiesChangedSignal(kAdapter, {"Powered"});
}

void VirtualBluez::setDiscovering(bool on)
{
    discovering_ = on;
    ++scan_;
    adapter_->emitPropertiesChangedSignal(kAdapter, {"Discovering"});
}

// Each focuser not connected advertises shortly after discovery starts: a
// new one appears as a device object, a known one reports its RSSI again.
void VirtualBluez::startDiscovery()
{
    if (!powered_)
        fail("org.bluez.Error.NotReady", "Resource Not Ready");
    // BlueZ keeps a discovery per client: only the same client may not start
    // twice. Another one (or a program started after one that never stopped
    // its own) joins, and the focusers advertise again for it.
    const std::string client = adapter_->getCurrentlyProcessedMessage()->getSender();
    if (discovering_ && client == discoveryClient_)
        fail("org.bluez.Error.InProgress", "Operation already in progress");
    discoveryClient_ = client;
    if (discovering_)
        ++scan_;
    else
        setDiscovering(true);
    auto delay = kAdvertisingStagger;
    for (auto &p : peripherals_) {
        Peripheral *peripheral = p.get();
        const uint64_t scan = scan_;
        scheduler_.after(delay, [this, peripheral, scan] {
            if (discovering_ && scan == scan_ && !peripheral->connected)
                advertise(*peripheral);
        });
        delay += kAdvertisingStagger;
    }
}

void VirtualBluez::stopDiscovery()
{
    if (!discovering_)
        fail("org.bluez.Error.Failed", "No discovery started");
    setDiscovering(false);
}

void VirtualBluez::advertise(Peripheral &p)
{
    if (!p.firmware.model().powered())
        return;
    const std::string name = p.name(now());
    if (!p.device) {
        p.advertisedName = name;
        registerDevice(p);
        p.device->emitInterfacesAddedSignal();
        return;
    }
    std::vector<std::string> changed{"RSSI"};
    if (name != p.advertisedName) {
        p.advertisedName = name; // renamed over the link
        changed.insert(changed.end(), {"Name", "Alias"});
    }
    p.device->emitPropertiesChangedSignal(kDevice, changed);
}

// ---------------------------------------------------------------- devices

void VirtualBluez::registerDevice(Peripheral &p)
{
    p.device = sdbus::createObject(connection_, p.path);
    sdbus::IObject &d = *p.device;
    Peripheral *peripheral = &p;
    d.registerMethod("Connect").onInterface(kDevice).implementedAs(
        [this, peripheral](sdbus::Result<> &&result) { connect(*peripheral, std::move(result)); });
    d.registerMethod("Disconnect").onInterface(kDevice).implementedAs([this, peripheral] { tearDown(*peripheral); });
    d.registerProperty("Address").onInterface(kDevice).withGetter([peripheral] { return peripheral->address; });
    d.registerProperty("AddressType").onInterface(kDevice).withGetter([] { return std::string("public"); });
    d.registerProperty("Name").onInterface(kDevice).withGetter([peripheral] { return peripheral->advertisedName; });
    d.registerProperty("Alias").onInterface(kDevice).withGetter([peripheral] { return peripheral->advertisedName; });
    d.registerProperty("Adapter").onInterface(kDevice).withGetter([] { return sdbus::ObjectPath(kAdapterPath); });
    d.registerProperty("RSSI").onInterface(kDevice).withGetter([peripheral] { return peripheral->rssi; });
    d.registerProperty("UUIDs").onInterface(kDevice).withGetter([] {
        return std::vector<std::string>{kServiceUuid};
    });
    d.registerProperty("Paired").onInterface(kDevice).withGetter([] { return false; });
    d.registerProperty("Connected").onInterface(kDevice).withGetter([peripheral] { return peripheral->connected; });
    d.registerProperty("ServicesResolved").onInterface(kDevice).withGetter([peripheral] {
        return peripheral->servicesResolved;
    });
    d.finishRegistration();
}

// Connect answers once the link is up; the services resolve a moment later.
void VirtualBluez::connect(Peripheral &p, sdbus::Result<> &&result)
{
    if (!powered_)
        return result.returnError(sdbus::Error("org.bluez.Error.NotReady", "Resource Not Ready"));
    if (p.connected)
        return result.returnError(sdbus::Error("org.bluez.Error.AlreadyConnected", "Already Connected"));
    if (p.pendingConnect)
        return result.returnError(sdbus::Error("org.bluez.Error.InProgress", "In Progress"));
    p.pendingConnect = std::move(result);
    ++p.link;
    onLink(p, kConnectTime, [this, &p] { linkUp(p); });
}

void VirtualBluez::linkUp(Peripheral &p)
{
    p.connected = true;
    p.firmware.linkUp();
    p.device->emitPropertiesChangedSignal(kDevice, {"Connected"});
    p.pendingConnect->returnResults();
    p.pendingConnect.reset();
    if (p.vanishOnConnect)
        return vanish(p);
    onLink(p, kResolveTime, [this, &p] { resolveServices(p); });
}

void VirtualBluez::resolveServices(Peripheral &p)
{
    registerGatt(p);
    p.service->emitInterfacesAddedSignal();
    p.characteristic->emitInterfacesAddedSignal();
    p.servicesResolved = true;
    p.device->emitPropertiesChangedSignal(kDevice, {"ServicesResolved"});
}

// The focuser's service and its one characteristic, fresh for each link.
void VirtualBluez::registerGatt(Peripheral &p)
{
    const std::string servicePath = p.path + "/service000a";
    p.service = sdbus::createObject(connection_, servicePath);
    p.service->registerProperty("UUID").onInterface(kService).withGetter([] { return std::string(kServiceUuid); });
    p.service->registerProperty("Primary").onInterface(kService).withGetter([] { return true; });
    p.service->registerProperty("Device").onInterface(kService).withGetter([&p] { return sdbus::ObjectPath(p.path); });
    p.service->finishRegistration();

    p.characteristic = sdbus::createObject(connection_, servicePath + "/char000b");
    sdbus::IObject &c = *p.characteristic;
    c.registerMethod("ReadValue").onInterface(kCharacteristic).implementedAs([](const Options &) {
        fail("org.bluez.Error.NotPermitted", "Read not permitted");
        return std::vector<uint8_t>();
    });
    c.registerMethod("WriteValue")
        .onInterface(kCharacteristic)
        .implementedAs([this, &p](const std::vector<uint8_t> &frame, const Options &) { write(p, frame); });
    c.registerMethod("StartNotify").onInterface(kCharacteristic).implementedAs([this, &p] { startNotify(p); });
    c.registerMethod("StopNotify").onInterface(kCharacteristic).implementedAs([&p] {
        p.notifying = false;
        p.characteristic->emitPropertiesChangedSignal(kCharacteristic, {"Notifying"});
    });
    c.registerProperty("UUID").onInterface(kCharacteristic).withGetter([] {
        return std::string(kCharacteristicUuid);
    });
    c.registerProperty("Service").onInterface(kCharacteristic).withGetter([servicePath] {
        return sdbus::ObjectPath(servicePath);
    });
    c.registerProperty("Flags").onInterface(kCharacteristic).withGetter([] {
        return std::vector<std::string>{"write", "notify"};
    });
    c.registerProperty("Value").onInterface(kCharacteristic).withGetter([&p] { return p.value; });
    c.registerProperty("Notifying").onInterface(kCharacteristic).withGetter([&p] { return p.notifying; });
    c.finishRegistration();
    p.value.clear();
}

// The device object disappears, as BlueZ removes a device that went away.
void VirtualBluez::vanish(Peripheral &p)
{
    p.vanishOnConnect = false;
    ++p.link;
    p.connected = false;
    p.device->emitInterfacesRemovedSignal();
    p.device.reset();
}

// The link ends, asked for or lost: BlueZ drops the GATT objects of a
// device it did not bond with and reports the device disconnected.
void VirtualBluez::tearDown(Peripheral &p)
{
    ++p.link;
    if (p.pendingConnect) {
        p.pendingConnect->returnError(sdbus::Error("org.bluez.Error.Failed", "Connection aborted"));
        p.pendingConnect.reset();
    }
    if (!p.connected)
        return;
    for (auto *gatt : {&p.characteristic, &p.service})
        if (*gatt) {
            (*gatt)->emitInterfacesRemovedSignal();
            gatt->reset();
        }
    p.notifying = false;
    p.servicesResolved = false;
    p.connected = false;
    p.device->emitPropertiesChangedSignal(kDevice, {"ServicesResolved", "Connected"});
}

void VirtualBluez::onLink(Peripheral &p, std::chrono::milliseconds delay, std::function<void()> task)
{
    const uint64_t link = p.link;
    scheduler_.after(delay, [&p, link, task = std::move(task)] {
        if (p.link == link)
            task();
    });
}

// ---------------------------------------------------------------- GATT

// The firmware's answers go out after the write's own reply, as
// notifications of the characteristic's Value.
void VirtualBluez::write(Peripheral &p, const std::vector<uint8_t> &frame)
{
    if (!p.connected)
        fail("org.bluez.Error.Failed", "Not connected");
    BleReaction reaction = p.firmware.receive(frame, now());
    auto delay = 0ms;
    for (auto &answer : reaction.frames) {
        onLink(p, delay, [this, &p, answer] { notify(p, answer); });
        delay += kFrameGap;
    }
    if (reaction.dropLink)
        onLink(p, delay, [this, &p] { tearDown(p); });
}

void VirtualBluez::notify(Peripheral &p, const std::vector<uint8_t> &frame)
{
    if (!p.notifying)
        return;
    p.value = frame;
    p.characteristic->emitPropertiesChangedSignal(kCharacteristic, {"Value"});
}

void VirtualBluez::startNotify(Peripheral &p)
{
    if (p.notifyStaysOff || p.notifying)
        return;
    onLink(p, 0ms, [&p] {
        p.notifying = true;
        p.characteristic->emitPropertiesChangedSignal(kCharacteristic, {"Notifying"});
    });
}

// ---------------------------------------------------------------- control

VirtualBluez::Peripheral &VirtualBluez::find(const std::string &device)
{
    for (auto &p : peripherals_)
        if (p->address == device || p->name(now()) == device)
            return *p;
    fail("com.zor.Sim.Error.UnknownDevice", ("no virtual focuser \"" + device + "\"").c_str());
}

void VirtualBluez::setFault(const std::string &device, const std::string &fault)
{
    Peripheral &p = find(device);
    p.vanishOnConnect = fault == "vanish";
    p.notifyStaysOff = fault == "no-notify";
    try {
        p.firmware.setFault(p.vanishOnConnect || p.notifyStaysOff ? BleFault::None : faultFromName(fault));
    } catch (const std::invalid_argument &e) {
        fail("com.zor.Sim.Error.UnknownFault", e.what());
    }
}

void VirtualBluez::dropLink(const std::string &device) { tearDown(find(device)); }

void VirtualBluez::setBattery(const std::string &device, int percentage)
{
    FocuserModel &model = find(device).firmware.model();
    Battery battery = model.state(now()).battery;
    battery.percentage = percentage;
    model.setBattery(battery);
}

std::map<std::string, sdbus::Variant> VirtualBluez::deviceState(const std::string &device)
{
    Peripheral &p = find(device);
    const DeviceState s = p.firmware.model().state(now());
    return {
        {"Name", sdbus::Variant(s.bleName)},
        {"Address", sdbus::Variant(p.address)},
        {"Connected", sdbus::Variant(p.connected)},
        {"Notifying", sdbus::Variant(p.notifying)},
        {"PairedHost", sdbus::Variant(p.firmware.pairedHost())},
        {"Fault", sdbus::Variant(std::string(faultName(p.firmware.fault())))},
        {"Firmware", sdbus::Variant(s.firmware)},
        {"Position", sdbus::Variant(s.position)},
        {"Moving", sdbus::Variant(s.motorTurning)},
        {"LedOn", sdbus::Variant(s.ledOn)},
        {"Battery", sdbus::Variant(s.battery.percentage)},
        {"UpdateRemaining", sdbus::Variant(static_cast<uint32_t>(p.firmware.updateRemaining()))},
        {"InstalledImageBytes", sdbus::Variant(static_cast<uint32_t>(s.installedImage.size()))},
    };
}

} // namespace zorsim
