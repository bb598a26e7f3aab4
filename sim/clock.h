// Time sources for the virtual focuser. Moves and restarts are computed from
// the clock's reading, so a test that drives a ManualClock sees a move end
// exactly when it advances the clock far enough, without waiting.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zorsim {

using Nanos = std::chrono::nanoseconds;

class Clock {
  public:
    virtual ~Clock() = default;
    // Time since an arbitrary fixed origin; never goes backwards.
    virtual Nanos now() const = 0;
};

class WallClock final : public Clock {
  public:
    Nanos now() const override
    {
        return std::chrono::duration_cast<Nanos>(std::chrono::steady_clock::now().time_since_epoch());
    }
};

// Stands still until advanced. Safe to read from any thread.
class ManualClock final : public Clock {
  public:
    Nanos now() const override { return Nanos(ns_.load(std::memory_order_acquire)); }
    void set(Nanos t) { ns_.store(t.count(), std::memory_order_release); }
    void advance(Nanos d)
    {
        if (d.count() > 0)
            ns_.fetch_add(d.count(), std::memory_order_acq_rel);
    }

  private:
    std::atomic<int64_t> ns_{0};
};

} // namespace zorsim
