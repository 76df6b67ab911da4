#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "core/ports/clock.hpp"

namespace virela {

// A clock whose time moves only when a test advances it. Work runs on the caller's thread,
// in due-time order (ties in scheduling order), exactly as the main executor would run it.
class ManualClock final : public VirelaClock {
  public:
    // 2026-11-21T00:00:00Z unless a test needs another start.
    static constexpr double defaultStart = 1'795'219'200;
    explicit ManualClock(double start = defaultStart);
    ~ManualClock() override;

    std::shared_ptr<VirelaCancellable> after(TimerId id, double seconds,
                                             std::function<void()> work) override;
    std::shared_ptr<VirelaCancellable> every(TimerId id, double interval,
                                             std::function<void()> work) override;
    // Shorthands for work without a name of its own.
    std::shared_ptr<VirelaCancellable> after(double seconds, std::function<void()> work) {
        return after(TimerId::other, seconds, std::move(work));
    }
    std::shared_ptr<VirelaCancellable> every(double interval, std::function<void()> work) {
        return every(TimerId::other, interval, std::move(work));
    }

    // Moves time forward, running everything that falls due on the way (including work that
    // the ran work schedules inside the window).
    void advance(double seconds);
    double now() const override;

    // Every delay passed to after(), in call order; repeating intervals are not included.
    const std::vector<double>& requestedDelays() const;
    // Whether work of that name is scheduled and neither run nor cancelled.
    bool isScheduled(TimerId id) const;
    // Seconds until the next run of that timer; nullopt when it is not scheduled.
    std::optional<double> dueIn(TimerId id) const;
    // Work scheduled and neither run nor cancelled (repeating timers count until cancelled).
    std::size_t pendingCount() const;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

}  // namespace virela
