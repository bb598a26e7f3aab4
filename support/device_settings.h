// The five host-side settings of a USB focuser, kept in the settings store
// under one key that all devices share.
#pragma once

#include <cstddef>

constexpr const char *kSettingsFile = "ZORconfig.xml";
constexpr int kUnsetPosition = 30000;

struct DeviceSettings {
    int position = kUnsetPosition;
    int backlash = 0;
    bool beep = false;
    int maxStep = 0;
    bool reverse = false;
};

// Writes "software\KVO_Drivebox" into `keyPath` (at least 256 bytes).
void buildSettingsKeyPath(char *keyPath, size_t size);

// Reads the stored settings. Returns false, leaving `settings` alone, when
// the key cannot be opened; otherwise every value that is missing, or outside
// the range the device takes (positions and maximum step 0 to `stepLimit`,
// backlash 0 to 255), takes its default (`stepLimit` for the maximum step).
bool loadDeviceSettings(const char *keyPath, int stepLimit, DeviceSettings &settings);
// Writes the five values, creating the file and key when needed. Silent on failure.
void saveDeviceSettings(const char *keyPath, const DeviceSettings &settings);
