// Moves, the focuser's settings, and temperature compensation, as the
// worker carries them out.
#include "service_state.h"

#include <algorithm>
#include <limits>
#include <thread>

namespace zorservice {
namespace {

constexpr int kMaxBacklash = 255;
constexpr std::size_t kMaxBluetoothName = 11;
constexpr auto kStopLimit = std::chrono::seconds(5);
constexpr auto kStopPoll = std::chrono::milliseconds(20);

} // namespace

// A focuser that is moving refuses a new target (5): a retarget stops it,
// waits until it is still, and then moves.
int FocuserImpl::startMove(int target, bool compensating)
{
    const int maxStep = snapshot().maxStep;
    target = std::clamp(target, 0, maxStep > 0 ? maxStep : std::numeric_limits<int>::max());
    int code;
    {
        auto tables = callLock();
        code = ZORMove(m_id, target);
    }
    if (code == ZOR_ERROR_MOVING) {
        code = stopAndWait();
        if (code == ZOR_SUCCESS) {
            auto tables = callLock();
            code = ZORMove(m_id, target);
        }
    }
    if (code == ZOR_SUCCESS)
        publish([&](Snapshot &s) {
            s.target = target;
            s.moving = true;
            s.compensating = compensating;
        });
    return code;
}

int FocuserImpl::stopAndWait()
{
    auto tables = callLock();
    int code = ZORStop(m_id);
    const auto limit = TaskQueue::Clock::now() + kStopLimit;
    bool moving = true, hand = false;
    while (code == ZOR_SUCCESS && TaskQueue::Clock::now() < limit) {
        code = ZORIsMoving(m_id, &moving, &hand);
        if (code != ZOR_SUCCESS || !moving)
            break;
        std::this_thread::sleep_for(kStopPoll);
    }
    return code == ZOR_SUCCESS && moving ? ZOR_ERROR_MOVING : code;
}

// A client's move sets focus anew: compensation starts again from the
// temperature at rest, after the settling time.
void FocuserImpl::moveTo(int target, Done done)
{
    command(std::move(done), "starting a move", [this, target] {
        m_lastClientMove = TaskQueue::Clock::now();
        m_compensation.forget();
        publish([](Snapshot &s) { s.compensationReference.reset(); });
        return startMove(target, false);
    });
}

void FocuserImpl::moveBy(int steps, Done done)
{
    command(std::move(done), "starting a move", [this, steps] {
        m_lastClientMove = TaskQueue::Clock::now();
        m_compensation.forget();
        publish([](Snapshot &s) { s.compensationReference.reset(); });
        const long long target = static_cast<long long>(snapshot().position) + steps;
        return startMove(static_cast<int>(std::clamp<long long>(target, 0, std::numeric_limits<int>::max())),
                         false);
    });
}

void FocuserImpl::stop(Done done)
{
    command(std::move(done), "stopping", [this] {
        int code;
        {
            auto tables = callLock();
            code = ZORStop(m_id);
        }
        if (code == ZOR_SUCCESS)
            publish([](Snapshot &s) { s.compensating = false; });
        return code;
    });
}

void FocuserImpl::sync(int position, Done done)
{
    command(std::move(done), "setting the position", [this, position] {
        if (position < 0 || position > snapshot().maxStep)
            return kOutOfRange;
        int code;
        {
            auto tables = callLock();
            code = ZORResetPostion(m_id, position);
        }
        if (code != ZOR_SUCCESS)
            return code;
        m_compensation.forget();
        publish([&](Snapshot &s) {
            s.position = s.target = position;
            s.compensationReference.reset();
        });
        return code;
    });
}

// The maximum is bounded by the firmware's range, and a maximum below the
// position is refused: the focuser would stand outside its own travel.
int FocuserImpl::applyMaxStep(int steps)
{
    const Snapshot now = snapshot();
    if (steps < 1 || (now.stepRange > 0 && steps > now.stepRange))
        return kOutOfRange;
    if (steps < now.position || (now.moving && steps < now.target))
        return kBelowPosition;
    auto tables = callLock();
    int code = ZORSetMaxStep(m_id, steps);
    int applied = 0;
    if (code == ZOR_SUCCESS)
        code = ZORGetMaxStep(m_id, &applied);
    if (tables.owns_lock())
        tables.unlock();
    if (code == ZOR_SUCCESS)
        publish([&](Snapshot &s) { s.maxStep = applied; });
    return code;
}

void FocuserImpl::setMaxStep(int steps, Done done)
{
    command(std::move(done), "setting the maximum step", [this, steps] { return applyMaxStep(steps); });
}

void FocuserImpl::setBacklash(int steps, Done done)
{
    command(std::move(done), "setting the backlash", [this, steps] {
        if (steps < 0 || steps > kMaxBacklash)
            return kOutOfRange;
        int code;
        {
            auto tables = callLock();
            code = ZORSetBacklash(m_id, steps);
        }
        if (code == ZOR_SUCCESS)
            publish([&](Snapshot &s) { s.backlash = steps; });
        return code;
    });
}

void FocuserImpl::setReverse(bool on, Done done)
{
    command(std::move(done), "setting the direction", [this, on] {
        int code;
        {
            auto tables = callLock();
            code = ZORSetReverse(m_id, on);
        }
        if (code == ZOR_SUCCESS)
            publish([&](Snapshot &s) { s.reverse = on; });
        return code;
    });
}

void FocuserImpl::setBeep(bool on, Done done)
{
    command(std::move(done), "switching the beep", [this, on] {
        int code;
        {
            auto tables = callLock();
            code = ZORSetBeep(m_id, on);
        }
        if (code == ZOR_SUCCESS)
            publish([&](Snapshot &s) { s.beep = on; });
        return code;
    });
}

void FocuserImpl::setLed(bool on, Done done)
{
    command(std::move(done), "switching the LED", [this, on] {
        int code;
        {
            auto tables = callLock();
            code = ZORSetLedState(m_id, on);
        }
        if (code == ZOR_SUCCESS)
            publish([&](Snapshot &s) { s.led = on; });
        return code;
    });
}

void FocuserImpl::setBluetoothName(const std::string &name, Done done)
{
    command(std::move(done), "setting the Bluetooth name", [this, name] {
        if (name.empty() || name.size() > kMaxBluetoothName)
            return kOutOfRange;
        std::string text = name; // the library takes a writable string
        auto tables = callLock();
        return static_cast<int>(ZORSetBLEName(m_id, text.data()));
    });
}

// Settings apply whether or not the focuser is connected; a change starts
// compensation again from the temperature at rest.
void FocuserImpl::setCompensation(const CompensationSettings &settings, Done done)
{
    m_tasks.post([this, settings, done = std::move(done)] {
        const bool valid = settings.threshold > 0 && settings.settle.count() >= 0;
        if (valid) {
            m_compensationSettings = settings;
            m_compensation.forget();
            publish([&](Snapshot &s) {
                s.compensation = settings;
                s.compensationReference.reset();
            });
        }
        if (done)
            done(valid ? ZOR_SUCCESS : kOutOfRange);
    });
}

// Only a focuser at rest is compensated, and not while a client's moves
// are settling, so a move of the user's, of an autofocus run or of the hand
// controller is never changed under it.
void FocuserImpl::compensate()
{
    const Snapshot now = snapshot();
    if (!m_compensationSettings.enabled || now.moving || !now.temperature || now.link == Link::Lost)
        return;
    if (m_lastClientMove && TaskQueue::Clock::now() - *m_lastClientMove < m_compensationSettings.settle)
        return;
    const double celsius = *now.temperature;
    if (!m_compensation.reference()) {
        m_compensation.setReference(celsius);
        publish([&](Snapshot &s) { s.compensationReference = celsius; });
        return;
    }
    const int steps = m_compensation.stepsDue(celsius, m_compensationSettings.stepsPerDegree,
                                              m_compensationSettings.threshold);
    if (steps == 0)
        return;
    publish([&](Snapshot &s) { s.compensationReference = m_compensation.reference(); });
    const int code = startMove(now.position + steps, true);
    if (code != ZOR_SUCCESS)
        fail(code, "Failed a compensation move");
}

} // namespace zorservice
