// Control of the virtual focusers behind libzor_hidsim's hidapi functions:
// what a test uses to put devices on the bus, look inside them, move time on
// and make them misbehave.
//
// Devices are numbered from 0 in the order they are added; a device keeps
// its number and its path ("sim:<number>") until reset(). Every function may
// be called from any thread. A device number that does not exist throws
// std::out_of_range.
#pragma once

#include "sim/clock.h"
#include "sim/focuser_model.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#define ZORSIM_API __attribute__((visibility("default")))

namespace zorsim {

// ---------------------------------------------------------------- devices

// Removes every device, closes nothing (open handles go stale), forgets all
// faults and records, and returns to the wall clock.
ZORSIM_API void reset();
// Adds a device, plugged in and powered; returns its number.
ZORSIM_API int addDevice(const DeviceConfig &config = DeviceConfig());
// Adds the devices a ZOR_SIM description names; returns the first one's number.
ZORSIM_API int addDevices(const std::string &description);
// Reads a ZOR_SIM description (syntax in sim_description.cpp); throws std::invalid_argument.
ZORSIM_API std::vector<DeviceConfig> parseDescription(const std::string &description);
ZORSIM_API int deviceCount();
ZORSIM_API std::string devicePath(int device);

// Takes the device off the bus: open handles to it fail from now on with
// "No such device", and enumeration no longer lists it. A ZOR Pro keeps
// running on its battery (a move goes on) unless shipping mode was asked for;
// the other models lose power and start afresh when plugged in again.
ZORSIM_API void unplug(int device);
ZORSIM_API void plug(int device);
ZORSIM_API bool isPlugged(int device);
// Resets the firmware: off the bus for the device's restart time, then back
// with its power-on state (and the new firmware version after an update).
ZORSIM_API void restart(int device);

// ---------------------------------------------------------------- time

// Every device follows one clock: the wall clock, or a manual one that
// stands still until advance() moves it.
ZORSIM_API void useManualClock();
ZORSIM_API void useWallClock();
ZORSIM_API void advance(Nanos d);

// ---------------------------------------------------------------- state

ZORSIM_API DeviceState state(int device);
ZORSIM_API void setPosition(int device, int step); // stops any motion
ZORSIM_API void setTemperature(int device, double celsius);
ZORSIM_API void setProbeAttached(int device, bool attached);
ZORSIM_API void setHandController(int device, bool attached);
// Holds a hand-controller button: +1 outwards, -1 inwards, 0 releases.
ZORSIM_API void pressHandButton(int device, int direction);
// The motor fails: motion stops, status "enabled" reads 6 until cleared.
ZORSIM_API void enterErrorState(int device, char motorError = '6');
ZORSIM_API void setErrorCodes(int device, char motorError, char batteryError);
ZORSIM_API void setBattery(int device, const Battery &battery);
ZORSIM_API void setPowerOffReason(int device, int reason);
ZORSIM_API void setStepsPerSecond(int device, int stepsPerSecond);
ZORSIM_API void setFirmwareAfterUpdate(int device, int version);

// ---------------------------------------------------------------- records

struct Transfer {
    enum Kind { SendFeature, GetFeature } kind;
    std::vector<uint8_t> bytes; // as sent, or as handed back (cut to the result)
    int result;                 // what the hidapi call returned
};
// Every feature-report call made on the device's handles, in order (the
// most recent 65536 of them).
ZORSIM_API std::vector<Transfer> transfers(int device);
// The requests that reached the firmware (report ID first), in order.
ZORSIM_API std::vector<std::vector<uint8_t>> receivedReports(int device);
ZORSIM_API void clearTransfers(int device);
ZORSIM_API int openHandles(int device);
// Calls made with a handle that was never opened or is already closed.
ZORSIM_API int invalidHandleUses();
// The report descriptor of a device with request reports of `reportSize` bytes.
ZORSIM_API std::vector<uint8_t> reportDescriptor(int reportSize);

// ---------------------------------------------------------------- faults

enum class Direction { Send, Read };

// The next `count` feature-report sends (or reads) fail and return `code`;
// hid_error then reports strerror(`error`). Nothing reaches the firmware.
ZORSIM_API void failNext(int device, Direction direction, int count, int code = -1, int error = EPIPE);
// The next `count` replies read come back with their marks (bytes 1 to 3) inverted.
ZORSIM_API void garbleNextReplies(int device, int count);
// The next `count` opens of the device fail with strerror(`error`).
ZORSIM_API void failNextOpens(int device, int count, int error = EACCES);
// A mute device: every transfer waits the device's stall timeout and fails
// with -1, "Connection timed out".
ZORSIM_API void setStalled(int device, bool stalled);
// Every feature-report transfer takes this long before it is carried out.
ZORSIM_API void setLatency(int device, std::chrono::microseconds latency);

} // namespace zorsim
