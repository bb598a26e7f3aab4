#include "device.h"

#include "ble.h"
#include "result_codes.h"

#include <cstring>

namespace zorctl {

Failure::Failure(const std::string &doing, int code)
    : std::runtime_error(doing + ": " + formatResult(code)), m_code(code)
{
}

void check(ZOR_ERROR_CODE code, const std::string &doing)
{
    if (code == ZOR_SUCCESS)
        return;
    // The open link's ID answers 53 only once the link is gone (possibly
    // before the callback has said so): the loss is what to report.
    if (code == ZOR_ERROR_BLE_NOT_CONNECTED && BleLink::current())
        throwLinkLost(BleLink::current()->id());
    throw Failure(doing, code);
}

Focuser::Focuser(int id) : m_id(id)
{
    if (isBluetoothId(id))
        return; // open while its link lasts (ble.h)
    ZORGetNum();
    check(ZOROpen(id), "opening focuser " + std::to_string(id));
    m_open = true;
    // Once its serial number is read, the library keeps this focuser's
    // settings under a key of its own, so that after a power cut it comes
    // back at its own position rather than at the last focuser's. Firmware
    // without a serial keeps the shared settings.
    ZOR_SN serial;
    ZORGetSerialNumber(id, &serial);
}

// ZORClose stops a focuser that is moving. A command that ends while the
// focuser moves (a move without --wait, a look at a move in progress)
// leaves it open instead, so the move goes on after zorctl exits.
Focuser::~Focuser()
{
    bool moving = false, hand = false;
    if (m_open && ZORIsMoving(m_id, &moving, &hand) == ZOR_SUCCESS && moving)
        return;
    close();
}

void Focuser::close()
{
    if (m_open)
        ZORClose(m_id);
    m_open = false;
}

FirmwareVersion Focuser::firmware()
{
    unsigned char major = 0, minor = 0, build = 0;
    check(ZORGetFirmwareVersion(m_id, &major, &minor, &build), "reading the firmware version");
    return {major, minor, build};
}

std::string Focuser::model()
{
    ZOR_TYPE type{};
    check(ZORGetType(m_id, &type), "reading the model");
    return std::string(type.Type, strnlen(type.Type, sizeof type.Type));
}

std::string Focuser::alias()
{
    ZOR_INFO info{};
    check(ZORGetProperty(m_id, &info), "reading the alias");
    return aliasFromName(info.Name);
}

std::vector<Capability> Focuser::capabilities()
{
    int count = 0;
    check(ZORGetNumOfControls(m_id, &count), "reading the capability list");
    std::vector<Capability> list;
    for (int i = 0; i < count; ++i) {
        ZOR_CONTROL_CAPS caps{};
        check(ZORGetControlCaps(m_id, i, &caps), "reading capability " + std::to_string(i));
        list.push_back({caps.ControlType, std::string(caps.Name, strnlen(caps.Name, sizeof caps.Name)),
                        std::string(caps.Description, strnlen(caps.Description, sizeof caps.Description)),
                        caps.IsSupported, caps.IsWritable});
    }
    return list;
}

bool Focuser::supports(ZOR_CONTROL_TYPE type)
{
    for (const Capability &c : capabilities())
        if (c.type == type && c.supported)
            return true;
    return false;
}

std::string FirmwareVersion::text() const
{
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

std::string aliasFromName(const char *name)
{
    const std::string text(name, strnlen(name, sizeof(ZOR_INFO::Name)));
    const std::size_t open = text.find('(');
    if (open == std::string::npos || text.size() < open + 2 || text.back() != ')')
        return "";
    return text.substr(open + 1, text.size() - open - 2);
}

} // namespace zorctl
