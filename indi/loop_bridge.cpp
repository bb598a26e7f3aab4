#include "loop_bridge.h"

#include <libindi/indidevapi.h>

#include <cstdint>
#include <cstdio>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zorindi {

LoopBridge &LoopBridge::instance()
{
    static LoopBridge bridge;
    return bridge;
}

LoopBridge::LoopBridge() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_fd < 0)
        std::perror("indi_zor_focuser: eventfd");
    else
        IEAddCallback(m_fd, onReadable, this);
}

void LoopBridge::post(std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    const std::uint64_t one = 1;
    if (write(m_fd, &one, sizeof one) < 0)
        std::perror("indi_zor_focuser: waking the event loop");
}

void LoopBridge::onReadable(int fd, void *self)
{
    std::uint64_t count = 0;
    if (read(fd, &count, sizeof count) < 0)
        return; // nothing posted since the last read
    static_cast<LoopBridge *>(self)->runPosted();
}

void LoopBridge::runPosted()
{
    std::deque<std::function<void()>> tasks;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        tasks.swap(m_tasks);
    }
    for (auto &task : tasks)
        task();
}

} // namespace zorindi
