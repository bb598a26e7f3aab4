/* The result-code table as a C99 compiler sees it. This file is compiled
 * with -Wswitch -Werror: a code of the enumeration missing from the table
 * fails the build, and one listed twice is a duplicate case. */
#include "ZOR_result_codes.h"

#include "result_codes_c.h"

const char *zor_c_result_name(int code) { return ZORResultName(code); }
const char *zor_c_result_meaning(int code) { return ZORResultMeaning(code); }
