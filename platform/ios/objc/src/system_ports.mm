// User defaults, the unified log, device facts, the network path monitor and the application
// lifecycle.

#import <Foundation/Foundation.h>
#import <Network/Network.h>
#import <UIKit/UIKit.h>

#include <os/log.h>
#include <os/proc.h>
#include <sys/utsname.h>

#include <atomic>
#include <mutex>
#include <set>

#include "platform/ios/objc/src/ports.hpp"
#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"

namespace virela::ios {
namespace {

class UserDefaultsStore final : public KeyValueStore {
  public:
    std::optional<std::string> string(const std::string& key) const override {
        id value = [NSUserDefaults.standardUserDefaults objectForKey:toNSString(key)];
        // Someone else's value of another type under our key reads as absent, not as a crash.
        if (![value isKindOfClass:[NSString class]]) return std::nullopt;
        return toStdString(value);
    }

    void setString(const std::string& key, const std::string& value) override {
        [NSUserDefaults.standardUserDefaults setObject:toNSString(value) forKey:toNSString(key)];
    }
};

class UnifiedLog final : public Log {
  public:
    UnifiedLog() : log_(os_log_create("com.virela.agent", "agent")) {}

    void write(LogLevel level, std::string_view line) override {
        const std::string text(line);  // the view need not be NUL-terminated
        os_log_with_type(log_, typeOf(level), "%{public}s", text.c_str());
    }

  private:
    static os_log_type_t typeOf(LogLevel level) {
        switch (level) {
            case LogLevel::debug:
                return OS_LOG_TYPE_DEBUG;
            case LogLevel::info:
                return OS_LOG_TYPE_INFO;
            case LogLevel::error:
                return OS_LOG_TYPE_ERROR;
        }
        return OS_LOG_TYPE_DEFAULT;
    }

    os_log_t log_;
};

// UIDevice belongs to the main thread, where the core asks for these facts. Should a caller ask
// from elsewhere, wait for main rather than touch UIDevice off it (never do so while main waits
// for that caller).
template <typename Read>
auto readOnMain(Read read) -> decltype(read()) {
    if (NSThread.isMainThread) return read();
    __block decltype(read()) value;
    dispatch_sync(dispatch_get_main_queue(), ^{
      value = read();
    });
    return value;
}

ContentSizeCategory contentSizeCategory(UIContentSizeCategory category) {
    static const struct {
        UIContentSizeCategory uikit;
        ContentSizeCategory ours;
    } kCategories[] = {
        {UIContentSizeCategoryExtraSmall, ContentSizeCategory::extraSmall},
        {UIContentSizeCategorySmall, ContentSizeCategory::small},
        {UIContentSizeCategoryMedium, ContentSizeCategory::medium},
        {UIContentSizeCategoryLarge, ContentSizeCategory::large},
        {UIContentSizeCategoryExtraLarge, ContentSizeCategory::extraLarge},
        {UIContentSizeCategoryExtraExtraLarge, ContentSizeCategory::extraExtraLarge},
        {UIContentSizeCategoryExtraExtraExtraLarge, ContentSizeCategory::extraExtraExtraLarge},
        {UIContentSizeCategoryAccessibilityMedium, ContentSizeCategory::accessibilityMedium},
        {UIContentSizeCategoryAccessibilityLarge, ContentSizeCategory::accessibilityLarge},
        {UIContentSizeCategoryAccessibilityExtraLarge,
         ContentSizeCategory::accessibilityExtraLarge},
        {UIContentSizeCategoryAccessibilityExtraExtraLarge,
         ContentSizeCategory::accessibilityExtraExtraLarge},
        {UIContentSizeCategoryAccessibilityExtraExtraExtraLarge,
         ContentSizeCategory::accessibilityExtraExtraExtraLarge},
    };
    for (const auto& entry : kCategories) {
        if ([category isEqualToString:entry.uikit]) return entry.ours;
    }
    return ContentSizeCategory::unspecified;
}

class UIKitDeviceFacts final : public DeviceFacts {
  public:
    std::string model() const override {
        return readOnMain([] { return toStdString(UIDevice.currentDevice.model); });
    }

    std::string systemName() const override { return "iOS"; }

    std::string systemVersion() const override {
        return readOnMain([] { return toStdString(UIDevice.currentDevice.systemVersion); });
    }

    std::string localeIdentifier() const override {
        return toStdString(NSLocale.currentLocale.localeIdentifier);
    }

    std::optional<std::string> appVersion() const override {
        id version = [NSBundle.mainBundle objectForInfoDictionaryKey:@"CFBundleShortVersionString"];
        if (![version isKindOfClass:[NSString class]]) return std::nullopt;
        return toStdString(version);
    }

    std::optional<std::string> appId() const override {
        return toOptionalString(NSBundle.mainBundle.bundleIdentifier);
    }

    std::optional<std::string> vendorId() const override {
        // nil until the device is first unlocked after a restart.
        return readOnMain(
            [] { return toOptionalString(UIDevice.currentDevice.identifierForVendor.UUIDString); });
    }

    std::string machine() const override {
        struct utsname name {};
        if (uname(&name) != 0) return {};
        return name.machine;
    }

    std::optional<std::int64_t> availableStorageBytes() const override {
        NSURL* home = [NSURL fileURLWithPath:NSHomeDirectory() isDirectory:YES];
        id bytes = nil;
        if (![home getResourceValue:&bytes
                             forKey:NSURLVolumeAvailableCapacityForImportantUsageKey
                              error:nil] ||
            ![bytes isKindOfClass:[NSNumber class]]) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>([bytes longLongValue]);
    }

    std::int64_t availableMemoryBytes() const override {
        return static_cast<std::int64_t>(os_proc_available_memory());
    }

    MainThreadFacts readMainThreadFacts() const override {
        MainThreadFacts facts;
        UIDevice* device = UIDevice.currentDevice;
        // The level and state read as unknown while monitoring is off; leave the host's setting
        // as we found it.
        const BOOL wasMonitoring = device.batteryMonitoringEnabled;
        device.batteryMonitoringEnabled = YES;
        facts.batteryLevel = device.batteryLevel;
        facts.batteryState = static_cast<int>(device.batteryState);
        device.batteryMonitoringEnabled = wasMonitoring;

        facts.appearance =
            appearanceOf(UITraitCollection.currentTraitCollection.userInterfaceStyle);
        facts.textSize =
            contentSizeCategory(UIApplication.sharedApplication.preferredContentSizeCategory);
        facts.assistive.voiceOver = UIAccessibilityIsVoiceOverRunning();
        facts.assistive.switchControl = UIAccessibilityIsSwitchControlRunning();
        facts.assistive.assistiveTouch = UIAccessibilityIsAssistiveTouchRunning();

        const CGRect screen = UIScreen.mainScreen.nativeBounds;
        facts.screenWidthPixels = screen.size.width;
        facts.screenHeightPixels = screen.size.height;
        return facts;
    }
};

NetworkPath networkPathOf(nw_path_t path) {
    NetworkPath result;
    result.satisfied = nw_path_get_status(path) == nw_path_status_satisfied;
    result.usesWifi = nw_path_uses_interface_type(path, nw_interface_type_wifi);
    result.usesCellular = nw_path_uses_interface_type(path, nw_interface_type_cellular);
    return result;
}

// nw_path_monitor_cancel() stops the monitor asynchronously, and an update may already be on
// its way to the queue; the flag keeps that update from being delivered once cancel() returned.
class NetworkPathMonitor final : public PathMonitor {
  public:
    ~NetworkPathMonitor() override { cancel(); }

    void start(std::shared_ptr<SerialQueue> queue,
               std::function<void(const NetworkPath&)> onUpdate) override {
        cancel();
        auto cancelled = std::make_shared<std::atomic<bool>>(false);
        cancelled_ = cancelled;
        queue_ = queue;
        monitor_ = nw_path_monitor_create();

        if (dispatch_queue_t dispatchQueue = dispatchQueueOf(*queue)) {
            nw_path_monitor_set_queue(monitor_, dispatchQueue);
            nw_path_monitor_set_update_handler(monitor_, ^(nw_path_t path) {
              if (!cancelled->load()) onUpdate(networkPathOf(path));
            });
        } else {
            // A queue we did not make: watch on a private one and hand each update over.
            nw_path_monitor_set_queue(
                monitor_, dispatch_queue_create("com.virela.pathMonitor", DISPATCH_QUEUE_SERIAL));
            std::weak_ptr<SerialQueue> weakQueue = queue;
            nw_path_monitor_set_update_handler(monitor_, ^(nw_path_t path) {
              auto target = weakQueue.lock();
              if (!target || cancelled->load()) return;
              target->post([cancelled, onUpdate, update = networkPathOf(path)] {
                  if (!cancelled->load()) onUpdate(update);
              });
            });
        }
        nw_path_monitor_start(monitor_);
    }

    void cancel() override {
        if (cancelled_) cancelled_->store(true);
        if (monitor_) nw_path_monitor_cancel(monitor_);
        monitor_ = nil;
        cancelled_.reset();
        queue_.reset();
    }

  private:
    nw_path_monitor_t _Nullable monitor_ = nil;
    std::shared_ptr<std::atomic<bool>> cancelled_;
    std::shared_ptr<SerialQueue> queue_;
};

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

std::shared_ptr<KeyValueStore> makeKeyValueStore() { return std::make_shared<UserDefaultsStore>(); }
std::shared_ptr<Log> makeLog() { return std::make_shared<UnifiedLog>(); }
std::shared_ptr<DeviceFacts> makeDeviceFacts() { return std::make_shared<UIKitDeviceFacts>(); }
std::shared_ptr<PathMonitor> makePathMonitor() { return std::make_shared<NetworkPathMonitor>(); }
std::shared_ptr<AppLifecycle> makeAppLifecycle() {
    return std::make_shared<UIApplicationLifecycle>();
}

}  // namespace virela::ios
