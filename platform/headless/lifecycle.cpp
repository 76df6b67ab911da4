#include "platform/headless/lifecycle.hpp"

#include <algorithm>
#include <map>
#include <mutex>

namespace virela::headless {

struct HeadlessLifecycle::State : std::enable_shared_from_this<State> {
    struct Observer {
        AppEvent event;
        std::shared_ptr<std::function<void()>> handler;
    };
    struct Task {
        std::function<void()> expiration;
        std::shared_ptr<VirelaCancellable> expiry;
    };

    std::shared_ptr<MainExecutor> main;
    double taskSeconds = 30;

    mutable std::mutex mutex;
    bool background = false;
    std::uint64_t nextObserver = 1;
    std::map<std::uint64_t, Observer> observers;
    BackgroundTaskId nextTask = 1;
    std::map<BackgroundTaskId, Task> tasks;

    void transition(bool toBackground) {
        {
            std::lock_guard lock(mutex);
            if (background == toBackground) return;
            background = toBackground;
        }
        auto event = toBackground ? AppEvent::didEnterBackground : AppEvent::willEnterForeground;
        main->post([weak = weak_from_this(), event] {
            if (auto self = weak.lock()) self->deliver(event);
        });
    }

    // On main. Observers removed while the event is delivered (even by an earlier handler) are
    // skipped.
    void deliver(AppEvent event) {
        std::vector<std::uint64_t> ids;
        {
            std::lock_guard lock(mutex);
            for (const auto& [id, observer] : observers) {
                if (observer.event == event) ids.push_back(id);
            }
        }
        for (auto id : ids) {
            std::shared_ptr<std::function<void()>> handler;
            {
                std::lock_guard lock(mutex);
                auto it = observers.find(id);
                if (it == observers.end()) continue;
                handler = it->second.handler;
            }
            (*handler)();
        }
    }

    void expire(BackgroundTaskId id) {
        std::function<void()> expiration;
        {
            std::lock_guard lock(mutex);
            auto it = tasks.find(id);
            if (it == tasks.end()) return;
            expiration = std::move(it->second.expiration);
            tasks.erase(it);
        }
        if (expiration) expiration();
    }
};

HeadlessLifecycle::HeadlessLifecycle(std::shared_ptr<MainExecutor> main,
                                     double backgroundTaskSeconds)
    : state_(std::make_shared<State>()) {
    state_->main = std::move(main);
    state_->taskSeconds = backgroundTaskSeconds;
}

HeadlessLifecycle::~HeadlessLifecycle() {
    std::map<BackgroundTaskId, State::Task> tasks;
    {
        std::lock_guard lock(state_->mutex);
        tasks.swap(state_->tasks);
    }
    for (auto& [id, task] : tasks) {
        if (task.expiry) task.expiry->cancel();
    }
}

std::unique_ptr<Subscription> HeadlessLifecycle::observe(AppEvent event,
                                                         std::function<void()> handler) {
    std::uint64_t id = 0;
    {
        std::lock_guard lock(state_->mutex);
        id = state_->nextObserver++;
        if (handler) {
            state_->observers.emplace(
                id, State::Observer{event,
                                    std::make_shared<std::function<void()>>(std::move(handler))});
        }
    }
    return std::make_unique<CallbackSubscription>([weak = std::weak_ptr<State>(state_), id] {
        if (auto state = weak.lock()) {
            std::lock_guard lock(state->mutex);
            state->observers.erase(id);
        }
    });
}

AppLifecycle::BackgroundTaskId HeadlessLifecycle::beginBackgroundTask(
    std::function<void()> expiration) {
    BackgroundTaskId id = invalidBackgroundTask;
    {
        std::lock_guard lock(state_->mutex);
        id = state_->nextTask++;
        state_->tasks.emplace(id, State::Task{std::move(expiration), nullptr});
    }
    // Scheduled outside the lock: with a zero expiry the work may already run on main.
    auto expiry = state_->main->postAfter(state_->taskSeconds, [weak = std::weak_ptr(state_), id] {
        if (auto state = weak.lock()) state->expire(id);
    });
    std::lock_guard lock(state_->mutex);
    auto it = state_->tasks.find(id);
    if (it != state_->tasks.end()) {
        it->second.expiry = std::move(expiry);
    } else {
        expiry->cancel();
    }
    return id;
}

void HeadlessLifecycle::endBackgroundTask(BackgroundTaskId id) {
    std::shared_ptr<VirelaCancellable> expiry;
    {
        std::lock_guard lock(state_->mutex);
        auto it = state_->tasks.find(id);
        if (it == state_->tasks.end()) return;
        expiry = std::move(it->second.expiry);
        state_->tasks.erase(it);
    }
    if (expiry) expiry->cancel();
}

void HeadlessLifecycle::enterBackground() {
    state_->transition(true);
}

void HeadlessLifecycle::enterForeground() {
    state_->transition(false);
}

bool HeadlessLifecycle::inBackground() const {
    std::lock_guard lock(state_->mutex);
    return state_->background;
}

std::vector<AppLifecycle::BackgroundTaskId> HeadlessLifecycle::activeBackgroundTasks() const {
    std::lock_guard lock(state_->mutex);
    std::vector<BackgroundTaskId> ids;
    for (const auto& [id, task] : state_->tasks) ids.push_back(id);
    return ids;
}

}  // namespace virela::headless
