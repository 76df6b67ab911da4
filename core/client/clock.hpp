#pragma once

#include <functional>
#include <memory>

namespace virela {

class MainExecutor;
class ScheduledWork;

// A handle to scheduled work. Cancelling twice, or after the work ran, is harmless.
class VirelaCancellable {
  public:
    virtual ~VirelaCancellable() = default;
    virtual void cancel() = 0;
};

// Runs work on the main executor after a delay, or repeatedly. Tests replace it with ManualClock.
class VirelaClock {
  public:
    virtual ~VirelaClock() = default;
    // Wall-clock time in seconds since 1970-01-01T00:00:00Z (expiries arrive as dates).
    virtual double now() const = 0;
    // Runs `work` once, no earlier than `seconds` from now.
    virtual std::shared_ptr<VirelaCancellable> after(double seconds,
                                                     std::function<void()> work) = 0;
    // Runs `work` every `interval` seconds until cancelled.
    virtual std::shared_ptr<VirelaCancellable> every(double interval,
                                                     std::function<void()> work) = 0;
};

// Owns one delayed work item of the main executor; cancel() keeps it from starting.
class WorkItemToken final : public VirelaCancellable {
  public:
    explicit WorkItemToken(std::unique_ptr<ScheduledWork> item);
    ~WorkItemToken() override;
    void cancel() override;

  private:
    std::unique_ptr<ScheduledWork> item_;
};

// Owns one repeating timer of the main executor; cancel() invalidates it.
class TimerToken final : public VirelaCancellable {
  public:
    explicit TimerToken(std::unique_ptr<ScheduledWork> timer);
    ~TimerToken() override;
    void cancel() override;

  private:
    std::unique_ptr<ScheduledWork> timer_;
};

// The production clock: work runs on the platform's main executor.
class SystemClock final : public VirelaClock {
  public:
    explicit SystemClock(std::shared_ptr<MainExecutor> main);
    double now() const override;
    std::shared_ptr<VirelaCancellable> after(double seconds, std::function<void()> work) override;
    std::shared_ptr<VirelaCancellable> every(double interval, std::function<void()> work) override;

  private:
    std::shared_ptr<MainExecutor> main_;
};

}  // namespace virela
