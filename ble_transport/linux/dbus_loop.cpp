#include "ble_transport/linux/dbus_loop.h"

#include "support/log.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>

#include <cerrno>
#include <cstdint>
#include <optional>

namespace {
constexpr char kLogModule[] = "LinuxBlueZCentral";
}

DBusLoop::DBusLoop(sdbus::IConnection *bus, Task onBusLost)
    : m_bus(bus), m_onBusLost(std::move(onBusLost)), m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    m_thread = std::thread([this] { run(); });
}

DBusLoop::~DBusLoop()
{
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
    if (m_thread.joinable())
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
}

bool DBusLoop::runTasks()
{
    for (;;) {
        Task task;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
                return false;
            if (m_tasks.empty())
                return true;
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
