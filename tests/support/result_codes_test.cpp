// The table of result-code names and meanings holds every code of the public
// header's enumeration once, in its order, with its value.
#include "ZOR_result_codes.h"

#include "result_codes_c.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Codes = std::vector<std::pair<std::string, int>>;

// The enumerators of ZOR_ERROR_CODE as the header's text declares them.
Codes headerCodes()
{
    std::ifstream in(ZOR_PUBLIC_HEADER);
    std::stringstream text;
    text << in.rdbuf();
    const std::string header = text.str();
    std::smatch body;
    EXPECT_TRUE(std::regex_search(header, body, std::regex(R"(enum _ZOR_ERROR_CODE \{([^}]*)\})")));
    Codes codes;
    const std::string enumerators = body[1];
    const std::regex enumerator(R"((ZOR_\w+)\s*=\s*(\d+))");
    for (auto it = std::sregex_iterator(enumerators.begin(), enumerators.end(), enumerator);
         it != std::sregex_iterator(); ++it)
        codes.emplace_back((*it)[1], std::stoi((*it)[2]));
    return codes;
}

TEST(ResultCodes, TheTableListsEveryCodeOfTheHeaderOnce)
{
    Codes table;
#define ZOR_TEST_ENTRY(name, meaning) table.emplace_back(#name, name);
    ZOR_RESULT_CODES(ZOR_TEST_ENTRY)
#undef ZOR_TEST_ENTRY
    const Codes header = headerCodes();
    ASSERT_EQ(header.size(), 24u) << "the enumeration was read from " << ZOR_PUBLIC_HEADER;
    EXPECT_EQ(table, header);

    for (const auto &[name, value] : header) {
        SCOPED_TRACE(name);
        ASSERT_NE(ZORResultName(value), nullptr);
        EXPECT_EQ(ZORResultName(value), name);
        EXPECT_STRNE(ZORResultMeaning(value), "");
        EXPECT_STREQ(zor_c_result_name(value), ZORResultName(value));
        EXPECT_STREQ(zor_c_result_meaning(value), ZORResultMeaning(value));
    }
    for (int unknown : {-1, 12, 49, 61, 63})
        EXPECT_EQ(ZORResultName(unknown), nullptr) << unknown;
}

} // namespace
