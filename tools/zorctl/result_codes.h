// Names and plain-language meanings of the library's result codes, shared by
// every zorctl command.
#pragma once

#include <string>

namespace zorctl {

struct ResultText {
    const char *name;    // the enumerator, e.g. "ZOR_ERROR_MOVING"
    const char *meaning; // what it means for someone at the telescope
};

// A code the library does not declare gets a generic text.
ResultText describeResult(int code);

// "ZOR_ERROR_MOVING (5): the focuser is moving; ..."
std::string formatResult(int code);

} // namespace zorctl
