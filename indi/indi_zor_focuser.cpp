// indi_zor_focuser, the INDI driver. One process serves every ZOR focuser
// it finds, each as a device of its own: "ZOR Focuser", "ZOR Focuser 2", ...
// There is a device for each focuser found (at least one), and a scan that
// finds more focusers than devices adds devices. The focuser service does
// the library calls on threads of its own; this file and the devices run on
// libindi's event loop only.
#include "focuser_service.h"
#include "loop_bridge.h"
#include "zor_focuser.h"

#include <libindi/indidevapi.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using zorindi::LoopBridge;
using zorindi::ZorFocuser;

zorservice::Service &service()
{
    static zorservice::Service instance("indi_zor_focuser");
    return instance;
}

std::vector<std::unique_ptr<ZorFocuser>> g_devices;

std::string deviceName(std::size_t index)
{
    return index == 0 ? "ZOR Focuser" : "ZOR Focuser " + std::to_string(index + 1);
}

// Which other device holds `key`, in words; empty when none does.
std::string holderOf(const std::string &key, const ZorFocuser *asking)
{
    for (const auto &device : g_devices)
        if (device.get() != asking && device->holds(key))
            return std::string("the focuser is already connected in device \"") + device->getDeviceName() +
                   "\"";
    return "";
}

void addDevice()
{
    g_devices.push_back(std::make_unique<ZorFocuser>(service(), deviceName(g_devices.size()), holderOf));
    g_devices.back()->ISGetProperties(nullptr); // reads its saved choice; appears to every client
}

// Devices without a saved choice get a focuser that no device has chosen,
// once every device's saved choice is known.
void chooseDefaults()
{
    for (auto &device : g_devices) {
        if (!device->choice().empty())
            continue;
        for (const auto &entry : service().catalogue())
            if (std::none_of(g_devices.begin(), g_devices.end(),
                             [&](const auto &d) { return d->choice() == entry.key; })) {
                device->choose(entry.key);
                break;
            }
    }
}

void catalogueChanged()
{
    const std::size_t wanted = service().catalogue().size();
    while (g_devices.size() < wanted)
        addDevice();
    chooseDefaults();
    for (auto &device : g_devices)
        device->catalogueChanged();
}

void ensureDevices()
{
    if (!g_devices.empty())
        return;
    LoopBridge::instance(); // made on the loop, which watches it from now on
    service().setCatalogueListener([] { LoopBridge::instance().post(catalogueChanged); });
    addDevice();
    service().rescanUsb();
}

// The device a message is for; null for another driver's.
ZorFocuser *deviceNamed(const char *dev)
{
    for (auto &device : g_devices)
        if (dev && !strcmp(dev, device->getDeviceName()))
            return device.get();
    return nullptr;
}

} // namespace

void ISGetProperties(const char *dev)
{
    const bool first = g_devices.empty();
    ensureDevices();
    if (first)
        return; // the new device defined itself to every client
    for (auto &device : g_devices)
        if (!dev || !strcmp(dev, device->getDeviceName()))
            device->ISGetProperties(dev);
}

void ISNewSwitch(const char *dev, const char *name, ISState *states, char *names[], int n)
{
    if (ZorFocuser *device = deviceNamed(dev))
        device->ISNewSwitch(dev, name, states, names, n);
}

void ISNewText(const char *dev, const char *name, char *texts[], char *names[], int n)
{
    if (ZorFocuser *device = deviceNamed(dev))
        device->ISNewText(dev, name, texts, names, n);
}

void ISNewNumber(const char *dev, const char *name, double values[], char *names[], int n)
{
    if (ZorFocuser *device = deviceNamed(dev))
        device->ISNewNumber(dev, name, values, names, n);
}

void ISNewBLOB(const char *, const char *, int[], int[], char *[], char *[], char *[], int) {}

void ISSnoopDevice(XMLEle *root)
{
    for (auto &device : g_devices)
        device->ISSnoopDevice(root);
}
