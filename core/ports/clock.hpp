#pragma once

// Deferred and repeating work of the client, behind one clock so that tests can drive time by
// hand. Every timer carries a name, so a test asks "is the heartbeat scheduled?" of the clock
// instead of asking the object that owns the timer.

#include <functional>
#include <memory>
#include <string_view>

#include "core/ports/executor.hpp"

namespace virela {

// Every timer the library runs. A new flow adds its timers here.
enum class TimerId {
    heartbeat,      // the realtime channel's 25-second ping
    reconnect,      // the realtime channel's next connection attempt
    promptExpiry,   // the consent sheet's expiry
    bannerRefresh,  // the session banner's countdown
    liveFrame,      // a live frame, every third of a second while sharing
    visibleState,   // the 10-second re-confirmation of what the customer sees while sharing
    toastRemoval,   // the live overlay's toast, 5.5 s after it appeared
    pointingReset,  // the pill's "support is pointing" wording going back to idle
    markFade,       // an agent's mark starting to fade, 3.6 s after it was drawn
    other,          // work without a name of its own (tests)
};
std::string_view timerName(TimerId id) noexcept;

// Runs work on the main executor after a delay, or repeatedly. Tests replace it with ManualClock.
class VirelaClock {
  public:
    virtual ~VirelaClock() = default;
    // Wall-clock time in seconds since 1970-01-01T00:00:00Z (expiries arrive as dates).
    virtual double now() const = 0;
    // Runs `work` once, no earlier than `seconds` from now.
    virtual std::shared_ptr<VirelaCancellable> after(TimerId id, double seconds,
                                                     std::function<void()> work) = 0;
    // Runs `work` every `interval` seconds until cancelled.
    virtual std::shared_ptr<VirelaCancellable> every(TimerId id, double interval,
                                                     std::function<void()> work) = 0;
};

// The production clock: work runs on the platform's main executor.
class SystemClock final : public VirelaClock {
  public:
    explicit SystemClock(std::shared_ptr<MainExecutor> main);
    double now() const override;
    std::shared_ptr<VirelaCancellable> after(TimerId id, double seconds,
                                             std::function<void()> work) override;
    std::shared_ptr<VirelaCancellable> every(TimerId id, double interval,
                                             std::function<void()> work) override;

  private:
    std::shared_ptr<MainExecutor> main_;
};

}  // namespace virela
