// org.bluez as a radio with virtual focusers around it: the objects a real
// BlueZ shows on the system bus (the adapter, the devices it discovers,
// their GATT service and the write-and-notify characteristic), served on
// one connection whose event loop also runs the scheduler.
#pragma once

#include "sim/ble_firmware.h"
#include "sim/bluez/ble_sim_config.h"
#include "sim/bluez/scheduler.h"
#include "sim/clock.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zorsim {

class VirtualBluez {
  public:
    VirtualBluez(sdbus::IConnection &connection, Scheduler &scheduler,
                 const std::vector<BlePeripheralConfig> &peripherals, const std::string &adapterAddress);
    ~VirtualBluez();

    // Control from outside. `device` is a focuser's advertised name or its
    // address; an unknown one throws sdbus::Error.
    void setPowered(bool on);
    // "none", a firmware fault (BleFault's names), "vanish" (at the next
    // connection the device object disappears before its services resolve)
    // or "no-notify" (StartNotify succeeds, notifications never turn on).
    void setFault(const std::string &device, const std::string &fault);
    void dropLink(const std::string &device);
    void setBattery(const std::string &device, int percentage);
    std::map<std::string, sdbus::Variant> deviceState(const std::string &device);

  private:
    struct Peripheral;

    void registerAdapter();
    void startDiscovery();
    void stopDiscovery();
    void setDiscovering(bool on);
    void advertise(Peripheral &p);
    void registerDevice(Peripheral &p);
    void connect(Peripheral &p, sdbus::Result<> &&result);
    void linkUp(Peripheral &p);
    void resolveServices(Peripheral &p);
    void registerGatt(Peripheral &p);
    void vanish(Peripheral &p);
    void tearDown(Peripheral &p);
    void write(Peripheral &p, const std::vector<uint8_t> &frame);
    void startNotify(Peripheral &p);
    void notify(Peripheral &p, const std::vector<uint8_t> &frame);
    // Runs `task` after `delay` if the link it belongs to is still the current one.
    void onLink(Peripheral &p, std::chrono::milliseconds delay, std::function<void()> task);
    Peripheral &find(const std::string &device);
    Nanos now() const { return clock_.now(); }

    sdbus::IConnection &connection_;
    Scheduler &scheduler_;
    WallClock clock_;
    std::unique_ptr<sdbus::IObject> root_;
    std::unique_ptr<sdbus::IObject> adapter_;
    std::string adapterAddress_;
    bool powered_ = true;
    bool discovering_ = false;
    std::string discoveryClient_; // the bus name that started the discovery last
    uint64_t scan_ = 0; // counts discovery sessions; an old one's reports are dropped
    std::vector<std::unique_ptr<Peripheral>> peripherals_;
};

} // namespace zorsim
