// Deferred work for a single-threaded event loop: what the radio does a
// moment later (an advertisement seen, a link up, a notification sent).
#pragma once

#include <chrono>
#include <functional>
#include <map>

namespace zorsim {

class Scheduler {
  public:
    using Clock = std::chrono::steady_clock;

    // Runs `task` once `delay` has passed; tasks due at the same moment run
    // in the order they were scheduled.
    void after(std::chrono::milliseconds delay, std::function<void()> task)
    {
        tasks_.emplace(Clock::now() + delay, std::move(task));
    }

    // Milliseconds until the next task is due (0 when one is), -1 when none waits.
    int pollTimeout() const
    {
        if (tasks_.empty())
            return -1;
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(tasks_.begin()->first - Clock::now());
        return wait.count() > 0 ? static_cast<int>(wait.count()) : 0;
    }

    void runDue()
    {
        const Clock::time_point now = Clock::now();
        while (!tasks_.empty() && tasks_.begin()->first <= now) {
            std::function<void()> task = std::move(tasks_.begin()->second);
            tasks_.erase(tasks_.begin());
            task();
        }
    }

  private:
    std::multimap<Clock::time_point, std::function<void()>> tasks_;
};

} // namespace zorsim
