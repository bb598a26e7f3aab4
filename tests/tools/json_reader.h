// Reads zorctl's --json output back: a strict JSON parser for the tests
// (objects, arrays, strings with escapes, numbers, true, false, null).
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace zor_test {

struct JsonValue {
    enum class Type { Null, Bool, Number, String, Array, Object } type = Type::Null;
    bool boolean = false;
    double number = 0;
    std::string string;
    std::vector<JsonValue> array;
    std::map<std::string, JsonValue> object;

    // Members and elements; throw std::out_of_range when absent.
    const JsonValue &operator[](const std::string &key) const { return object.at(key); }
    const JsonValue &operator[](std::size_t i) const { return array.at(i); }
    bool isNull() const { return type == Type::Null; }
};

// Throws std::runtime_error on anything but exactly one JSON value
// (surrounding blanks allowed).
JsonValue parseJson(const std::string &text);

} // namespace zor_test
