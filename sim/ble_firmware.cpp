#include "sim/ble_firmware.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace zorsim {
namespace {

using BLEProtocol::Bytes;

constexpr std::size_t kRequestOverhead = 9; // type, length, sequence, command type, 4 after, checksum
constexpr std::size_t kCommandBytes = 15;   // a USB request report without its ID
constexpr uint8_t kMark0 = 0x7E;
constexpr uint8_t kMark1 = 0x5A;

constexpr uint8_t kUpdateAccepted = 0;
constexpr uint8_t kUpdateRefused = 1;

// The device commands the model uses to take part in an update.
constexpr uint8_t kUsbUpdateStart = 0x0F;
constexpr uint8_t kUsbUpdateData = 0x10;
constexpr uint8_t kUsbUpdateEnd = 0x12;
constexpr std::size_t kUsbUpdatePiece = 255;
constexpr int kBleUpdateFirmware = 382;

struct Request {
    uint8_t sequence;
    uint8_t type;
    Bytes payload;
};

// A request frame whose lengths and checksum agree; anything else is noise.
std::optional<Request> parseRequest(const Bytes &f)
{
    if (f.size() < kRequestOverhead || f[0] != BLEProtocol::FRAME_REQUEST)
        return std::nullopt;
    const std::size_t n = f.size() - kRequestOverhead;
    if (f[1] != (n & 0xFF) || f[4 + n] != ((n >> 8) & 0xFF) ||
        BLEProtocol::calculateChecksum(f.data(), f.size() - 1) != f.back())
        return std::nullopt;
    return Request{f[2], f[3], Bytes(f.begin() + 4, f.begin() + 4 + static_cast<long>(n))};
}

// An answer frame: type, content length, sequence, status, content, checksum.
Bytes answerFrame(uint8_t type, uint8_t sequence, uint8_t status, const Bytes &content)
{
    Bytes f{type, static_cast<uint8_t>(content.size()), sequence, status};
    f.insert(f.end(), content.begin(), content.end());
    f.push_back(BLEProtocol::calculateChecksum(f.data(), f.size()));
    return f;
}

Bytes response(uint8_t sequence, uint8_t status, const Bytes &content = {})
{
    return answerFrame(BLEProtocol::FRAME_RESPONSE, sequence, status, content);
}

Bytes notification(uint8_t status) { return answerFrame(BLEProtocol::FRAME_NOTIFICATION, 0, status, {}); }

void resum(Bytes &frame)
{
    frame.back() = BLEProtocol::calculateChecksum(frame.data(), frame.size() - 1);
}

// A reply record from byte 2 on: the echo byte, then the data.
Bytes fromEcho(const FocuserModel::Reply &record) { return Bytes(record.begin() + 2, record.end()); }

// Over USB the firmware sees every command in a zero-padded report.
FocuserModel::Outcome handle(FocuserModel &model, Bytes command, Nanos now)
{
    command.resize(std::max(command.size(), kCommandBytes), 0);
    return model.handleCommand(command.data(), command.size(), now);
}

std::optional<FocuserModel::Reply> ask(FocuserModel &model, const Bytes &command, Nanos now)
{
    return handle(model, command, now).reply;
}

void push24(Bytes &out, int v)
{
    for (int shift : {16, 8, 0})
        out.push_back(static_cast<uint8_t>(v >> shift));
}

const struct {
    BleFault fault;
    const char *name;
} kFaultNames[] = {
    {BleFault::None, "none"},           {BleFault::Silent, "silent"},
    {BleFault::StaleSequence, "stale"}, {BleFault::BadChecksum, "checksum"},
    {BleFault::RefusePairing, "refuse-pair"}, {BleFault::DropLink, "drop"},
};

} // namespace

const char *faultName(BleFault fault)
{
    for (const auto &f : kFaultNames)
        if (f.fault == fault)
            return f.name;
    return "none";
}

BleFault faultFromName(const std::string &name)
{
    for (const auto &f : kFaultNames)
        if (name == f.name)
            return f.fault;
    throw std::invalid_argument("unknown fault \"" + name + "\"");
}

BleFirmware::BleFirmware(const DeviceConfig &config, int index, Nanos now) : model_(config, index, now) {}

BleReaction BleFirmware::receive(const Bytes &frame, Nanos now)
{
    BleReaction reaction;
    if (fault_ == BleFault::Silent || !model_.powered())
        return reaction;
    if (fault_ == BleFault::DropLink) {
        fault_ = BleFault::None;
        reaction.dropLink = true;
        return reaction;
    }
    const std::optional<Request> request = parseRequest(frame);
    if (!request)
        return reaction;
    const std::string text(request->payload.begin(), request->payload.end());
    switch (request->type) {
    case BLEProtocol::CMD_PAIR:
        reaction = pair(request->sequence, text);
        break;
    case BLEProtocol::CMD_CLEAR_PAIR:
        reaction = clearPair(request->sequence, text);
        break;
    case BLEProtocol::CMD_DEVICE:
        reaction = deviceCommand(request->sequence, request->payload, now);
        break;
    case BLEProtocol::CMD_EXTENDED:
        reaction = extended(request->sequence, request->payload, now);
        break;
    default:
        break;
    }
    applyFault(reaction);
    return reaction;
}

void BleFirmware::applyFault(BleReaction &reaction)
{
    if (reaction.frames.empty())
        return;
    const Bytes answer = reaction.frames.front();
    if (fault_ == BleFault::StaleSequence) {
        // A late answer to the previous request, or one numbered as if it were.
        Bytes late = lastAnswer_;
        if (late.empty()) {
            late = answer;
            --late[2];
            resum(late);
        }
        reaction.frames.insert(reaction.frames.begin(), late);
    }
    if (fault_ == BleFault::BadChecksum)
        for (Bytes &f : reaction.frames)
            ++f.back();
    lastAnswer_ = answer;
}

// Pairing by host address: a focuser paired with one host refuses the others
// until that host clears the pairing.
BleReaction BleFirmware::pair(uint8_t sequence, const std::string &host)
{
    BleReaction r;
    if (freshLink_)
        r.frames.push_back(response(sequence, BLEProtocol::STATUS_NEW_CONNECTION));
    freshLink_ = false;
    const bool refused = fault_ == BleFault::RefusePairing || (!pairedHost_.empty() && pairedHost_ != host);
    if (!refused)
        pairedHost_ = host;
    r.frames.push_back(notification(refused ? BLEProtocol::PAIR_REFUSED : BLEProtocol::PAIR_ACCEPTED));
    return r;
}

BleReaction BleFirmware::clearPair(uint8_t sequence, const std::string &host)
{
    BleReaction r;
    if (!pairedHost_.empty() && pairedHost_ != host) {
        r.frames.push_back(notification(BLEProtocol::PAIR_REFUSED));
        return r;
    }
    pairedHost_.clear();
    r.frames.push_back(response(sequence, BLEProtocol::STATUS_OK));
    return r;
}

BleReaction BleFirmware::deviceCommand(uint8_t sequence, const Bytes &command, Nanos now)
{
    BleReaction r;
    if (command.size() < 3 || command[0] != kMark0 || command[1] != kMark1)
        return r;
    const FocuserModel::Outcome out = handle(model_, command, now);
    Bytes content(kCommandBytes - 1, 0);
    if (out.reply)
        content = fromEcho(*out.reply);
    else
        content[0] = command[2]; // an acknowledgement echoes the group
    r.frames.push_back(response(sequence, BLEProtocol::STATUS_OK, content));
    if (out.restart) {
        model_.reboot(now);
        r.dropLink = true;
    }
    return r;
}

BleReaction BleFirmware::extended(uint8_t sequence, const Bytes &payload, Nanos now)
{
    // While an update runs, every extended request is a piece of the image.
    if (updateRemaining_ > 0)
        return updateChunk(sequence, payload, now);
    if (payload.size() >= 3 && payload[0] == kMark0 && payload[1] == kMark1) {
        if (payload[2] == BLEProtocol::EXT_GET_ALL_INFO)
            return BleReaction{{response(sequence, BLEProtocol::STATUS_OK, allStatus(now))}, false};
        if (payload[2] == BLEProtocol::EXT_START_UPDATE)
            return startUpdate(sequence, payload, now);
    }
    return updateChunk(sequence, payload, now); // outside an update: takes nothing
}

// The all-status answer from frame byte 4 on: the sub-command's echo, the
// motion state, backlash, position (24 bits), temperature word, flags,
// maximum step (24 bits), the motor and battery error codes, the power-off
// reason and the battery block as the battery query carries it.
Bytes BleFirmware::allStatus(Nanos now)
{
    const DeviceState s = model_.state(now);
    const FocuserModel::Reply status = *ask(model_, {kMark0, kMark1, 0x02, 0x03}, now);
    const std::optional<FocuserModel::Reply> battery = ask(model_, {kMark0, kMark1, 0x02, 0x1E}, now);
    const bool handMoving = s.motorTurning && !s.moving;

    Bytes c{BLEProtocol::EXT_GET_ALL_INFO, status[3], status[4]};
    push24(c, s.position);
    c.push_back(status[10]);
    c.push_back(status[11]);
    c.push_back(static_cast<uint8_t>((s.beep ? 0x01 : 0) | (s.reverse ? 0x02 : 0) | (handMoving ? 0x04 : 0) |
                                     (s.handController ? 0x08 : 0)));
    push24(c, s.maxStep);
    c.push_back(static_cast<uint8_t>(s.motorError));
    c.push_back(static_cast<uint8_t>(s.batteryError));
    c.push_back(static_cast<uint8_t>(s.powerOffReason));
    FocuserModel::Reply block{};
    if (battery)
        block = *battery;
    c.insert(c.end(), block.begin() + 3, block.end() - 1); // 12 bytes, the decoder's
    return c;
}

BleReaction BleFirmware::startUpdate(uint8_t sequence, const Bytes &payload, Nanos now)
{
    std::size_t size = 0;
    for (std::size_t i = 3; i < 7 && i < payload.size(); ++i)
        size = size << 8 | payload[i];
    const std::optional<FocuserModel::Reply> ack =
        model_.config().firmware >= kBleUpdateFirmware && payload.size() >= 7 && size > 0
            ? ask(model_, {kMark0, kMark1, kUsbUpdateStart}, now)
            : std::nullopt;
    const bool accepted = ack && (*ack)[3] == kUpdateAccepted;
    updateRemaining_ = accepted ? size : 0;
    return BleReaction{{response(sequence, BLEProtocol::STATUS_OK, {BLEProtocol::EXT_START_UPDATE,
                                                         accepted ? kUpdateAccepted : kUpdateRefused})},
                       false};
}

// Takes as much of the chunk as the announced image still lacks and
// acknowledges that count; after the last byte the firmware restarts into
// the new image, which drops the link.
BleReaction BleFirmware::updateChunk(uint8_t sequence, const Bytes &chunk, Nanos now)
{
    const std::size_t take = std::min(chunk.size(), updateRemaining_);
    for (std::size_t at = 0; at < take; at += kUsbUpdatePiece) {
        const std::size_t n = std::min(kUsbUpdatePiece, take - at);
        Bytes piece{kMark0, kMark1, kUsbUpdateData, static_cast<uint8_t>(n)};
        piece.insert(piece.end(), chunk.begin() + static_cast<long>(at), chunk.begin() + static_cast<long>(at + n));
        model_.handleCommand(piece.data(), piece.size(), now);
    }
    updateRemaining_ -= take;
    BleReaction r{{response(sequence, BLEProtocol::STATUS_OK,
                            {static_cast<uint8_t>(take >> 8), static_cast<uint8_t>(take & 0xFF)})},
                  false};
    if (take > 0 && updateRemaining_ == 0) {
        if (handle(model_, {kMark0, kMark1, kUsbUpdateEnd}, now).restart) {
            model_.reboot(now);
            r.dropLink = true;
        }
    }
    return r;
}

} // namespace zorsim
