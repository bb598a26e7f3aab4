// What zorctl says about a library result code: the name and meaning from
// the library's table (ZOR_result_codes.h), and zorctl's own hint on top.
#pragma once

#include <string>

namespace zorctl {

struct ResultText {
    std::string name;    // the enumerator, e.g. "ZOR_ERROR_MOVING"
    std::string meaning; // what it means for someone at the telescope
};

// A code the library does not declare gets a generic text.
ResultText describeResult(int code);

// "ZOR_ERROR_MOVING (5): the focuser is moving; ..."
std::string formatResult(int code);

} // namespace zorctl
