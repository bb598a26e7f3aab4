// The Alpaca protocol's rules for parameters and answers, apart from what
// any member does: where parameters are read and how their names are
// matched, the values they may take, and the JSON envelope with its
// transaction numbers.
#pragma once

#include "alpaca_focuser.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace zoralpaca {

// A request the server does not understand: answered with HTTP 400 and
// this text.
struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A GET carries its parameters in the query string and their names match
// in any casing; a PUT carries them in its form body, named exactly as the
// API defines them (a name cased otherwise is not that parameter).
class Parameters {
  public:
    explicit Parameters(const httplib::Request &request);

    std::optional<std::string> find(const std::string &name) const;
    // Required parameters; a missing one or a value that is not of the
    // type is a BadRequest.
    bool boolean(const std::string &name) const;
    int integer(const std::string &name) const;
    std::string text(const std::string &name) const;

    // 0 when absent or not a number of 0 .. 4294967295.
    std::uint32_t clientTransactionId() const;

  private:
    std::string required(const std::string &name) const;

    const httplib::Request &m_request;
    const bool m_exactNames;
};

std::optional<std::uint32_t> parseUint32(const std::string &text);
std::optional<int> parseInt32(const std::string &text);
std::optional<bool> parseBool(const std::string &text);

// Numbers every answer of this server, from 1.
class Transactions {
  public:
    std::uint32_t next() { return ++m_last; }

  private:
    std::atomic<std::uint32_t> m_last{0};
};

// The JSON envelope: Value (when the answer has one), the two transaction
// numbers, ErrorNumber and ErrorMessage.
std::string envelope(const Answer &answer, std::uint32_t clientTransactionId,
                     std::uint32_t serverTransactionId);

} // namespace zoralpaca
