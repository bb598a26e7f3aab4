// indi_zor_focuser: the INDI driver. One process serves every ZOR focuser
// it finds, each as a device of its own: "ZOR Focuser", "ZOR Focuser 2", ...
// There is a device for each focuser found (at least one), and a scan that
// finds more focusers than devices adds devices.
#include "focuser_catalog.h"
#include "zor_focuser.h"

#include <libindi/indidevapi.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using zorindi::FocuserCatalog;
using zorindi::ZorFocuser;

std::vector<std::unique_ptr<ZorFocuser>> g_devices;

std::string deviceName(std::size_t index)
{
    return index == 0 ? "ZOR Focuser" : "ZOR Focuser " + std::to_string(index + 1);
}

// The first focuser found that no device has chosen.
std::string unchosenFocuser()
{
    for (const auto &found : FocuserCatalog::instance().found())
        if (std::none_of(g_devices.begin(), g_devices.end(), [&](const auto &d) { return d->choice() == found.key; }))
            return found.key;
    return "";
}

void listChanged();

void addDevice()
{
    g_devices.push_back(std::make_unique<ZorFocuser>(deviceName(g_devices.size()), unchosenFocuser(), listChanged));
}

void listChanged()
{
    const std::size_t wanted = FocuserCatalog::instance().found().size();
    for (auto &device : g_devices)
        device->refreshChoices();
    while (g_devices.size() < wanted) {
        addDevice();
        g_devices.back()->ISGetProperties(nullptr); // a new device appears to every client
    }
}

void ensureDevices()
{
    if (!g_devices.empty())
        return;
    for (const std::string &problem : FocuserCatalog::instance().rescanUsb())
        std::fprintf(stderr, "indi_zor_focuser: %s\n", problem.c_str());
    const std::size_t count = std::max<std::size_t>(1, FocuserCatalog::instance().found().size());
    while (g_devices.size() < count)
        addDevice();
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
    ensureDevices();
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
