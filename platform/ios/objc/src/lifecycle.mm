// The application lifecycle: UIApplication's notifications and background tasks.

#import <Foundation/Foundation.h>
#import <UIKit/UIKit.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>

#include "platform/ios/objc/src/ports.hpp"

namespace virela::ios {
namespace {

// The background tasks we began and have not yet ended. The core may end a task both from a
// send's completion and from its expiration handler; UIKit complains about a second end, so
// ending is idempotent here, as on the headless platform.
struct BackgroundTasks {
    std::mutex mutex;
    std::set<UIBackgroundTaskIdentifier> live;
    UIApplication* _Nullable application = nil;

    // The application to end `task` with, once; nil when it is not ours or already ended.
    UIApplication* _Nullable take(UIBackgroundTaskIdentifier task) {
        std::lock_guard lock(mutex);
        return live.erase(task) > 0 ? application : nil;
    }
};

class UIApplicationLifecycle final : public AppLifecycle {
  public:
    std::unique_ptr<Subscription> observe(AppEvent event, std::function<void()> handler) override {
        NSNotificationName name = event == AppEvent::didEnterBackground
                                      ? UIApplicationDidEnterBackgroundNotification
                                      : UIApplicationWillEnterForegroundNotification;
        id<NSObject> token =
            [NSNotificationCenter.defaultCenter addObserverForName:name
                                                            object:nil
                                                             queue:NSOperationQueue.mainQueue
                                                        usingBlock:^(NSNotification*) {
                                                          handler();
                                                        }];
        return std::make_unique<CallbackSubscription>(
            [token] { [NSNotificationCenter.defaultCenter removeObserver:token]; });
    }

    BackgroundTaskId beginBackgroundTask(std::function<void()> expiration) override {
        auto tasks = tasks_;
        auto began =
            std::make_shared<std::atomic<UIBackgroundTaskIdentifier>>(UIBackgroundTaskInvalid);
        UIApplication* application = UIApplication.sharedApplication;
        // UIKit calls the expiration handler on the main thread and ends the app if the task
        // is still running when the handler returns, so end it here if the handler did not.
        const UIBackgroundTaskIdentifier task =
            [application beginBackgroundTaskWithExpirationHandler:^{
              if (expiration) expiration();
              const UIBackgroundTaskIdentifier identifier = began->load();
              if (identifier == UIBackgroundTaskInvalid) return;
              [tasks->take(identifier) endBackgroundTask:identifier];
            }];
        if (task == UIBackgroundTaskInvalid) return invalidBackgroundTask;
        {
            std::lock_guard lock(tasks->mutex);
            tasks->application = application;
            tasks->live.insert(task);
        }
        began->store(task);
        return static_cast<BackgroundTaskId>(task);
    }

    bool inBackground() const override {
        return UIApplication.sharedApplication.applicationState == UIApplicationStateBackground;
    }

    // Safe from any thread: UIKit documents endBackgroundTask: as callable off the main thread,
    // so a send's completion ends the task where it runs. Hopping to main instead could end it
    // only after an expiration handler had already returned, which is too late.
    void endBackgroundTask(BackgroundTaskId task) override {
        if (task == invalidBackgroundTask) return;
        const auto identifier = static_cast<UIBackgroundTaskIdentifier>(task);
        [tasks_->take(identifier) endBackgroundTask:identifier];
    }

  private:
    std::shared_ptr<BackgroundTasks> tasks_ = std::make_shared<BackgroundTasks>();
};

}  // namespace

std::shared_ptr<AppLifecycle> makeAppLifecycle() {
    return std::make_shared<UIApplicationLifecycle>();
}

}  // namespace virela::ios
