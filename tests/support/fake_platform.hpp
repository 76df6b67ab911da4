#pragma once

// Single-threaded stand-ins for the platform ports, for unit tests of one rule at a time.
// Posted work waits in a queue until the test drains it, so every test decides exactly when
// the "main thread" runs.

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/ports/clock.hpp"
#include "core/ports/http_client.hpp"
#include "core/ports/platform.hpp"

namespace virela {
class VirelaClient;
}

namespace virela::testing {

// A registration reply in the backend's form, support code "482-913".
inline constexpr const char* kRegisteredReply =
    R"({"deviceId":"d1","deviceToken":"tok-1","supportCode":"482-913","consentCopy":"c",)"
    R"("captureMode":"AskEveryTime","isTest":true})";

class FakeExecutor final : public MainExecutor, public SerialQueue {
  public:
    void post(std::function<void()> work) override { queue_.push_back(std::move(work)); }
    std::shared_ptr<VirelaCancellable> postAfter(double seconds,
                                                 std::function<void()> work) override;
    std::shared_ptr<VirelaCancellable> repeat(double interval, std::function<void()> work) override;
    bool isCurrent() const override { return true; }
    void postBackground(std::function<void()> work) override { post(std::move(work)); }

    // Runs posted work (and work it posts) until the queue is empty. Delayed work never runs
    // here: it belongs to the clock under test.
    void drain();
    std::size_t delayedCount() const { return delayed_.size(); }
    // Runs every delayed item that has not been cancelled.
    void fireDelayed();

  private:
    struct Delayed {
        std::function<void()> work;
        std::shared_ptr<bool> cancelled;
    };
    std::deque<std::function<void()>> queue_;
    std::vector<Delayed> delayed_;
};

// Answers each request with the next scripted outcome for its path, or holds it until the test
// calls complete().
class FakeHttpClient final : public HttpClient {
  public:
    std::shared_ptr<VirelaCancellable> send(HttpRequest request,
                                            std::function<void(HttpOutcome)> done) override;

    void reply(const std::string& path, int status, std::string body);
    void fail(const std::string& path, std::exception_ptr error);
    // Requests without a scripted outcome stay pending until this is called.
    void completePending(std::size_t index, HttpOutcome outcome);

    std::vector<HttpRequest> requests;
    std::vector<HttpRequest> requestsTo(const std::string& path) const;
    std::size_t pendingCount() const;
    // The index of the oldest pending request to `path`.
    std::optional<std::size_t> pendingIndex(const std::string& path) const;

  private:
    std::map<std::string, std::deque<HttpOutcome>> scripted_;
    std::vector<std::pair<HttpRequest, std::function<void(HttpOutcome)>>> pending_;
};

class MemoryStore final : public KeyValueStore {
  public:
    std::optional<std::string> string(const std::string& key) const override;
    void setString(const std::string& key, const std::string& value) override {
        values[key] = value;
    }
    std::map<std::string, std::string> values;
};

class FakeDeviceFacts final : public DeviceFacts {
  public:
    std::string model() const override { return "iPhone"; }
    std::string systemName() const override { return "iOS"; }
    std::string systemVersion() const override { return "17.2"; }
    std::string localeIdentifier() const override { return "en_GB"; }
    std::optional<std::string> appVersion() const override { return appVersionValue; }
    std::optional<std::string> appId() const override { return "com.example.shop"; }
    std::optional<std::string> vendorId() const override { return "VENDOR-ID"; }
    std::string machine() const override { return "iPhone15,2"; }
    std::optional<std::int64_t> availableStorageBytes() const override { return storage; }
    std::int64_t availableMemoryBytes() const override { return memory; }
    MainThreadFacts readMainThreadFacts() const override { return mainFacts; }

    std::optional<std::string> appVersionValue = "4.2.0";
    std::optional<std::int64_t> storage = 12'300'000'000;
    std::int64_t memory = 840'000'000;
    MainThreadFacts mainFacts{0.856, 2,   Appearance::dark, ContentSizeCategory::large, {},
                              1170,  2532};
};

// Every monitor it makes reports `path` on start; push() sends a later update to all running ones.
class FakePaths {
  public:
    NetworkPath path{true, true, false};
    bool answerOnStart = true;
    std::shared_ptr<PathMonitor> make();
    void push(const NetworkPath& next);
    std::size_t running() const;

  private:
    struct Monitor;
    std::vector<std::weak_ptr<Monitor>> monitors_;
};

// A socket the test drives by hand: it opens, delivers and fails when told to.
class FakeSocket final : public VirelaSocket {
  public:
    SocketState state() const override { return state_; }
    void resume() override { state_ = SocketState::running; }
    void cancel(int closeCode, std::optional<std::string> reason) override;
    void send(SocketMessage message, std::function<void(std::exception_ptr)> completion) override;
    void receive(std::function<void(SocketReceiveResult)> completion) override;

    bool receiving() const { return static_cast<bool>(pendingReceive_); }
    void deliver(SocketMessage message);
    void fail(std::exception_ptr error = nullptr);
    // Completes the oldest send still waiting.
    void completeSend(std::exception_ptr error = nullptr);
    void setState(SocketState state) { state_ = state; }

    Url url;
    std::vector<std::string> protocols;
    std::weak_ptr<SocketDelegate> delegate;
    std::vector<std::string> sent;
    std::optional<int> closeCode;
    int receiveCalls = 0;
    bool holdSends = false;

  private:
    SocketState state_ = SocketState::suspended;
    std::function<void(SocketReceiveResult)> pendingReceive_;
    std::vector<std::function<void(std::exception_ptr)>> pendingSends_;
};

class FakeLifecycle final : public AppLifecycle {
  public:
    std::unique_ptr<Subscription> observe(AppEvent event, std::function<void()> handler) override;
    BackgroundTaskId beginBackgroundTask(std::function<void()> expiration) override;
    void endBackgroundTask(BackgroundTaskId id) override;
    bool inBackground() const override { return background; }
    // Sends the event and keeps `background` in step with it.
    void send(AppEvent event);
    bool background = false;
    std::size_t observerCount() const;
    std::vector<BackgroundTaskId> begun;
    std::vector<BackgroundTaskId> ended;

  private:
    struct Observers {
        std::uint64_t nextId = 1;
        std::map<std::uint64_t, std::pair<AppEvent, std::function<void()>>> handlers;
    };
    std::shared_ptr<Observers> observers_ = std::make_shared<Observers>();
    BackgroundTaskId nextTask_ = 1;
};

class RecordingLog final : public Log {
  public:
    void write(LogLevel level, std::string_view line) override {
        lines.push_back({level, std::string(line)});
    }
    std::vector<std::pair<LogLevel, std::string>> lines;
};

struct FakePlatform;

// The ways a client leaves the work of its epoch behind, by name: stop(), reset() and a newer
// configure that succeeds. Each acts on whatever client `client` holds when it runs.
std::vector<std::pair<std::string, std::function<void()>>> epochEndings(
    FakePlatform& fake, const std::shared_ptr<VirelaClient>& client);

// One fake of every port, wired into a Platform.
struct FakePlatform {
    FakePlatform();
    std::shared_ptr<FakeExecutor> executor = std::make_shared<FakeExecutor>();
    std::shared_ptr<FakeHttpClient> http = std::make_shared<FakeHttpClient>();
    std::shared_ptr<MemoryStore> store = std::make_shared<MemoryStore>();
    std::shared_ptr<FakeDeviceFacts> device = std::make_shared<FakeDeviceFacts>();
    std::shared_ptr<FakeLifecycle> lifecycle = std::make_shared<FakeLifecycle>();
    std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
    std::shared_ptr<FakePaths> paths = std::make_shared<FakePaths>();
    std::vector<std::shared_ptr<FakeSocket>> sockets;  // every socket made, oldest first
    std::shared_ptr<Platform> platform;
};

}  // namespace virela::testing
