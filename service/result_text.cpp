#include "focuser_service.h"

#include "ZOR_result_codes.h"

namespace zorservice {
namespace {

const char *serviceName(int code)
{
    switch (code) {
    case kNotConnected:
        return "not connected";
    case kNotFound:
        return "not found";
    case kInUse:
        return "in use";
    case kBelowPosition:
        return "below the position";
    case kOutOfRange:
        return "out of range";
    default:
        return nullptr;
    }
}

const char *serviceMeaning(int code)
{
    switch (code) {
    case kNotConnected:
        return "the focuser is not connected";
    case kNotFound:
        return "no such focuser is attached or advertises";
    case kInUse:
        return "another program drives the focuser";
    case kBelowPosition:
        return "the focuser is beyond that value; move it inside first";
    case kOutOfRange:
        return "the value is outside what the focuser takes";
    default:
        return nullptr;
    }
}

} // namespace

std::string resultText(int code)
{
    const char *name = ZORResultName(code);
    const char *meaning = ZORResultMeaning(code);
    if (!name) {
        name = serviceName(code);
        meaning = serviceMeaning(code);
    }
    if (!name)
        return "result " + std::to_string(code) + ": a code this program does not know";
    return std::string(name) + " (" + std::to_string(code) + "): " + meaning;
}

std::chrono::seconds reconnectDelay(int attempt)
{
    static const std::chrono::seconds kDelays[] = {std::chrono::seconds(1), std::chrono::seconds(2),
                                                   std::chrono::seconds(5), std::chrono::seconds(10),
                                                   std::chrono::seconds(30)};
    constexpr int kLast = sizeof kDelays / sizeof kDelays[0] - 1;
    return kDelays[attempt < 0 ? 0 : attempt > kLast ? kLast : attempt];
}

Transport transportOf(const std::string &key)
{
    return key.rfind("ble:", 0) == 0 ? Transport::Bluetooth : Transport::Usb;
}

} // namespace zorservice
