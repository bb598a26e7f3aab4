// The focuser's firmware as it speaks over Bluetooth LE: request frames in,
// answer and notification frames out, over the same firmware model that the
// USB side drives.
//
// A device command (CMD_DEVICE) is handed to the model as USB would hand it;
// its answer carries, from frame byte 4 on, the USB reply's bytes from byte 3
// on (the echo byte, then the data), so both links read reply data at the
// same positions. Every device command is answered, the ones without a reply
// record by an acknowledgement that echoes the command group. Pairing,
// clearing the pairing, the all-status query and the update have frames of
// their own; requests that are malformed or of an unknown kind go unanswered.
//
// Not thread-safe: the owner serialises every call.
#pragma once

#include "ble/ble_protocol.h"
#include "sim/focuser_model.h"

#include <cstddef>
#include <string>
#include <vector>

namespace zorsim {

enum class BleFault {
    None,
    Silent,        // requests go unanswered
    StaleSequence, // each answer is preceded by a late copy of the previous one
    BadChecksum,   // answers carry a wrong checksum
    RefusePairing, // pairing requests are refused
    DropLink,      // the next request goes unanswered and the link drops (once)
};

// What the firmware does in answer to one request.
struct BleReaction {
    std::vector<BLEProtocol::Bytes> frames; // notified in this order
    bool dropLink = false;                  // then the link goes down
};

class BleFirmware {
  public:
    BleFirmware(const DeviceConfig &config, int index, Nanos now);

    // A new connection: its first pairing is answered with the new-connection
    // status before the pairing notification.
    void linkUp() { freshLink_ = true; }
    BleReaction receive(const BLEProtocol::Bytes &frame, Nanos now);

    void setFault(BleFault fault) { fault_ = fault; }
    BleFault fault() const { return fault_; }

    // The host address text this focuser is paired with; empty when none.
    const std::string &pairedHost() const { return pairedHost_; }
    // Bytes the running update still expects; 0 when no update runs.
    std::size_t updateRemaining() const { return updateRemaining_; }

    FocuserModel &model() { return model_; }

  private:
    BleReaction pair(uint8_t sequence, const std::string &host);
    BleReaction clearPair(uint8_t sequence, const std::string &host);
    BleReaction deviceCommand(uint8_t sequence, const BLEProtocol::Bytes &command, Nanos now);
    BleReaction extended(uint8_t sequence, const BLEProtocol::Bytes &payload, Nanos now);
    BLEProtocol::Bytes allStatus(Nanos now);
    BleReaction startUpdate(uint8_t sequence, const BLEProtocol::Bytes &payload, Nanos now);
    BleReaction updateChunk(uint8_t sequence, const BLEProtocol::Bytes &chunk, Nanos now);
    void applyFault(BleReaction &reaction);

    FocuserModel model_;
    BleFault fault_ = BleFault::None;
    bool freshLink_ = true;
    std::string pairedHost_;
    std::size_t updateRemaining_ = 0;
    BLEProtocol::Bytes lastAnswer_; // as first sent, for a late copy
};

const char *faultName(BleFault fault);
// The fault of that name ("none", "silent", "stale", "checksum",
// "refuse-pair", "drop"); throws std::invalid_argument for another name.
BleFault faultFromName(const std::string &name);

} // namespace zorsim
