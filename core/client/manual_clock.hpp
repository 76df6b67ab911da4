#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "core/client/clock.hpp"

namespace virela {

// A clock whose time moves only when a test advances it. Work runs on the caller's thread,
// in due-time order (ties in scheduling order), exactly as the main executor would run it.
class ManualClock final : public VirelaClock {
  public:
    // 2026-11-21T00:00:00Z unless a test needs another start.
    static constexpr double defaultStart = 1'795'219'200;
    explicit ManualClock(double start = defaultStart);
    ~ManualClock() override;

    std::shared_ptr<VirelaCancellable> after(double seconds, std::function<void()> work) override;
    std::shared_ptr<VirelaCancellable> every(double interval, std::function<void()> work) override;

    // Moves time forward, running everything that falls due on the way (including work that
    // the ran work schedules inside the window).
    void advance(double seconds);
    double now() const override;

    // Every delay passed to after(), in call order; repeating intervals are not included.
    const std::vector<double>& requestedDelays() const;
    // Work scheduled and neither run nor cancelled (repeating timers count until cancelled).
    std::size_t pendingCount() const;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

}  // namespace virela
