#include "sim/focuser_model.h"

#include "sim/thermistor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace zorsim {
namespace {

// Command groups (third byte of a device command).
constexpr uint8_t kGroupAction = 0x01;
constexpr uint8_t kGroupQuery = 0x02;
constexpr uint8_t kGroupControl = 0x03;
constexpr uint8_t kGroupSetSerial = 0x0C;
constexpr uint8_t kGroupSetAlias = 0x0D;
constexpr uint8_t kGroupUpdateStart = 0x0F;
constexpr uint8_t kGroupUpdateData = 0x10;
constexpr uint8_t kGroupUpdateEnd = 0x12;
constexpr uint8_t kGroupBleName = 0x1E;
constexpr uint8_t kGroupShipping = 0x1F;
constexpr uint8_t kGroupLed = 0x20;
constexpr uint8_t kGroupFactory = 0x22;

constexpr uint8_t kActionClearError = 0x0F;

// Query codes (fourth byte after group 02); the reply echoes the code.
constexpr uint8_t kQueryStatus = 0x03;
constexpr uint8_t kQueryFirmware = 0x04;
constexpr uint8_t kQueryErrorCodes = 0x05;
constexpr uint8_t kQueryPowerOff = 0x06;
constexpr uint8_t kQuerySerial = 0x0C;
constexpr uint8_t kQueryAlias = 0x0D;
constexpr uint8_t kQueryBattery = 0x1E;
constexpr uint8_t kQueryLed = 0x1F;

constexpr uint8_t kBleNameSet = 0x00;
constexpr uint8_t kBleNameGet = 0x01;

constexpr uint8_t kEnabledIdle = 0;
constexpr uint8_t kEnabledMoving = 1;
constexpr uint8_t kEnabledError = 6;

// Update acknowledgement: echo byte 1, then 0 for accepted, 1 for refused.
constexpr uint8_t kAckEcho = 0x01;
constexpr uint8_t kAckAccepted = 0;
constexpr uint8_t kAckRefused = 1;

// The hand controller shares the temperature jack on firmware that reports
// the raw converter value; its divider reads well below any probe reading.
constexpr int kHandControllerAdc = 170;
constexpr int kOpenInputAdc = 1023;

constexpr std::size_t kBleNameMax = 11;

FocuserModel::Reply emptyReply(uint8_t echo)
{
    FocuserModel::Reply r{};
    r[0] = 0x7E;
    r[1] = 0x5A;
    r[2] = echo;
    return r;
}

uint8_t byteOf(long v, int shift) { return static_cast<uint8_t>((v >> shift) & 0xFF); }

int clampInt(long v, long lo, long hi) { return static_cast<int>(std::min(std::max(v, lo), hi)); }

} // namespace

const char *modelString(Model m)
{
    switch (m) {
    case Model::Pro:
        return "ZOR Pro";
    case Model::N:
        return "ZORN";
    case Model::Old:
        break;
    }
    return "";
}

FocuserModel::FocuserModel(const DeviceConfig &config, int index, Nanos now) : config_(config)
{
    serial_ = config.serial;
    if (std::all_of(serial_.begin(), serial_.end(), [](uint8_t b) { return b == 0; })) {
        // 'Z' 'O' 'R', the model, and the device's number.
        const uint8_t modelTag = config.model == Model::Pro ? 'P' : config.model == Model::N ? 'N' : 'O';
        const uint32_t n = 0x100 + static_cast<uint32_t>(index);
        serial_ = {'Z', 'O', 'R', modelTag, byteOf(n, 24), byteOf(n, 16), byteOf(n, 8), byteOf(n, 0)};
    }
    std::memcpy(alias_.data(), config.alias.data(), std::min(config.alias.size(), alias_.size()));
    bleName_ = config.bleName.substr(0, kBleNameMax);
    if (bleName_.empty()) {
        char hex[5];
        std::snprintf(hex, sizeof hex, "%02X%02X", serial_[6], serial_[7]);
        bleName_ = hex;
    }
    led_ = config.ledOn;
    battery_ = config.battery;
    temperature_ = config.temperature;
    probe_ = config.probeAttached;
    hand_ = config.handController;
    powerOn(now);
}

int FocuserModel::stepLimit() const { return wideLayout() ? 600000 : 60000; }

bool FocuserModel::reportsRawAdc() const
{
    const int major = config_.firmware / 100;
    const int minor = config_.firmware / 10 % 10;
    const int build = config_.firmware % 10;
    return major < 4 && minor == 0 && build == 0;
}

void FocuserModel::powerOn(Nanos now)
{
    if (pendingFirmware_ > 0) {
        config_.firmware = pendingFirmware_;
        pendingFirmware_ = 0;
    }
    powered_ = true;
    position_ = clampInt(config_.position, 0, stepLimit());
    motion_ = Motion::None;
    since_ = now;
    maxStep_ = config_.maxStep < 0 ? stepLimit() : clampInt(config_.maxStep, 0, stepLimit());
    backlash_ = clampInt(config_.backlash, 0, 255);
    speedWord_ = clampInt(config_.speedWord, 0, 0xFFFF);
    beep_ = config_.beep;
    reverse_ = config_.reverse;
    maxForce_ = config_.maxForce & 0x0F;
    errorState_ = false;
    motorError_ = '0';
    handButton_ = 0;
    factoryMode_ = false;
    update_ = UpdatePhase::Idle;
    updateDamaged_ = false;
    image_.clear();
}

void FocuserModel::powerOff(Nanos now, int reason)
{
    advance(now);
    motion_ = Motion::None;
    powered_ = false;
    powerOffReason_ = reason;
    shippingRequested_ = false;
}

void FocuserModel::reboot(Nanos now)
{
    advance(now);
    powerOn(now);
}

// ---------------------------------------------------------------- motion

void FocuserModel::advance(Nanos now)
{
    if (motion_ == Motion::None)
        return;
    const double seconds = std::max<double>(0.0, static_cast<double>((now - since_).count()) / 1e9);
    const long steps = static_cast<long>(std::floor(config_.stepsPerSecond * seconds));
    const long distance = std::labs(static_cast<long>(goal_) - origin_);
    if (steps >= distance) {
        position_ = goal_;
        motion_ = Motion::None;
    } else {
        position_ = origin_ + static_cast<int>(goal_ > origin_ ? steps : -steps);
    }
}

void FocuserModel::startMove(int target, Nanos now)
{
    advance(now);
    if (errorState_)
        return; // refuses to move until the error is cleared
    origin_ = position_;
    goal_ = clampInt(target, 0, maxStep_);
    since_ = now;
    motion_ = goal_ == position_ ? Motion::None : Motion::Command;
}

void FocuserModel::startHandMotion(Nanos now)
{
    origin_ = position_;
    goal_ = handButton_ > 0 ? std::max(maxStep_, position_) : std::min(0, position_);
    since_ = now;
    motion_ = goal_ == position_ ? Motion::None : Motion::Hand;
}

void FocuserModel::stopMotion(Nanos now)
{
    advance(now);
    motion_ = Motion::None;
}

void FocuserModel::setPosition(int step, Nanos now)
{
    stopMotion(now);
    position_ = clampInt(step, 0, stepLimit());
}

void FocuserModel::setHandController(bool attached, Nanos now)
{
    advance(now);
    hand_ = attached;
    if (!attached) {
        handButton_ = 0;
        if (motion_ == Motion::Hand)
            motion_ = Motion::None;
    }
}

void FocuserModel::setHandButton(int direction, Nanos now)
{
    advance(now);
    if (!hand_)
        return;
    handButton_ = direction > 0 ? 1 : direction < 0 ? -1 : 0;
    if (motion_ == Motion::Command || errorState_)
        return; // a commanded move keeps the motor; the button is ignored
    if (handButton_ == 0)
        motion_ = Motion::None;
    else
        startHandMotion(now);
}

void FocuserModel::enterErrorState(char motorError, Nanos now)
{
    stopMotion(now);
    errorState_ = true;
    motorError_ = motorError;
}

void FocuserModel::setErrorCodes(char motor, char battery)
{
    motorError_ = motor;
    batteryError_ = battery;
}

void FocuserModel::setStepsPerSecond(int rate, Nanos now)
{
    // Restart the running motion from where it is now, at the new rate.
    advance(now);
    config_.stepsPerSecond = std::max(1, rate);
    if (motion_ != Motion::None) {
        origin_ = position_;
        since_ = now;
    }
}

// ---------------------------------------------------------------- records

int FocuserModel::temperatureWord() const
{
    if (reportsRawAdc()) {
        if (hand_)
            return kHandControllerAdc;
        return probe_ ? thermistorAdc(temperature_) : kOpenInputAdc;
    }
    if (!probe_)
        return 0;
    return clampInt(std::lround((temperature_ + 300.0) * 100.0), 0, 0xFFFF);
}

FocuserModel::Reply FocuserModel::statusRecord() const
{
    Reply r = emptyReply(kQueryStatus);
    r[3] = errorState_ ? kEnabledError : motion_ == Motion::Command ? kEnabledMoving : kEnabledIdle;
    r[4] = static_cast<uint8_t>(backlash_);
    if (wideLayout()) {
        r[5] = byteOf(maxStep_, 16);
        r[6] = byteOf(position_, 16);
    } else {
        r[5] = byteOf(speedWord_, 8);
        r[6] = byteOf(speedWord_, 0);
    }
    r[7] = byteOf(position_, 8);
    r[8] = byteOf(position_, 0);
    const int word = temperatureWord();
    r[10] = byteOf(word, 8);
    r[11] = byteOf(word, 0);
    // Raw-converter firmware reports the hand controller on the temperature
    // input only; later firmware has a flag for it.
    const bool handFlag = hand_ && !reportsRawAdc();
    r[12] = static_cast<uint8_t>((beep_ ? 0x01 : 0) | (reverse_ ? 0x02 : 0) |
                                 (motion_ != Motion::None ? 0x04 : 0) | (handFlag ? 0x08 : 0) |
                                 (maxForce_ << 4));
    r[13] = byteOf(maxStep_, 8);
    r[14] = byteOf(maxStep_, 0);
    return r;
}

FocuserModel::Reply FocuserModel::firmwareRecord() const
{
    Reply r = emptyReply(kQueryFirmware);
    r[3] = static_cast<uint8_t>(config_.firmware / 100);
    r[4] = static_cast<uint8_t>(config_.firmware / 10 % 10);
    r[5] = static_cast<uint8_t>(config_.firmware % 10);
    if (hasModelString()) {
        r[6] = 'E';
        const char *name = modelString(config_.model);
        std::memcpy(&r[7], name, std::min(std::strlen(name), kReplyBytes - 8));
    }
    return r;
}

FocuserModel::Reply FocuserModel::serialRecord() const
{
    Reply r = emptyReply(kQuerySerial);
    const auto &s = serial_;
    if (hasModelString()) {
        std::copy(s.begin(), s.end(), r.begin() + 3);
        return r;
    }
    // Firmware without a model string sends the sixteen nibbles of the serial
    // number: the first six one to a byte, the seventh alone in the low half
    // of the next byte, the rest two to a byte, and the last one alone.
    r[3] = s[0] >> 4;
    r[4] = s[0] & 0x0F;
    r[5] = s[1] >> 4;
    r[6] = s[1] & 0x0F;
    r[7] = s[2] >> 4;
    r[8] = s[2] & 0x0F;
    r[9] = s[3] >> 4;
    for (int i = 3; i < 7; ++i)
        r[7 + i] = static_cast<uint8_t>((s[i] & 0x0F) << 4 | s[i + 1] >> 4);
    r[14] = s[7] & 0x0F;
    return r;
}

std::optional<FocuserModel::Reply> FocuserModel::query(uint8_t code) const
{
    const bool pro = config_.model == Model::Pro;
    Reply r = emptyReply(code);
    switch (code) {
    case kQueryStatus:
        return statusRecord();
    case kQueryFirmware:
        return firmwareRecord();
    case kQuerySerial:
        if (!hasIdentity())
            return std::nullopt;
        return serialRecord();
    case kQueryAlias:
        if (!hasIdentity())
            return std::nullopt;
        std::copy(alias_.begin(), alias_.end(), r.begin() + 3);
        return r;
    case kQueryErrorCodes:
        if (!hasModelString())
            return std::nullopt;
        r[3] = 'E';
        r[4] = static_cast<uint8_t>(motorError_);
        r[5] = static_cast<uint8_t>(batteryError_);
        return r;
    case kQueryPowerOff:
        if (!pro)
            return std::nullopt;
        r[3] = static_cast<uint8_t>(powerOffReason_);
        return r;
    case kQueryLed:
        if (!hasModelString())
            return std::nullopt;
        r[3] = led_ ? 1 : 0;
        return r;
    case kQueryBattery: {
        if (!pro)
            return std::nullopt;
        const Battery &b = battery_;
        r[4] = static_cast<uint8_t>(clampInt(b.temperature + 100, 0, 255));
        r[5] = byteOf(b.voltage, 8);
        r[6] = byteOf(b.voltage, 0);
        r[7] = byteOf(b.chargeCurrent, 8);
        r[8] = byteOf(b.chargeCurrent, 0);
        r[9] = static_cast<uint8_t>(clampInt(b.percentage, 0, 255));
        r[10] = byteOf(b.dischargeCurrent, 8);
        r[11] = byteOf(b.dischargeCurrent, 0);
        r[12] = static_cast<uint8_t>(clampInt(b.health, 0, 255));
        r[13] = byteOf(b.chargeVoltage, 8);
        r[14] = byteOf(b.chargeVoltage, 0);
        return r;
    }
    default:
        return std::nullopt;
    }
}

// ---------------------------------------------------------------- commands

void FocuserModel::applyControlRecord(const uint8_t *cmd, std::size_t len, Nanos now)
{
    if (len < 15)
        return; // a short record is not taken
    const uint8_t enabled = cmd[3];
    const uint8_t reset = cmd[9];
    long step = cmd[7] << 8 | cmd[8];
    long maxStep = cmd[13] << 8 | cmd[14];
    if (wideLayout()) {
        step |= static_cast<long>(cmd[6]) << 16;
        maxStep |= static_cast<long>(cmd[5]) << 16;
    } else {
        speedWord_ = cmd[5] << 8 | cmd[6];
    }
    backlash_ = cmd[4];
    beep_ = (cmd[12] & 0x01) != 0;
    reverse_ = (cmd[12] & 0x02) != 0;
    maxForce_ = cmd[12] >> 4;

    // Position and maximum step change only when the selector asks for it;
    // otherwise their bytes are ignored, whatever the host had cached.
    if (reset == 1)
        setPosition(static_cast<int>(step), now);
    else if (reset == 2)
        maxStep_ = clampInt(maxStep, 0, stepLimit());

    if (enabled == kEnabledMoving)
        startMove(static_cast<int>(step), now);
    else if (motion_ == Motion::Command)
        stopMotion(now);
}

FocuserModel::Outcome FocuserModel::handleUpdate(uint8_t group, const uint8_t *cmd, std::size_t len)
{
    Outcome out;
    if (config_.firmware < 370)
        return out;
    switch (group) {
    case kGroupUpdateStart: {
        Reply r = emptyReply(kAckEcho);
        if (motion_ != Motion::None || errorState_) {
            r[3] = kAckRefused;
        } else {
            r[3] = kAckAccepted;
            update_ = UpdatePhase::Receiving;
            updateDamaged_ = false;
            image_.clear();
        }
        out.reply = r;
        break;
    }
    case kGroupUpdateData: {
        if (update_ != UpdatePhase::Receiving)
            break;
        const std::size_t n = len > 3 ? cmd[3] : 0;
        if (n == 0 || n + 4 > len) {
            updateDamaged_ = true; // a piece that does not fit its report
            break;
        }
        image_.insert(image_.end(), cmd + 4, cmd + 4 + n);
        break;
    }
    case kGroupUpdateEnd:
        if (update_ == UpdatePhase::Receiving && !image_.empty() && !updateDamaged_) {
            installed_ = image_;
            if (config_.firmwareAfterUpdate > 0)
                pendingFirmware_ = config_.firmwareAfterUpdate;
            out.restart = true;
        } else {
            // The update did not take: the firmware answers and carries on.
            Reply r = emptyReply(kAckEcho);
            r[3] = kAckRefused;
            out.reply = r;
        }
        update_ = UpdatePhase::Idle;
        image_.clear();
        break;
    default:
        break;
    }
    return out;
}

FocuserModel::Outcome FocuserModel::handleCommand(const uint8_t *cmd, std::size_t len, Nanos now)
{
    Outcome out;
    if (!powered_ || len < 3 || cmd[0] != 0x7E || cmd[1] != 0x5A)
        return out;
    advance(now);
    const uint8_t group = cmd[2];
    const uint8_t code = len > 3 ? cmd[3] : 0;
    const bool pro = config_.model == Model::Pro;
    switch (group) {
    case kGroupAction:
        if (code == kActionClearError) {
            errorState_ = false;
            motorError_ = '0';
        }
        break;
    case kGroupQuery:
        out.reply = query(code);
        break;
    case kGroupControl:
        applyControlRecord(cmd, len, now);
        break;
    case kGroupSetSerial:
    case kGroupSetAlias:
        if (hasIdentity() && len >= 11)
            std::copy(cmd + 3, cmd + 11, (group == kGroupSetSerial ? serial_ : alias_).begin());
        break;
    case kGroupUpdateStart:
    case kGroupUpdateData:
    case kGroupUpdateEnd:
        out = handleUpdate(group, cmd, len);
        break;
    case kGroupBleName:
        if (!pro)
            break;
        if (code == kBleNameSet) {
            const uint8_t *name = cmd + 4;
            const std::size_t avail = len > 4 ? std::min(len - 4, kBleNameMax) : 0;
            bleName_.assign(reinterpret_cast<const char *>(name), strnlen(reinterpret_cast<const char *>(name), avail));
        } else if (code == kBleNameGet) {
            Reply r = emptyReply(kBleNameGet);
            std::memcpy(&r[3], bleName_.data(), bleName_.size());
            out.reply = r;
        }
        break;
    case kGroupShipping:
        if (pro)
            shippingRequested_ = true;
        break;
    case kGroupLed:
        if (hasModelString() && len > 3)
            led_ = code != 0;
        break;
    case kGroupFactory:
        if (hasModelString() && len > 3)
            factoryMode_ = code == 1;
        break;
    default:
        break;
    }
    return out;
}

DeviceState FocuserModel::state(Nanos now)
{
    advance(now);
    DeviceState s;
    s.model = config_.model;
    s.firmware = config_.firmware;
    s.powered = powered_;
    s.position = position_;
    s.target = motion_ == Motion::Command ? goal_ : position_;
    s.moving = motion_ == Motion::Command;
    s.motorTurning = motion_ != Motion::None;
    s.backlash = backlash_;
    s.maxStep = maxStep_;
    s.speedWord = speedWord_;
    s.beep = beep_;
    s.reverse = reverse_;
    s.maxForce = maxForce_;
    s.errorState = errorState_;
    s.motorError = motorError_;
    s.batteryError = batteryError_;
    s.temperature = temperature_;
    s.probeAttached = probe_;
    s.handController = hand_;
    s.handButton = handButton_;
    s.serial = serial_;
    s.alias = alias_;
    s.bleName = bleName_;
    s.ledOn = led_;
    s.battery = battery_;
    s.powerOffReason = powerOffReason_;
    s.shippingRequested = shippingRequested_;
    s.factoryMode = factoryMode_;
    s.update = update_;
    s.updateImage = image_;
    s.installedImage = installed_;
    s.stepsPerSecond = config_.stepsPerSecond;
    return s;
}

} // namespace zorsim
