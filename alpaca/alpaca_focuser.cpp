#include "alpaca_focuser.h"

#include "ZOR_focuser.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <future>

namespace zoralpaca {
namespace {

using zorservice::Link;
using zorservice::Snapshot;

// A Bluetooth connect may scan and pair first: the library's own limits
// (a scan, 10 s to connect, 5 s per exchange) stay below this.
constexpr auto kConnectedLimit = std::chrono::seconds(40);

// "2026-11-24T08:01:54.123Z", as DeviceState's TimeStamp wants it.
std::string isoTime(std::chrono::system_clock::time_point time)
{
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(millis));
    return text;
}

std::string linkProblem(const Snapshot &s)
{
    if (s.link == Link::Lost)
        return "the link to the focuser is lost; reconnecting (attempt " +
               std::to_string(s.reconnectAttempts + 1) + ")" +
               (s.lastErrorText.empty() ? "" : ": " + s.lastErrorText);
    return "the focuser is not connected";
}

} // namespace

Answer answerForCode(int code)
{
    const std::string text = zorservice::resultText(code);
    switch (code) {
    case ZOR_SUCCESS:
        return Answer::done();
    case zorservice::kNotConnected:
        return Answer::error(kNotConnected, text);
    case zorservice::kOutOfRange:
    case zorservice::kBelowPosition:
    case ZOR_ERROR_INVALID_VALUE:
        return Answer::error(kInvalidValue, text);
    case ZOR_ERROR_MOVING:
        return Answer::error(kInvalidOperation, text);
    default:
        if (code >= zorservice::kNotConnected)
            return Answer::error(kServiceErrorBase + (code - zorservice::kNotConnected), text);
        return Answer::error(kLibraryErrorBase + (code & 0xff), text);
    }
}

AlpacaFocuser::AlpacaFocuser(std::shared_ptr<zorservice::Focuser> focuser, std::string name,
                             std::string uniqueId)
    : m_focuser(std::move(focuser)), m_name(std::move(name)), m_uniqueId(std::move(uniqueId))
{
}

std::optional<Answer> AlpacaFocuser::notConnected(const Snapshot &s) const
{
    if (s.link == Link::Connected)
        return std::nullopt;
    return Answer::error(kNotConnected, linkProblem(s));
}

// ---------------------------------------------------------------- common members

Answer AlpacaFocuser::connected() const { return Answer::of(m_focuser->snapshot().link == Link::Connected); }

// Connected = true|false returns once the focuser is (dis)connected, as
// clients that predate Connect() expect; the wait is on the worker's
// completion, with a limit.
Answer AlpacaFocuser::waitFor(void (zorservice::Focuser::*call)(zorservice::Done), bool connecting)
{
    auto outcome = std::make_shared<std::promise<int>>();
    auto posted = m_posted;
    {
        std::lock_guard<std::mutex> lock(posted->mutex);
        posted->linkFailure = 0; // this call answers with its own outcome
    }
    ++posted->linkChanges;
    (m_focuser.get()->*call)([outcome, posted](int code) {
        --posted->linkChanges;
        outcome->set_value(code);
    });
    auto result = outcome->get_future();
    if (result.wait_for(kConnectedLimit) != std::future_status::ready)
        return Answer::error(kStillWorking, connecting ? "the focuser is still connecting"
                                                       : "the focuser is still disconnecting");
    const int code = result.get();
    if (code == ZOR_SUCCESS)
        return Answer::done();
    const Snapshot s = m_focuser->snapshot();
    Answer failed = answerForCode(code);
    if (!s.lastErrorText.empty())
        failed.errorMessage = s.lastErrorText;
    return failed;
}

Answer AlpacaFocuser::setConnected(bool on)
{
    return on ? waitFor(&zorservice::Focuser::connect, true)
              : waitFor(&zorservice::Focuser::disconnect, false);
}

zorservice::Done AlpacaFocuser::linkChangeDone(std::shared_ptr<Posted> posted)
{
    return [posted](int code) {
        {
            std::lock_guard<std::mutex> lock(posted->mutex);
            posted->linkFailure = code;
        }
        --posted->linkChanges;
    };
}

Answer AlpacaFocuser::connect()
{
    auto posted = m_posted;
    ++posted->linkChanges;
    m_focuser->connect(linkChangeDone(posted));
    return Answer::done();
}

Answer AlpacaFocuser::disconnect()
{
    auto posted = m_posted;
    ++posted->linkChanges;
    m_focuser->disconnect(linkChangeDone(posted));
    return Answer::done();
}

Answer AlpacaFocuser::connecting()
{
    const Snapshot s = m_focuser->snapshot();
    if (m_posted->linkChanges > 0 || s.link == Link::Connecting)
        return Answer::of(true);
    int failure = 0;
    {
        std::lock_guard<std::mutex> lock(m_posted->mutex);
        std::swap(failure, m_posted->linkFailure);
    }
    if (failure == ZOR_SUCCESS)
        return Answer::of(false);
    Answer failed = answerForCode(failure);
    if (!s.lastErrorText.empty())
        failed.errorMessage = s.lastErrorText;
    return failed;
}

Answer AlpacaFocuser::deviceState() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    nlohmann::json state = nlohmann::json::array();
    state.push_back({{"Name", "IsMoving"}, {"Value", s.moving || m_posted->moves > 0}});
    state.push_back({{"Name", "Position"}, {"Value", s.position}});
    if (s.temperature)
        state.push_back({{"Name", "Temperature"}, {"Value", *s.temperature}});
    state.push_back({{"Name", "TimeStamp"}, {"Value", isoTime(s.time)}});
    return Answer::of(std::move(state));
}

Answer AlpacaFocuser::description() const
{
    const Snapshot s = m_focuser->snapshot();
    if (s.link == Link::Connected && !s.identity.model.empty())
        return Answer::of(s.identity.model + " motorised focuser" +
                          (s.identity.serial.empty() ? "" : ", serial " + s.identity.serial) +
                          (s.identity.firmware.empty() ? "" : ", firmware " + s.identity.firmware));
    return Answer::of("ZOR motorised focuser (" + m_focuser->key() + ")");
}

// ---------------------------------------------------------------- focuser members

Answer AlpacaFocuser::absolute() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    return Answer::of(true);
}

Answer AlpacaFocuser::isMoving() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    return Answer::of(s.moving || m_posted->moves > 0);
}

// A move may cover the whole travel.
Answer AlpacaFocuser::maxIncrement() const { return maxStep(); }

Answer AlpacaFocuser::maxStep() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    return Answer::of(s.maxStep);
}

Answer AlpacaFocuser::position() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    return Answer::of(s.position);
}

Answer AlpacaFocuser::stepSize() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    return Answer::error(kNotImplemented,
                         "StepSize is not implemented: the focuser does not know the travel of one "
                         "step, which depends on the drawtube it drives");
}

zorservice::CompensationSettings AlpacaFocuser::compensationShown(const Snapshot &s) const
{
    std::lock_guard<std::mutex> lock(m_posted->mutex);
    return m_posted->compensationChanges > 0 ? m_posted->compensation : s.compensation;
}

Answer AlpacaFocuser::tempComp() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    return Answer::of(s.temperature.has_value() && compensationShown(s).enabled);
}

Answer AlpacaFocuser::setTempComp(bool on)
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    if (!s.temperature)
        return Answer::error(kNotImplemented,
                             "TempComp cannot be set: this focuser has no temperature probe");
    zorservice::CompensationSettings settings = compensationShown(s);
    settings.enabled = on;
    setCompensation(settings);
    return Answer::done();
}

void AlpacaFocuser::setCompensation(const zorservice::CompensationSettings &settings)
{
    auto posted = m_posted;
    {
        std::lock_guard<std::mutex> lock(posted->mutex);
        ++posted->compensationChanges;
        posted->compensation = settings;
    }
    m_focuser->setCompensation(settings, [posted](int) {
        std::lock_guard<std::mutex> lock(posted->mutex);
        --posted->compensationChanges;
    });
}

Answer AlpacaFocuser::tempCompAvailable() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    return Answer::of(s.temperature.has_value());
}

Answer AlpacaFocuser::temperature() const
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    if (!s.temperature)
        return Answer::error(kNotImplemented,
                             "Temperature is not implemented: this focuser has no temperature probe");
    return Answer::of(*s.temperature);
}

Answer AlpacaFocuser::halt()
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    m_focuser->stop();
    return Answer::done();
}

// The service clamps the target to 0 .. MaxStep and turns a move while
// moving into a retarget. IsMoving is true from this answer on: the posted
// move counts until the worker has started it and published that.
Answer AlpacaFocuser::move(int target)
{
    const Snapshot s = m_focuser->snapshot();
    if (auto refused = notConnected(s))
        return *refused;
    auto posted = m_posted;
    ++posted->moves;
    m_focuser->moveTo(target, [posted](int) { --posted->moves; });
    return Answer::done();
}

} // namespace zoralpaca
