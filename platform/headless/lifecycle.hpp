#pragma once

#include <memory>
#include <vector>

#include "core/ports/platform.hpp"

namespace virela::headless {

// The AppLifecycle port for a headless host: the host itself says when the app goes to the
// background or comes back, and observers hear about it on the main executor. The app starts in
// the foreground; only real transitions notify.
class HeadlessLifecycle final : public AppLifecycle {
  public:
    explicit HeadlessLifecycle(std::shared_ptr<MainExecutor> main,
                               double backgroundTaskSeconds = 30);
    ~HeadlessLifecycle() override;

    std::unique_ptr<Subscription> observe(AppEvent event, std::function<void()> handler) override;
    // Each task expires after the configured time unless ended first: its expiration handler
    // runs on main and the task is ended.
    BackgroundTaskId beginBackgroundTask(std::function<void()> expiration) override;
    void endBackgroundTask(BackgroundTaskId id) override;

    void enterBackground();  // didEnterBackground observers
    void enterForeground();  // willEnterForeground observers
    bool inBackground() const override;
    std::vector<BackgroundTaskId> activeBackgroundTasks() const;  // ascending

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace virela::headless
