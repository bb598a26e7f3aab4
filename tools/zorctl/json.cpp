#include "json.h"

#include <cmath>
#include <cstdio>

namespace zorctl {

Json::Json() = default;
Json::Json(bool value) : m_kind(Kind::Bool), m_text(value ? "true" : "false") {}
Json::Json(int value) : m_kind(Kind::Number), m_text(std::to_string(value)) {}
Json::Json(const char *value) : m_kind(Kind::String), m_text(value) {}
Json::Json(const std::string &value) : m_kind(Kind::String), m_text(value) {}

Json::Json(double value)
{
    if (!std::isfinite(value))
        return; // JSON has no infinities: null
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.10g", value);
    m_kind = Kind::Number;
    m_text = buf;
}

Json Json::object()
{
    Json j;
    j.m_kind = Kind::Object;
    return j;
}

Json Json::array()
{
    Json j;
    j.m_kind = Kind::Array;
    return j;
}

Json &Json::set(const std::string &key, Json value)
{
    m_members.emplace_back(key, std::move(value));
    return *this;
}

Json &Json::push(Json value)
{
    m_elements.push_back(std::move(value));
    return *this;
}

std::string Json::dump() const
{
    std::string out;
    write(out, 0);
    return out;
}

void Json::write(std::string &out, int depth) const
{
    const std::string inner(static_cast<std::size_t>(depth + 1) * 2, ' ');
    const std::string outer(static_cast<std::size_t>(depth) * 2, ' ');
    switch (m_kind) {
    case Kind::Null:
        out += "null";
        break;
    case Kind::Bool:
    case Kind::Number:
        out += m_text;
        break;
    case Kind::String:
        out += jsonQuote(m_text);
        break;
    case Kind::Object:
        if (m_members.empty()) {
            out += "{}";
            break;
        }
        out += "{\n";
        for (std::size_t i = 0; i < m_members.size(); ++i) {
            out += inner + jsonQuote(m_members[i].first) + ": ";
            m_members[i].second.write(out, depth + 1);
            out += i + 1 < m_members.size() ? ",\n" : "\n";
        }
        out += outer + "}";
        break;
    case Kind::Array:
        if (m_elements.empty()) {
            out += "[]";
            break;
        }
        out += "[\n";
        for (std::size_t i = 0; i < m_elements.size(); ++i) {
            out += inner;
            m_elements[i].write(out, depth + 1);
            out += i + 1 < m_elements.size() ? ",\n" : "\n";
        }
        out += outer + "]";
        break;
    }
}

std::string jsonQuote(const std::string &text)
{
    std::string out = "\"";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += ch; // UTF-8 passes through; device texts are ASCII
            }
        }
    }
    return out + "\"";
}

} // namespace zorctl
