#include "support/device_settings.h"

#include "support/settings_store.h"

#include <cstdint>
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

} // namespace

void buildSettingsKeyPath(char *keyPath, size_t size) { std::snprintf(keyPath, size, "software\\%s", "KVO_Drivebox"); }

bool loadDeviceSettings(const char *keyPath, int stepLimit, DeviceSettings &settings)
{
    xmlHandle key;
    if (!XMLOpenKey(kSettingsFile, keyPath, &key))
        return false;
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
    XMLCloseKey(&key);
    return true;
}

void saveDeviceSettings(const char *keyPath, const DeviceSettings &settings)
{
    xmlHandle key;
    if (!XMLOpenKey(kSettingsFile, keyPath, &key) && !XMLCreateKey(kSettingsFile, keyPath, &key, nullptr))
        return;
    setInt(key, "Position", settings.position);
    setInt(key, "Backlash", settings.backlash);
    setInt(key, "Beep", settings.beep ? 1 : 0);
    setInt(key, "MaxStep", settings.maxStep);
    setInt(key, "Reverse", settings.reverse ? 1 : 0);
    XMLCloseKey(&key);
}
