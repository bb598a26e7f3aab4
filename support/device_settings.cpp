#include "support/device_settings.h"

#include "support/settings_store.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kValueType = 4;
constexpr int kMissing = -1;
constexpr int kMaxBacklash = 255;

// Reads one four-byte value; `preset` when it is absent or of another size.
int32_t queryInt(xmlHandle key, const char *name, int32_t preset)
{
    int32_t value = preset;
    int type = 0;
    int size = sizeof value;
    if (!XMLQueryValueEx(key, name, nullptr, &type, reinterpret_cast<unsigned char *>(&value), &size) ||
        size != sizeof value)
        return preset;
    return value;
}

// A stored value outside what the device takes counts as unreadable and gets
// its default, rather than being cut to the bits the device keeps (a backlash
// of 1000 would otherwise come back as 232).
int32_t inRangeOr(int32_t value, int32_t lowest, int32_t highest, int32_t fallback)
{
    return value >= lowest && value <= highest ? value : fallback;
}

void setInt(xmlHandle key, const char *name, int32_t value)
{
    XMLSetValueEx(key, name, nullptr, kValueType, reinterpret_cast<unsigned char *>(&value), sizeof value);
}

void setValues(xmlHandle key, const DeviceSettings &settings)
{
    setInt(key, "Position", settings.position);
    setInt(key, "Backlash", settings.backlash);
    setInt(key, "Beep", settings.beep ? 1 : 0);
    setInt(key, "MaxStep", settings.maxStep);
    setInt(key, "Reverse", settings.reverse ? 1 : 0);
}

} // namespace

void buildSettingsKeyPath(char *keyPath, size_t size) { std::snprintf(keyPath, size, "software\\%s", "KVO_Drivebox"); }

std::string focuserKeyName(const unsigned char (&serial)[8])
{
    const auto blank = [&serial](unsigned char fill) {
        return std::all_of(std::begin(serial), std::end(serial), [fill](unsigned char b) { return b == fill; });
    };
    if (blank(0x00) || blank(0xFF))
        return {};
    std::string name = "SN";
    char hex[3];
    for (unsigned char b : serial) {
        std::snprintf(hex, sizeof hex, "%02x", b);
        name += hex;
    }
    return name;
}

bool loadDeviceSettings(const char *keyPath, int stepLimit, DeviceSettings &settings,
                        const std::function<std::string()> &ownKeyName)
{
    xmlHandle shared;
    if (!XMLOpenKey(kSettingsFile, keyPath, &shared))
        return false;
    // Each focuser keeps its own settings: a focuser whose key the file holds
    // reads those; one without (no serial, or never closed with a serial
    // known) reads the shared values.
    xmlHandle key = shared;
    if (ownKeyName && XMLHasSubKeys(shared)) {
        const std::string name = ownKeyName();
        xmlHandle own;
        if (!name.empty() && XMLFindSubKey(shared, name.c_str(), &own))
            key = own;
    }
    const int32_t position = queryInt(key, "Position", kMissing);
    const int32_t backlash = queryInt(key, "Backlash", kMissing);
    const int32_t beep = queryInt(key, "Beep", 0);
    const int32_t maxStep = queryInt(key, "MaxStep", kMissing);
    const int32_t reverse = queryInt(key, "Reverse", kMissing);
    settings.position = inRangeOr(position, 0, stepLimit, kUnsetPosition);
    settings.backlash = inRangeOr(backlash, 0, kMaxBacklash, 0);
    settings.beep = beep == 1;
    settings.maxStep = inRangeOr(maxStep, 0, stepLimit, stepLimit);
    settings.reverse = reverse == 1;
    XMLCloseKey(&shared);
    return true;
}

void saveDeviceSettings(const char *keyPath, const DeviceSettings &settings, const std::string &ownKeyName)
{
    xmlHandle shared;
    if (!XMLOpenKey(kSettingsFile, keyPath, &shared) && !XMLCreateKey(kSettingsFile, keyPath, &shared, nullptr))
        return;
    // The shared values are written as always, so that software reading
    // them finds the last focuser closed.
    setValues(shared, settings);
    xmlHandle own;
    if (!ownKeyName.empty() && XMLCreateSubKey(shared, ownKeyName.c_str(), &own))
        setValues(own, settings);
    XMLCloseKey(&shared);
}
