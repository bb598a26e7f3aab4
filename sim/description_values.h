// Values as a ZOR_SIM description writes them, read the same way wherever
// else the virtual focusers take them (the control socket).
#pragma once

#include <optional>
#include <string>

namespace zorsim {

// Plain decimal digits with a minus sign at most; nullopt for anything else
// ("+7", "0x10", "1e3", blanks) or a value beyond long.
std::optional<long> parseDecimal(const std::string &text);
// A probe temperature: a number of degrees Celsius from -100 to 250;
// nullopt otherwise (nan included).
std::optional<double> parseProbeCelsius(const std::string &text);

} // namespace zorsim
