// The three ways a zorctl command ends in failure.
#pragma once

#include "ZOR_focuser.h"

#include <stdexcept>
#include <string>

namespace zorctl {

// A library call that did not succeed: what zorctl was doing and the code.
class Failure : public std::runtime_error {
  public:
    Failure(const std::string &doing, int code);
    int code() const { return m_code; }

  private:
    int m_code;
};

// A problem zorctl finds itself: a file it cannot read, a value this
// focuser cannot take.
class UserError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// An argument that CLI parsing let through but the command cannot use; it
// is answered with the command's usage.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Throws Failure unless `code` is ZOR_SUCCESS.
void check(ZOR_ERROR_CODE code, const std::string &doing);

// Prints "zorctl: message" on standard error, after what stdout holds.
void printError(const std::string &message);

// Exit statuses.
constexpr int kFailedExit = 1;
constexpr int kUsageExit = 2;

} // namespace zorctl
