#include "result_codes.h"

#include "ZOR_result_codes.h"

namespace zorctl {
namespace {

// What to do or check, for the codes where zorctl can say more than the
// library's neutral meaning.
const char *hint(int code)
{
    switch (code) {
    case ZOR_ERROR_INVALID_INDEX:
        return "it may have been unplugged";
    case ZOR_ERROR_INVALID_ID:
        return "'zorctl list' shows the IDs of the focusers found";
    case ZOR_ERROR_REMOVED:
        return "if it is plugged in, this user may not open it (see the udev rule in the README)";
    case ZOR_ERROR_MOVING:
        return "stop it or wait until it has stopped";
    case ZOR_ERROR_ERROR_STATE:
        return "is it moving, or in an error state?";
    default:
        return nullptr;
    }
}

} // namespace

ResultText describeResult(int code)
{
    const char *name = ZORResultName(code);
    if (!name)
        return {"unknown result", "the library answered with a code this version of zorctl does not know"};
    std::string meaning = ZORResultMeaning(code);
    if (const char *more = hint(code))
        meaning += std::string("; ") + more;
    return {name, meaning};
}

std::string formatResult(int code)
{
    const ResultText text = describeResult(code);
    return text.name + " (" + std::to_string(code) + "): " + text.meaning;
}

} // namespace zorctl
