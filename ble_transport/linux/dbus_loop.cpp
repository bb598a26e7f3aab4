#include "ble_transport/linux/dbus_loop.h"

#include "support/log.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <set>

namespace {

constexpr char kLogModule[] = "LinuxBlueZCentral";

// At the end, messages still queued for the bus get this long to go out.
constexpr std::chrono::milliseconds kFlushPoll{50};
constexpr int kFlushRounds = 20;

// The loops still running. A process ends with its loop alive (the platform
// manager is never destroyed); its thread must stop before sd-bus's own
// statics are destroyed at exit, or it would use them while they go.
std::mutex g_liveMutex;
std::set<DBusLoop *> g_live;

void stopLiveLoops()
{
    std::lock_guard<std::mutex> lock(g_liveMutex);
    for (DBusLoop *loop : g_live)
        loop->stop();
}

void stopLoopsAtExit()
{
    static const bool registered = [] {
        // Handlers run in reverse order of registration, statics' destructors
        // included: so sd-bus's message statics are made first, here.
        const sdbus::Variant makeStatics(false);
        return std::atexit(stopLiveLoops) == 0;
    }();
    (void)registered;
}

} // namespace

DBusLoop::DBusLoop(sdbus::IConnection *bus, Task onBusLost)
    : m_bus(bus), m_onBusLost(std::move(onBusLost)), m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    stopLoopsAtExit();
    m_thread = std::thread([this] { run(); });
    std::lock_guard<std::mutex> lock(g_liveMutex);
    g_live.insert(this);
}

DBusLoop::~DBusLoop()
{
    {
        std::lock_guard<std::mutex> lock(g_liveMutex);
        g_live.erase(this);
    }
    stop();
    close(m_wakeFd);
}

void DBusLoop::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    post(nullptr);
    // The loop's own thread (exit called from a callback) cannot join itself.
    if (m_thread.joinable() && std::this_thread::get_id() != m_thread.get_id())
        m_thread.join();
}

void DBusLoop::post(Task task)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (task)
            m_tasks.push_back(std::move(task));
    }
    const uint64_t one = 1;
    // The counter only saturates, it cannot fail otherwise.
    [[maybe_unused]] ssize_t written = write(m_wakeFd, &one, sizeof one);
}

void DBusLoop::run()
{
    while (runTasks()) {
        processMessages();
        waitForActivity();
    }
    flushOutgoing();
}

bool DBusLoop::runTasks()
{
    for (;;) {
        Task task;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // What was posted before the stop still runs.
            if (m_tasks.empty())
                return !m_stopping;
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        try {
            task();
        } catch (const std::exception &error) {
            ZOR_LOG("D-Bus task failed: %s", error.what());
        }
    }
}

void DBusLoop::processMessages()
{
    if (!m_bus)
        return;
    try {
        while (m_bus->processPendingRequest()) {
        }
    } catch (const std::exception &error) {
        // A handler's failure does not stop the loop; a closed connection does.
        ZOR_LOG("D-Bus message handling failed: %s", error.what());
    }
}

void DBusLoop::flushOutgoing()
{
    for (int round = 0; m_bus && round < kFlushRounds; ++round) {
        std::optional<sdbus::IConnection::PollData> data = pollData();
        // sd-bus asks to be woken for writing while messages wait to go out.
        if (!data || !(data->events & POLLOUT))
            return;
        struct pollfd fd = {data->fd, POLLOUT, 0};
        poll(&fd, 1, static_cast<int>(kFlushPoll.count()));
        processMessages();
    }
}

std::optional<sdbus::IConnection::PollData> DBusLoop::pollData()
{
    try {
        return m_bus->getEventLoopPollData();
    } catch (const sdbus::Error &error) {
        ZOR_LOG("D-Bus connection lost: %s", error.what());
    }
    m_bus = nullptr;
    if (m_onBusLost)
        m_onBusLost();
    return std::nullopt;
}

void DBusLoop::waitForActivity()
{
    struct pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {-1, 0, 0}};
    int timeout = -1;
    if (m_bus) {
        if (const std::optional<sdbus::IConnection::PollData> data = pollData()) {
            fds[1] = {data->fd, data->events, 0};
            timeout = data->getPollTimeout();
        }
    }
    if (poll(fds, m_bus ? 2 : 1, timeout) < 0 && errno != EINTR)
        ZOR_LOG("poll failed: errno %d", errno);
    uint64_t count = 0;
    [[maybe_unused]] ssize_t drained = read(m_wakeFd, &count, sizeof count);
}
