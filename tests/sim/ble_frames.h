// Request frames as the host sends them, for tests of the Bluetooth side.
#pragma once

#include "ble/ble_protocol.h"

inline BLEProtocol::Bytes requestFrame(uint8_t sequence, uint8_t type, const BLEProtocol::Bytes &payload)
{
    BLEProtocol::ProtoRequest r;
    r.lengthLow = static_cast<uint8_t>(payload.size() & 0xFF);
    r.lengthHigh = static_cast<uint8_t>(payload.size() >> 8);
    r.sequence = sequence;
    r.commandType = type;
    r.payload = payload;
    BLEProtocol::Bytes out;
    BLEProtocol::encodeRequest(r, out);
    return out;
}
