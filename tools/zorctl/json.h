// The small JSON writer behind --json: objects keep the order their keys
// were added in, so the output reads like the plain-text form.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zorctl {

class Json {
  public:
    Json();                         // null
    Json(bool value);               // NOLINT: implicit on purpose, like the JSON types
    Json(int value);                // NOLINT
    Json(double value);             // NOLINT
    Json(const char *value);        // NOLINT
    Json(const std::string &value); // NOLINT

    static Json object();
    static Json array();

    // Adds a member (objects) or an element (arrays); returns *this.
    Json &set(const std::string &key, Json value);
    Json &push(Json value);

    // Indented by two spaces per level, ending without a newline.
    std::string dump() const;

  private:
    enum class Kind { Null, Bool, Number, String, Object, Array };
    void write(std::string &out, int depth) const;

    Kind m_kind = Kind::Null;
    std::string m_text; // the literal of a bool or number, or the string
    std::vector<std::pair<std::string, Json>> m_members;
    std::vector<Json> m_elements;
};

// A JSON string literal, quotes included.
std::string jsonQuote(const std::string &text);

} // namespace zorctl
