// The five host-side settings of a USB focuser, kept in the settings store
// under a key that all devices share and, for a focuser whose serial number is
// known, under a key of its own below it.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

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

// The name of a focuser's own key below the shared one: "SN" and its serial
// number in hexadecimal ("SN5a4f520000000101"); empty for a blank serial
// (all bytes 00 or all FF), which cannot tell focusers apart.
std::string focuserKeyName(const unsigned char (&serial)[8]);

// Reads the stored settings: those under the focuser's own key when the file
// holds it, else the shared ones. `ownKeyName` is asked only when the file
// holds keys of single focusers, and answers "" when the focuser's serial
// cannot be read. Returns false, leaving `settings` alone, when the shared key
// cannot be opened; otherwise every value that is missing, or outside the
// range the device takes (positions and maximum step 0 to `stepLimit`,
// backlash 0 to 255), takes its default (`stepLimit` for the maximum step).
bool loadDeviceSettings(const char *keyPath, int stepLimit, DeviceSettings &settings,
                        const std::function<std::string()> &ownKeyName = {});
// Writes the five values under the shared key, and under the focuser's own
// key below it when `ownKeyName` is not empty, creating the file and keys
// when needed. Silent on failure.
void saveDeviceSettings(const char *keyPath, const DeviceSettings &settings, const std::string &ownKeyName = {});
