#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace virela {

enum class AppEvent { didEnterBackground, willEnterForeground };

// Removes its observer when destroyed.
class Subscription {
  public:
    virtual ~Subscription() = default;
};

// A subscription that runs `remove` when it is destroyed.
class CallbackSubscription final : public Subscription {
  public:
    explicit CallbackSubscription(std::function<void()> remove) : remove_(std::move(remove)) {}
    ~CallbackSubscription() override {
        if (remove_) remove_();
    }
    CallbackSubscription(const CallbackSubscription&) = delete;
    CallbackSubscription& operator=(const CallbackSubscription&) = delete;

  private:
    std::function<void()> remove_;
};

class AppLifecycle {
  public:
    virtual ~AppLifecycle() = default;
    // `handler` runs on the main executor.
    virtual std::unique_ptr<Subscription> observe(AppEvent event,
                                                  std::function<void()> handler) = 0;
    using BackgroundTaskId = std::uint64_t;
    static constexpr BackgroundTaskId invalidBackgroundTask = 0;
    virtual BackgroundTaskId beginBackgroundTask(std::function<void()> expiration) = 0;
    virtual void endBackgroundTask(BackgroundTaskId id) = 0;

    // Whether the app is in the background now. Main executor only.
    virtual bool inBackground() const = 0;
};

}  // namespace virela
