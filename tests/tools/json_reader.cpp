#include "json_reader.h"

#include <cstdlib>
#include <cstring>

namespace zor_test {
namespace {

class Parser {
  public:
    explicit Parser(const std::string &text) : m_s(text) {}

    JsonValue document()
    {
        JsonValue v = value();
        blanks();
        if (m_i != m_s.size())
            fail("text after the value");
        return v;
    }

  private:
    [[noreturn]] void fail(const std::string &why)
    {
        throw std::runtime_error("JSON: " + why + " at offset " + std::to_string(m_i));
    }

    void blanks()
    {
        while (m_i < m_s.size() && std::strchr(" \t\r\n", m_s[m_i]))
            ++m_i;
    }

    bool take(char c)
    {
        blanks();
        if (m_i < m_s.size() && m_s[m_i] == c) {
            ++m_i;
            return true;
        }
        return false;
    }

    void expect(char c)
    {
        if (!take(c))
            fail(std::string("expected '") + c + "'");
    }

    bool word(const char *w)
    {
        if (m_s.compare(m_i, std::strlen(w), w) != 0)
            return false;
        m_i += std::strlen(w);
        return true;
    }

    JsonValue value()
    {
        blanks();
        JsonValue v;
        if (m_i >= m_s.size())
            fail("unexpected end");
        const char c = m_s[m_i];
        if (c == '{') {
            v.type = JsonValue::Type::Object;
            ++m_i;
            if (take('}'))
                return v;
            do {
                blanks();
                const std::string key = string();
                expect(':');
                v.object[key] = value();
            } while (take(','));
            expect('}');
        } else if (c == '[') {
            v.type = JsonValue::Type::Array;
            ++m_i;
            if (take(']'))
                return v;
            do
                v.array.push_back(value());
            while (take(','));
            expect(']');
        } else if (c == '"') {
            v.type = JsonValue::Type::String;
            v.string = string();
        } else if (word("true") || word("false")) {
            v.type = JsonValue::Type::Bool;
            v.boolean = c == 't';
        } else if (word("null")) {
        } else {
            const char *start = m_s.c_str() + m_i;
            char *end = nullptr;
            v.number = std::strtod(start, &end);
            if (end == start || !(c == '-' || (c >= '0' && c <= '9')))
                fail("not a value");
            v.type = JsonValue::Type::Number;
            m_i += static_cast<std::size_t>(end - start);
        }
        return v;
    }

    std::string string()
    {
        if (m_i >= m_s.size() || m_s[m_i] != '"')
            fail("expected a string");
        ++m_i;
        std::string out;
        while (m_i < m_s.size() && m_s[m_i] != '"') {
            char c = m_s[m_i++];
            if (static_cast<unsigned char>(c) < 0x20)
                fail("control character in a string");
            if (c == '\\') {
                if (m_i >= m_s.size())
                    fail("unfinished escape");
                const char e = m_s[m_i++];
                const char *from = "\"\\/bfnrt", *to = "\"\\/\b\f\n\r\t";
                if (const char *p = std::strchr(from, e); p && e) {
                    c = to[p - from];
                } else if (e == 'u' && m_i + 4 <= m_s.size()) {
                    c = static_cast<char>(std::strtol(m_s.substr(m_i, 4).c_str(), nullptr, 16));
                    m_i += 4;
                } else {
                    fail("bad escape");
                }
            }
            out += c;
        }
        if (m_i >= m_s.size())
            fail("unfinished string");
        ++m_i;
        return out;
    }

    const std::string &m_s;
    std::size_t m_i = 0;
};

} // namespace

JsonValue parseJson(const std::string &text) { return Parser(text).document(); }

} // namespace zor_test
