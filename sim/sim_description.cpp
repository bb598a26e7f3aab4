// Reads a description of virtual focusers, as ZOR_SIM gives it:
//
//   entry {"," entry}
//   entry  = [count "*"] model ["@" firmware] [":" reportsize] {"/" option}
//   model  = "pro" | "n" | "zorn" | "old"            (any case)
//   option = "pos=" step | "max=" step | "speed=" steps-per-second
//          | "temp=" celsius (-100 to 250) | "alias=" text | "ble=" text | "sn=" 16 hex digits
//          | "hand" | "noprobe" | "newfw=" firmware | "restart=" milliseconds
//
// For example "pro@382,n@370,old@321:16" or "2*pro/pos=1000/temp=-5.5".
#include "sim/description_values.h"
#include "sim/sim_control.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace zorsim {
namespace {

[[noreturn]] void fail(const std::string &entry, const std::string &why)
{
    throw std::invalid_argument("\"" + entry + "\": " + why);
}

std::string trim(const std::string &s)
{
    std::size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1])))
        --e;
    return s.substr(b, e - b);
}

std::string lower(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        std::size_t at = s.find(sep, start);
        parts.push_back(s.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos)
            return parts;
        start = at + 1;
    }
}

long number(const std::string &entry, const std::string &text, long lo, long hi, const char *what)
{
    const std::optional<long> v = parseDecimal(text);
    if (!v || *v < lo || *v > hi)
        fail(entry, std::string(what) + " must be a whole number from " + std::to_string(lo) + " to " +
                        std::to_string(hi));
    return *v;
}

void applyOption(DeviceConfig &c, const std::string &entry, const std::string &option)
{
    const std::size_t eq = option.find('=');
    const std::string key = lower(option.substr(0, eq));
    const std::string value = eq == std::string::npos ? "" : option.substr(eq + 1);
    const bool hasValue = eq != std::string::npos;
    if (key == "hand" && !hasValue) {
        c.handController = true;
    } else if (key == "noprobe" && !hasValue) {
        c.probeAttached = false;
    } else if (key == "pos" && hasValue) {
        c.position = static_cast<int>(number(entry, value, 0, 600000, "pos"));
    } else if (key == "max" && hasValue) {
        c.maxStep = static_cast<int>(number(entry, value, 0, 600000, "max"));
    } else if (key == "speed" && hasValue) {
        c.stepsPerSecond = static_cast<int>(number(entry, value, 1, 10000000, "speed"));
    } else if (key == "newfw" && hasValue) {
        c.firmwareAfterUpdate = static_cast<int>(number(entry, value, 1, 25599, "newfw"));
    } else if (key == "restart" && hasValue) {
        c.restartTime = std::chrono::milliseconds(number(entry, value, 0, 600000, "restart"));
    } else if (key == "temp" && hasValue) {
        const std::optional<double> celsius = parseProbeCelsius(value);
        if (!celsius)
            fail(entry, "temp must be a number of degrees Celsius from -100 to 250");
        c.temperature = *celsius;
    } else if (key == "alias" && hasValue) {
        if (value.size() > 8)
            fail(entry, "alias holds at most 8 characters");
        c.alias = value;
    } else if (key == "ble" && hasValue) {
        if (value.size() > 11)
            fail(entry, "ble holds at most 11 characters");
        c.bleName = value;
    } else if (key == "sn" && hasValue) {
        if (value.size() != 16 || value.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            fail(entry, "sn must be 16 hexadecimal digits");
        for (std::size_t i = 0; i < 8; ++i)
            c.serial[i] = static_cast<uint8_t>(std::strtoul(value.substr(2 * i, 2).c_str(), nullptr, 16));
    } else {
        fail(entry, "unknown option \"" + option + "\"");
    }
}

} // namespace

std::optional<long> parseDecimal(const std::string &text)
{
    const std::size_t digitsAt = !text.empty() && text[0] == '-' ? 1 : 0;
    if (text.size() == digitsAt || text.find_first_not_of("0123456789", digitsAt) != std::string::npos)
        return std::nullopt;
    errno = 0;
    const long v = std::strtol(text.c_str(), nullptr, 10);
    if (errno != 0)
        return std::nullopt;
    return v;
}

std::optional<double> parseProbeCelsius(const std::string &text)
{
    char *end = nullptr;
    const double celsius = std::strtod(text.c_str(), &end);
    // Written so that nan fails too; inf is out of range.
    if (text.empty() || *end != '\0' || !(celsius >= -100 && celsius <= 250))
        return std::nullopt;
    return celsius;
}

std::vector<DeviceConfig> parseDescription(const std::string &description)
{
    std::vector<DeviceConfig> out;
    if (trim(description).empty())
        return out;
    for (const std::string &raw : split(description, ',')) {
        const std::string entry = trim(raw);
        if (entry.empty())
            fail(raw, "empty entry");
        std::vector<std::string> parts = split(entry, '/');
        std::string head = parts[0];

        long count = 1;
        if (std::size_t star = head.find('*'); star != std::string::npos) {
            count = number(entry, head.substr(0, star), 1, 50, "the count");
            head = head.substr(star + 1);
        }
        const std::size_t colon = head.find(':');
        const std::string size = colon == std::string::npos ? "" : head.substr(colon + 1);
        head = head.substr(0, colon);
        const std::size_t at = head.find('@');
        const std::string firmware = at == std::string::npos ? "" : head.substr(at + 1);
        head = head.substr(0, at);

        DeviceConfig c;
        const std::string model = lower(head);
        if (model == "pro") {
            c.model = Model::Pro;
            c.firmware = 382;
        } else if (model == "n" || model == "zorn") {
            c.model = Model::N;
            c.firmware = 370;
        } else if (model == "old") {
            c.model = Model::Old;
            c.firmware = 321;
            c.reportSize = 16;
        } else {
            fail(entry, "the model must be pro, n or old");
        }
        if (at != std::string::npos)
            c.firmware = static_cast<int>(number(entry, firmware, 0, 25599, "the firmware version"));
        if (colon != std::string::npos) {
            if (size != "16" && size != "64")
                fail(entry, "the report size must be 16 or 64");
            c.reportSize = size == "16" ? 16 : 64;
        }
        for (std::size_t i = 1; i < parts.size(); ++i)
            applyOption(c, entry, trim(parts[i]));
        out.insert(out.end(), static_cast<std::size_t>(count), c);
    }
    return out;
}

} // namespace zorsim
