#include "alpaca_protocol.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <strings.h>

namespace zoralpaca {
namespace {

bool decimalDigits(const std::string &text, std::size_t from)
{
    if (text.size() <= from || text.size() - from > 11)
        return false;
    for (std::size_t i = from; i < text.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(text[i])))
            return false;
    return true;
}

} // namespace

std::optional<std::uint32_t> parseUint32(const std::string &text)
{
    if (!decimalDigits(text, 0))
        return std::nullopt;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (value > UINT32_MAX)
        return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

std::optional<int> parseInt32(const std::string &text)
{
    const std::size_t digits = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (!decimalDigits(text, digits))
        return std::nullopt;
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    if (value < INT_MIN || value > INT_MAX)
        return std::nullopt;
    return static_cast<int>(value);
}

std::optional<bool> parseBool(const std::string &text)
{
    if (strcasecmp(text.c_str(), "true") == 0)
        return true;
    if (strcasecmp(text.c_str(), "false") == 0)
        return false;
    return std::nullopt;
}

Parameters::Parameters(const httplib::Request &request)
    : m_request(request), m_exactNames(request.method != "GET")
{
}

std::optional<std::string> Parameters::find(const std::string &name) const
{
    for (const auto &[key, value] : m_request.params)
        if (m_exactNames ? key == name : strcasecmp(key.c_str(), name.c_str()) == 0)
            return value;
    return std::nullopt;
}

std::string Parameters::required(const std::string &name) const
{
    auto value = find(name);
    if (!value)
        throw BadRequest(
            "Missing parameter " + name +
            (m_exactNames ? " (a PUT parameter is named with this exact casing, in the form body)" : ""));
    return *value;
}

bool Parameters::boolean(const std::string &name) const
{
    const std::string value = required(name);
    if (auto parsed = parseBool(value))
        return *parsed;
    throw BadRequest("Parameter " + name + " must be true or false, not \"" + value.substr(0, 40) + "\"");
}

int Parameters::integer(const std::string &name) const
{
    const std::string value = required(name);
    if (auto parsed = parseInt32(value))
        return *parsed;
    throw BadRequest("Parameter " + name + " must be a whole number of -2147483648 .. 2147483647, not \"" +
                     value.substr(0, 40) + "\"");
}

std::string Parameters::text(const std::string &name) const { return required(name); }

std::uint32_t Parameters::clientTransactionId() const
{
    auto value = find("ClientTransactionID");
    return value ? parseUint32(*value).value_or(0) : 0;
}

std::string envelope(const Answer &answer, std::uint32_t clientTransactionId,
                     std::uint32_t serverTransactionId)
{
    nlohmann::json body;
    if (answer.errorNumber == 0 && !answer.value.is_null())
        body["Value"] = answer.value;
    body["ClientTransactionID"] = clientTransactionId;
    body["ServerTransactionID"] = serverTransactionId;
    body["ErrorNumber"] = answer.errorNumber;
    body["ErrorMessage"] = answer.errorMessage;
    // Texts from a focuser (names, aliases) are not trusted to be UTF-8.
    return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace zoralpaca
