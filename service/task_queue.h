// The queue of a service thread: commands posted from any thread, run in
// order on the one thread that calls runUntil().
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace zorservice {

class TaskQueue {
  public:
    using Clock = std::chrono::steady_clock;

    void post(std::function<void()> task)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_tasks.push_back(std::move(task));
        }
        m_wake.notify_one();
    }

    // Ends the next (or the current) wait; pending tasks still run.
    void wake()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_woken = true;
        }
        m_wake.notify_one();
    }

    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_wake.notify_one();
    }

    // Waits until `deadline`, a task, a wake() or stop(), then runs the
    // tasks that are waiting. False once stop() was called (after the
    // remaining tasks ran).
    bool runUntil(Clock::time_point deadline)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait_until(lock, deadline, [this] { return m_stopping || m_woken || !m_tasks.empty(); });
        m_woken = false;
        while (!m_tasks.empty()) {
            std::function<void()> task = std::move(m_tasks.front());
            m_tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
        return !m_stopping;
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_tasks;
    bool m_woken = false;
    bool m_stopping = false;
};

} // namespace zorservice
