// One focuser's worker: the thread that makes every library call for it,
// the commands posted to it, and the snapshot it publishes.
#include "service_state.h"

#include <tuple>

namespace zorservice {
namespace {

// All of a snapshot but its sequence number and time.
auto contentOf(const Snapshot &s)
{
    return std::tie(s.link, s.lastError, s.lastErrorText, s.reconnectAttempts, s.nextReconnect,
                    s.identity.firmware, s.identity.model, s.identity.serial, s.identity.alias,
                    s.identity.transport, s.stepRange, s.position, s.target, s.moving, s.handMoving,
                    s.compensating, s.temperature, s.battery, s.charging, s.maxStep, s.backlash, s.reverse,
                    s.beep, s.led, s.compensation.enabled, s.compensation.stepsPerDegree,
                    s.compensation.threshold, s.compensation.settle, s.compensationReference);
}

} // namespace

FocuserImpl::FocuserImpl(Service::State &service, std::string key)
    : m_service(service), m_key(std::move(key)), m_bluetooth(transportOf(m_key) == Transport::Bluetooth),
      m_thread([this] { run(); })
{
}

FocuserImpl::~FocuserImpl() { shutDown(); }

void FocuserImpl::shutDown()
{
    m_tasks.stop();
    if (m_thread.joinable())
        m_thread.join();
}

void FocuserImpl::run()
{
    while (m_tasks.runUntil(nextDeadline())) {
        if (m_linkDropped.exchange(false) && linkUp())
            loseLink(ZOR_ERROR_BLE_NOT_CONNECTED, "the Bluetooth link dropped");
        const auto now = TaskQueue::Clock::now();
        if (linkUp() && now >= m_nextPoll)
            poll();
        else if (m_lost && now >= m_nextReconnect)
            tryReconnect();
    }
    closeLink();
}

TaskQueue::Clock::time_point FocuserImpl::nextDeadline() const
{
    if (linkUp())
        return m_nextPoll;
    if (m_lost)
        return m_nextReconnect;
    return TaskQueue::Clock::now() + std::chrono::hours(1);
}

Snapshot FocuserImpl::snapshot() const
{
    std::lock_guard<std::mutex> lock(m_snapshotMutex);
    return m_snapshot;
}

void FocuserImpl::setListener(std::function<void()> changed)
{
    std::lock_guard<std::mutex> lock(m_listenerMutex);
    m_listener = std::move(changed);
}

// Applies `change` to the snapshot and, when it changed anything, publishes
// it and tells the listener.
void FocuserImpl::publish(const std::function<void(Snapshot &)> &change)
{
    {
        std::lock_guard<std::mutex> lock(m_snapshotMutex);
        Snapshot next = m_snapshot;
        change(next);
        if (contentOf(next) == contentOf(m_snapshot))
            return;
        next.sequence = m_snapshot.sequence + 1;
        next.time = std::chrono::system_clock::now();
        m_snapshot = std::move(next);
    }
    std::lock_guard<std::mutex> lock(m_listenerMutex);
    if (m_listener)
        m_listener();
}

void FocuserImpl::fail(int code, const std::string &what)
{
    publish([&](Snapshot &s) {
        s.lastError = code;
        s.lastErrorText = what + ": " + resultText(code);
    });
}

// Runs `action` on the worker when the focuser is connected; its code goes
// to `done`, and a failure also to the snapshot.
void FocuserImpl::command(Done done, const char *doing, std::function<int()> action)
{
    m_tasks.post([this, done = std::move(done), doing, action = std::move(action)] {
        const int code = linkUp() ? action() : kNotConnected;
        if (code != ZOR_SUCCESS)
            fail(code, std::string("Failed ") + doing);
        if (done)
            done(code);
    });
}

void FocuserImpl::connect(Done done)
{
    m_tasks.post([this, done = std::move(done)] {
        if (linkUp()) {
            if (done)
                done(ZOR_SUCCESS);
            return;
        }
        closeLink(); // a link being regained is connected now, not at the next attempt
        m_lost = false;
        publish([](Snapshot &s) {
            s.link = Link::Connecting;
            s.reconnectAttempts = 0;
            s.nextReconnect = std::chrono::seconds(0);
        });
        const Outcome outcome = openLink();
        int code = outcome.code;
        if (code == ZOR_SUCCESS) {
            code = finishOpen();
        } else {
            publish([&](Snapshot &s) {
                s.link = Link::Disconnected;
                s.lastError = outcome.code;
                s.lastErrorText = outcome.problem;
            });
        }
        if (done)
            done(code);
    });
}

void FocuserImpl::disconnect(Done done)
{
    m_tasks.post([this, done = std::move(done)] {
        closeLink();
        m_lost = false;
        publish([](Snapshot &s) {
            s.link = Link::Disconnected;
            s.moving = s.handMoving = s.compensating = false;
            s.reconnectAttempts = 0;
            s.nextReconnect = std::chrono::seconds(0);
        });
        if (done)
            done(ZOR_SUCCESS);
    });
}

void FocuserImpl::setPollInterval(std::chrono::milliseconds interval)
{
    m_pollMs = static_cast<int>(std::max<std::chrono::milliseconds::rep>(10, interval.count()));
    m_tasks.wake();
}

void FocuserImpl::bluetoothLinkDropped()
{
    m_linkDropped = true;
    // Shown now, though the worker may still be inside a call that waits
    // on the link: a client must not see a move running over a dead link.
    publish([](Snapshot &s) {
        if (s.link != Link::Connected)
            return;
        s.link = Link::Lost;
        s.moving = s.handMoving = s.compensating = false;
    });
    m_tasks.wake();
}

} // namespace zorservice
