#pragma once

// The ports through which core reaches the platform. Each has a headless (Linux) and an iOS
// implementation; tests substitute single ports with fakes.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/transport/socket.hpp"

namespace virela {

class HttpClient;
class HostInterface;
class HostActions;
class Renderer;
class PromptPresenter;
class BannerPresenter;

// Platform-level delayed or repeating work. cancel() is idempotent.
class ScheduledWork {
  public:
    virtual ~ScheduledWork() = default;
    virtual void cancel() = 0;
};

// The main thread. All client state, every view change and every host callback run here.
class MainExecutor {
  public:
    virtual ~MainExecutor() = default;
    virtual void post(std::function<void()> work) = 0;
    virtual std::unique_ptr<ScheduledWork> postAfter(double seconds,
                                                     std::function<void()> work) = 0;
    virtual std::unique_ptr<ScheduledWork> repeat(double interval, std::function<void()> work) = 0;
    virtual bool isCurrent() const = 0;
    // Runs work on a thread that is not the main one (the callback form of configure completes
    // there).
    virtual void postBackground(std::function<void()> work) = 0;
};

// A serial queue of its own (the network probe and the path watch run on one).
class SerialQueue {
  public:
    virtual ~SerialQueue() = default;
    virtual void post(std::function<void()> work) = 0;
    virtual std::unique_ptr<ScheduledWork> postAfter(double seconds,
                                                     std::function<void()> work) = 0;
};

// The user-defaults store.
class KeyValueStore {
  public:
    virtual ~KeyValueStore() = default;
    virtual std::optional<std::string> string(const std::string& key) const = 0;
    virtual void setString(const std::string& key, const std::string& value) = 0;
};

enum class LogLevel { debug, info, error };

class Log {
  public:
    virtual ~Log() = default;
    virtual void write(LogLevel level, std::string_view line) = 0;
};

enum class Appearance { unspecified, light, dark };

enum class ContentSizeCategory {
    unspecified,
    extraSmall,
    small,
    medium,
    large,
    extraLarge,
    extraExtraLarge,
    extraExtraExtraLarge,
    accessibilityMedium,
    accessibilityLarge,
    accessibilityExtraLarge,
    accessibilityExtraExtraLarge,
    accessibilityExtraExtraExtraLarge,
};

struct AssistiveTechnologies {
    bool voiceOver = false;
    bool switchControl = false;
    bool assistiveTouch = false;
};

// The facts that the platform only lets us read on the main thread.
struct MainThreadFacts {
    double batteryLevel = -1;  // 0...1, negative when unknown
    int batteryState = 0;      // 0 unknown, 1 unplugged, 2 charging, 3 full
    Appearance appearance = Appearance::unspecified;
    ContentSizeCategory textSize = ContentSizeCategory::unspecified;
    AssistiveTechnologies assistive;
    double screenWidthPixels = 0;  // the main screen's native bounds
    double screenHeightPixels = 0;
};

// Raw device facts; core turns them into the texts the backend receives.
class DeviceFacts {
  public:
    virtual ~DeviceFacts() = default;
    virtual std::string model() const = 0;          // generic model name ("iPhone")
    virtual std::string systemName() const = 0;     // "iOS", "Linux"
    virtual std::string systemVersion() const = 0;  // "17.2", "6.1"
    virtual std::string localeIdentifier() const = 0;
    virtual std::optional<std::string> appVersion() const = 0;  // the bundle's short version
    virtual std::optional<std::string> appId() const = 0;       // the bundle identifier
    virtual std::optional<std::string> vendorId() const = 0;
    virtual std::string machine() const = 0;  // the machine field of uname()
    virtual std::optional<std::int64_t> availableStorageBytes() const = 0;
    virtual std::int64_t availableMemoryBytes() const = 0;
    // Call on the main thread only.
    virtual MainThreadFacts readMainThreadFacts() const = 0;
};

struct NetworkPath {
    bool satisfied = false;
    bool usesWifi = false;
    bool usesCellular = false;
    friend bool operator==(const NetworkPath&, const NetworkPath&) = default;
};

// Watches the device's network path. The first update comes soon after start(); later ones on
// changes. Updates are delivered on `queue` and stop once cancel() returns.
class PathMonitor {
  public:
    virtual ~PathMonitor() = default;
    virtual void start(std::shared_ptr<SerialQueue> queue,
                       std::function<void(const NetworkPath&)> onUpdate) = 0;
    virtual void cancel() = 0;
};

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
};

// Everything core needs from the platform. Later subsystems add their ports here.
struct Platform {
    std::shared_ptr<MainExecutor> main;
    std::shared_ptr<HttpClient> http;
    std::shared_ptr<KeyValueStore> defaults;
    std::shared_ptr<DeviceFacts> device;
    std::shared_ptr<AppLifecycle> lifecycle;
    std::shared_ptr<Log> log;
    std::function<std::shared_ptr<SerialQueue>(const std::string& label)> makeSerialQueue;
    std::function<std::shared_ptr<PathMonitor>()> makePathMonitor;
    SocketFactory makeSocket;
    // The host app's interface: reading it, acting on it, and drawing it into images.
    std::shared_ptr<HostInterface> host;
    std::shared_ptr<HostActions> actions;
    std::shared_ptr<Renderer> renderer;
    // What the library puts on the customer's screen: the bottom sheets and the session banner.
    std::shared_ptr<PromptPresenter> prompts;
    std::shared_ptr<BannerPresenter> banner;
};

// The platform binding installs its ports once at start-up; the facade's shared client takes
// them from here.
void installPlatform(std::shared_ptr<const Platform> platform);
std::shared_ptr<const Platform> installedPlatform();

}  // namespace virela
