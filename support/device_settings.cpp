#include "support/device_settings.h"

#include "support/settings_store.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kValueType = 4;
constexpr int kMissing = -1;
constexpr int kMissingMaxStep = -2;

// Reads one four-byte value, `preset` when it is absent.
int32_t queryInt(xmlHandle key, const char *name, int32_t preset)
{
    int32_t value = preset;
    int type = 0;
    int size = sizeof value;
    XMLQueryValueEx(key, name, nullptr, &type, reinterpret_cast<unsigned char *>(&value), &size);
    return value;
}

void setInt(xmlHandle key, const char *name, int32_t value)
{
    XMLSetValueEx(key, name, nullptr, kValueType, reinterpret_cast<unsigned char *>(&value), sizeof value);
}

} // namespace

void buildSettingsKeyPath(char *keyPath, size_t size) { std::snprintf(keyPath, size, "software\\%s", "KVO_Drivebox"); }

bool loadDeviceSettings(const char *keyPath, int defaultMaxStep, DeviceSettings &settings)
{
    xmlHandle key;
    if (!XMLOpenKey(kSettingsFile, keyPath, &key))
        return false;
    const int32_t position = queryInt(key, "Position", kMissing);
    const int32_t backlash = queryInt(key, "Backlash", kMissing);
    const int32_t beep = queryInt(key, "Beep", 0);
    const int32_t maxStep = queryInt(key, "MaxStep", kMissing);
    const int32_t reverse = queryInt(key, "Reverse", kMissing);
    settings.position = position == kMissing ? kUnsetPosition : position;
    settings.backlash = backlash == kMissing ? 0 : backlash;
    settings.beep = beep == 1;
    settings.maxStep = (maxStep == kMissing || maxStep == kMissingMaxStep) ? defaultMaxStep : maxStep;
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
