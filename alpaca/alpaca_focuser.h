// One focuser as Alpaca clients see it: each member of the focuser
// interface (version 4) answered from the service's snapshot, and each
// command posted to the service's worker. Nothing here waits on a link,
// except Connected = true|false, which the standard defines as a call that
// returns once the focuser is (dis)connected (bounded).
#pragma once

#include "focuser_service.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace zoralpaca {

// ASCOM's reserved error numbers.
constexpr int kNotImplemented = 0x400;
constexpr int kInvalidValue = 0x401;
constexpr int kNotConnected = 0x407;
constexpr int kInvalidOperation = 0x40B;
constexpr int kActionNotImplemented = 0x40C;
// Driver errors: 0x500 + the library's result code, 0x600 + the service's
// own code (counted from kNotConnected's 1000).
constexpr int kLibraryErrorBase = 0x500;
constexpr int kServiceErrorBase = 0x600;
// Connected = true|false gave up waiting for the worker.
constexpr int kStillWorking = 0x6FF;

// What a member answers: a value (none for a method), or an error.
struct Answer {
    nlohmann::json value;
    int errorNumber = 0;
    std::string errorMessage;

    static Answer of(nlohmann::json v) { return {std::move(v), 0, {}}; }
    static Answer done() { return {}; }
    static Answer error(int number, std::string message) { return {nullptr, number, std::move(message)}; }
};

// The Alpaca error for a service or library outcome.
Answer answerForCode(int code);

class AlpacaFocuser {
  public:
    AlpacaFocuser(std::shared_ptr<zorservice::Focuser> focuser, std::string name, std::string uniqueId);

    const std::string &key() const { return m_focuser->key(); }
    const std::string &name() const { return m_name; }
    const std::string &uniqueId() const { return m_uniqueId; }
    zorservice::Focuser &focuser() { return *m_focuser; }

    // Common members.
    Answer connected() const;
    Answer setConnected(bool on);
    Answer connect();
    Answer disconnect();
    // False once Connect() or Disconnect() is done; the read that finds a
    // failed one answers with its error instead, once.
    Answer connecting();
    Answer deviceState() const;
    Answer description() const;

    // Focuser members.
    Answer absolute() const;
    Answer isMoving() const;
    Answer maxIncrement() const;
    Answer maxStep() const;
    Answer position() const;
    Answer stepSize() const;
    Answer tempComp() const;
    Answer setTempComp(bool on);
    Answer tempCompAvailable() const;
    Answer temperature() const;
    Answer halt();
    Answer move(int target);

    // The compensation the setup page sets: coefficient and threshold, and
    // whether it runs (the same switch as TempComp).
    void setCompensation(const zorservice::CompensationSettings &settings);

  private:
    // Nothing when the focuser is connected, else the error every member that needs it answers.
    std::optional<Answer> notConnected(const zorservice::Snapshot &s) const;
    Answer waitFor(void (zorservice::Focuser::*call)(zorservice::Done), bool connecting);
    zorservice::CompensationSettings compensationShown(const zorservice::Snapshot &s) const;

    std::shared_ptr<zorservice::Focuser> m_focuser;
    const std::string m_name;
    const std::string m_uniqueId;

    // Commands posted and not yet carried out by the worker: a client reads
    // their effect from the moment its request was answered. Shared with
    // the completions, which may run after this object is gone.
    struct Posted {
        std::atomic<int> moves{0};
        std::atomic<int> linkChanges{0};
        std::mutex mutex; // the three below
        int compensationChanges = 0;
        zorservice::CompensationSettings compensation; // the last one posted
        int linkFailure = 0; // how the last Connect() or Disconnect() failed, until Connecting tells it
    };
    // The completion of a posted Connect() or Disconnect().
    static zorservice::Done linkChangeDone(std::shared_ptr<Posted> posted);
    std::shared_ptr<Posted> m_posted = std::make_shared<Posted>();
};

} // namespace zoralpaca
