// The focuser's firmware: its state and how it answers device commands.
//
// A device command is the byte string 7E 5A, a group byte, a code byte and
// data, whatever link carried it. A reply record is 16 bytes: 7E 5A, an echo
// byte and 13 data bytes (over USB it follows the reply's report ID 01). The
// model knows nothing of reports or radios, so the USB and Bluetooth sides of
// the virtual focuser share it.
//
// Not thread-safe: the owner serialises every call.
#pragma once

#include "sim/clock.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zorsim {

enum class Model {
    Pro, // "ZOR Pro": battery, Bluetooth, LED, error codes
    N,   // "ZORN": mains powered, LED, error codes, no Bluetooth
    Old, // firmware that reports no model string
};

// Battery block as the firmware measures it.
struct Battery {
    int temperature = 25; // whole degrees Celsius (sent as temperature + 100)
    int voltage = 12400;  // millivolts
    int chargeCurrent = 0;
    int percentage = 80;
    int dischargeCurrent = 150;
    int health = 100;
    int chargeVoltage = 0;
};

struct DeviceConfig {
    Model model = Model::Pro;
    int firmware = 382;  // major * 100 + minor * 10 + build
    int reportSize = 64; // request feature report with its ID: 16 or 64 bytes

    // State at power-on: the focuser forgets all of these when it loses power.
    int position = 30000; // the "position unset" marker
    int maxStep = -1;     // -1: the firmware's step limit (60000 below 336, else 600000)
    int backlash = 0;
    bool beep = false;
    bool reverse = false;
    int maxForce = 0;
    int speedWord = 3000; // reported by firmware below 336 only

    // The mechanics and the sensors.
    int stepsPerSecond = 2000; // commanded moves and hand-controller moves
    double temperature = 20.0;
    bool probeAttached = true;
    bool handController = false;

    // Kept in the device's flash.
    std::array<uint8_t, 8> serial{}; // all zero: derived from the device's index
    std::string alias;               // at most 8 bytes
    std::string bleName;             // at most 11 bytes; empty: 4 hex digits of the serial
    bool ledOn = true;
    Battery battery;

    int firmwareAfterUpdate = 0; // version after a successful update; 0 keeps it

    // Seen by the USB side only.
    std::chrono::milliseconds restartTime{300}; // off the bus while restarting
    std::chrono::milliseconds stallTimeout{20}; // a transfer to a mute device fails after this
};

enum class UpdatePhase { Idle, Receiving };

// Everything the firmware holds, at one instant.
struct DeviceState {
    Model model = Model::Pro;
    int firmware = 0;
    bool powered = true;
    int position = 0;
    int target = 0;
    bool moving = false;       // a commanded move runs (status byte "enabled" = 1)
    bool motorTurning = false; // commanded or hand-controller motion
    int backlash = 0;
    int maxStep = 0;
    int speedWord = 0;
    bool beep = false;
    bool reverse = false;
    int maxForce = 0;
    bool errorState = false; // status byte "enabled" reads 6
    char motorError = '0';
    char batteryError = '0';
    double temperature = 0;
    bool probeAttached = true;
    bool handController = false;
    int handButton = 0; // -1 inwards, +1 outwards, 0 released
    std::array<uint8_t, 8> serial{};
    std::array<uint8_t, 8> alias{};
    std::string bleName;
    bool ledOn = true;
    Battery battery;
    int powerOffReason = 0; // 1: the last power-off was shipping mode
    bool shippingRequested = false;
    bool factoryMode = false;
    UpdatePhase update = UpdatePhase::Idle;
    std::vector<uint8_t> updateImage;    // data received since the update started
    std::vector<uint8_t> installedImage; // the image of the last successful update
    int stepsPerSecond = 0;
};

class FocuserModel {
  public:
    static constexpr std::size_t kReplyBytes = 16;
    using Reply = std::array<uint8_t, kReplyBytes>;

    struct Outcome {
        std::optional<Reply> reply; // the command prepared a reply record
        bool restart = false;       // the firmware restarts now (end of a good update)
    };

    // `index` numbers the device among its siblings; it makes the default serial unique.
    FocuserModel(const DeviceConfig &config, int index, Nanos now);

    // Handles one device command. Malformed or unknown commands, and commands
    // of features this model lacks, change nothing and prepare no reply.
    Outcome handleCommand(const uint8_t *cmd, std::size_t len, Nanos now);

    // Power. powerOff records why; powerOn starts the firmware with the
    // power-on state, and with a new version after a good update.
    void powerOff(Nanos now, int reason);
    void powerOn(Nanos now);
    void reboot(Nanos now);
    bool powered() const { return powered_; }
    bool hasBattery() const { return config_.model == Model::Pro; }
    bool shippingRequested() const { return shippingRequested_; }

    DeviceState state(Nanos now);
    const DeviceConfig &config() const { return config_; }
    int reportSize() const { return config_.reportSize; }
    int stepLimit() const;

    // The outside world acting on the device.
    void setPosition(int step, Nanos now);
    void setTemperature(double celsius) { temperature_ = celsius; }
    void setProbeAttached(bool attached) { probe_ = attached; }
    void setHandController(bool attached, Nanos now);
    void setHandButton(int direction, Nanos now);
    void enterErrorState(char motorError, Nanos now);
    void setErrorCodes(char motor, char battery);
    void setBattery(const Battery &b) { battery_ = b; }
    void setPowerOffReason(int reason) { powerOffReason_ = reason; }
    void setStepsPerSecond(int rate, Nanos now);
    void setFirmwareAfterUpdate(int version) { config_.firmwareAfterUpdate = version; }

    // The temperature word of the status record as this firmware encodes it.
    int temperatureWord() const;

  private:
    enum class Motion { None, Command, Hand };

    bool hasModelString() const { return config_.model != Model::Old; }
    bool hasIdentity() const { return hasModelString() || config_.firmware >= 322; }
    bool wideLayout() const { return config_.firmware >= 336; }
    bool reportsRawAdc() const;

    void advance(Nanos now);
    void startMove(int target, Nanos now);
    void startHandMotion(Nanos now);
    void stopMotion(Nanos now);

    std::optional<Reply> query(uint8_t code) const;
    Reply statusRecord() const;
    Reply firmwareRecord() const;
    Reply serialRecord() const;
    void applyControlRecord(const uint8_t *cmd, std::size_t len, Nanos now);
    Outcome handleUpdate(uint8_t group, const uint8_t *cmd, std::size_t len);

    DeviceConfig config_;
    bool powered_ = true;

    int position_ = 0;
    Motion motion_ = Motion::None;
    int origin_ = 0;
    int goal_ = 0;
    Nanos since_{0};

    int backlash_ = 0;
    int maxStep_ = 0;
    int speedWord_ = 0;
    bool beep_ = false;
    bool reverse_ = false;
    int maxForce_ = 0;
    bool errorState_ = false;
    char motorError_ = '0';
    char batteryError_ = '0';

    double temperature_ = 0;
    bool probe_ = true;
    bool hand_ = false;
    int handButton_ = 0;

    std::array<uint8_t, 8> serial_{};
    std::array<uint8_t, 8> alias_{};
    std::string bleName_;
    bool led_ = true;
    Battery battery_;
    int powerOffReason_ = 0;
    bool shippingRequested_ = false;
    bool factoryMode_ = false;

    UpdatePhase update_ = UpdatePhase::Idle;
    bool updateDamaged_ = false;
    std::vector<uint8_t> image_;
    std::vector<uint8_t> installed_;
    int pendingFirmware_ = 0;
};

const char *modelString(Model m); // "ZOR Pro", "ZORN", or "" for old firmware

} // namespace zorsim
