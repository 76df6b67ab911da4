#include "tests/support/fake_platform.hpp"

#include "core/client/client.hpp"

#include <algorithm>
#include <utility>

#include "core/base/errors.hpp"

namespace virela::testing {

namespace {
class FlagWork final : public VirelaCancellable {
  public:
    explicit FlagWork(std::shared_ptr<bool> flag) : flag_(std::move(flag)) {}
    void cancel() override { *flag_ = true; }

  private:
    std::shared_ptr<bool> flag_;
};

class NoopCancellable final : public VirelaCancellable {
  public:
    void cancel() override {}
};
}  // namespace

std::shared_ptr<VirelaCancellable> FakeExecutor::postAfter(double, std::function<void()> work) {
    auto flag = std::make_shared<bool>(false);
    delayed_.push_back({std::move(work), flag});
    return std::make_unique<FlagWork>(flag);
}

std::shared_ptr<VirelaCancellable> FakeExecutor::repeat(double interval,
                                                        std::function<void()> work) {
    return postAfter(interval, std::move(work));
}

void FakeExecutor::drain() {
    while (!queue_.empty()) {
        auto work = std::move(queue_.front());
        queue_.pop_front();
        work();
    }
}

void FakeExecutor::fireDelayed() {
    auto delayed = std::move(delayed_);
    delayed_.clear();
    for (auto& item : delayed) {
        if (!*item.cancelled) item.work();
    }
}

std::shared_ptr<VirelaCancellable> FakeHttpClient::send(HttpRequest request,
                                                        std::function<void(HttpOutcome)> done) {
    requests.push_back(request);
    auto& script = scripted_[request.url.path()];
    if (!script.empty()) {
        HttpOutcome outcome = std::move(script.front());
        script.pop_front();
        done(std::move(outcome));
    } else {
        pending_.emplace_back(std::move(request), std::move(done));
    }
    return std::make_shared<NoopCancellable>();
}

void FakeHttpClient::reply(const std::string& path, int status, std::string body) {
    scripted_[path].push_back(HttpOutcome{HttpResponse{status, {}, std::move(body)}, nullptr});
}

void FakeHttpClient::fail(const std::string& path, std::exception_ptr error) {
    scripted_[path].push_back(HttpOutcome{std::nullopt, std::move(error)});
}

void FakeHttpClient::completePending(std::size_t index, HttpOutcome outcome) {
    auto done = std::move(pending_.at(index).second);
    pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(index));
    done(std::move(outcome));
}

std::vector<HttpRequest> FakeHttpClient::requestsTo(const std::string& path) const {
    std::vector<HttpRequest> out;
    std::copy_if(requests.begin(), requests.end(), std::back_inserter(out),
                 [&path](const HttpRequest& r) { return r.url.path() == path; });
    return out;
}

std::optional<std::size_t> FakeHttpClient::pendingIndex(const std::string& path) const {
    for (std::size_t i = 0; i < pending_.size(); ++i) {
        if (pending_[i].first.url.path() == path) return i;
    }
    return std::nullopt;
}

std::size_t FakeHttpClient::pendingCount() const {
    return pending_.size();
}

std::optional<std::string> MemoryStore::string(const std::string& key) const {
    auto it = values.find(key);
    if (it == values.end()) return std::nullopt;
    return it->second;
}

struct FakePaths::Monitor final : PathMonitor {
    std::shared_ptr<SerialQueue> queue;
    std::function<void(const NetworkPath&)> onUpdate;
    bool cancelled = false;
    FakePaths* owner = nullptr;

    void start(std::shared_ptr<SerialQueue> q,
               std::function<void(const NetworkPath&)> update) override {
        queue = std::move(q);
        onUpdate = std::move(update);
        if (owner->answerOnStart) deliver(owner->path);
    }
    void cancel() override { cancelled = true; }
    void deliver(const NetworkPath& path) {
        if (cancelled || !queue) return;
        queue->post([this, path, alive = weakSelf] {
            if (alive.lock() && !cancelled) onUpdate(path);
        });
    }
    std::weak_ptr<Monitor> weakSelf;
};

std::shared_ptr<PathMonitor> FakePaths::make() {
    auto monitor = std::make_shared<Monitor>();
    monitor->owner = this;
    monitor->weakSelf = monitor;
    monitors_.push_back(monitor);
    return monitor;
}

void FakePaths::push(const NetworkPath& next) {
    path = next;
    for (auto& weak : monitors_) {
        if (auto monitor = weak.lock()) monitor->deliver(next);
    }
}

std::size_t FakePaths::running() const {
    return static_cast<std::size_t>(std::count_if(monitors_.begin(), monitors_.end(), [](auto& w) {
        auto m = w.lock();
        return m && m->queue && !m->cancelled;
    }));
}

std::unique_ptr<Subscription> FakeLifecycle::observe(AppEvent event,
                                                     std::function<void()> handler) {
    auto id = observers_->nextId++;
    observers_->handlers[id] = {event, std::move(handler)};
    std::weak_ptr<Observers> weak = observers_;
    return std::make_unique<CallbackSubscription>([weak, id] {
        if (auto observers = weak.lock()) observers->handlers.erase(id);
    });
}

AppLifecycle::BackgroundTaskId FakeLifecycle::beginBackgroundTask(std::function<void()>) {
    begun.push_back(nextTask_);
    return nextTask_++;
}

void FakeLifecycle::endBackgroundTask(BackgroundTaskId id) {
    ended.push_back(id);
}

void FakeSocket::cancel(int code, std::optional<std::string>) {
    if (closeCode) return;
    closeCode = code;
    state_ = SocketState::completed;
    if (pendingReceive_) {
        fail(std::make_exception_ptr(NetworkError(NetworkError::Kind::cancelled, "cancelled")));
    }
}

void FakeSocket::send(SocketMessage message, std::function<void(std::exception_ptr)> completion) {
    sent.push_back(message.data);
    if (holdSends) {
        pendingSends_.push_back(std::move(completion));
    } else {
        completion(nullptr);
    }
}

void FakeSocket::receive(std::function<void(SocketReceiveResult)> completion) {
    ++receiveCalls;
    pendingReceive_ = std::move(completion);
}

void FakeSocket::deliver(SocketMessage message) {
    auto completion = std::exchange(pendingReceive_, nullptr);
    if (completion) completion(std::move(message));
}

void FakeSocket::fail(std::exception_ptr error) {
    if (!error) error = std::make_exception_ptr(NetworkError(NetworkError::Kind::other, "reset"));
    state_ = SocketState::completed;
    auto completion = std::exchange(pendingReceive_, nullptr);
    if (completion) completion(error);
}

void FakeSocket::completeSend(std::exception_ptr error) {
    if (pendingSends_.empty()) return;
    auto completion = std::move(pendingSends_.front());
    pendingSends_.erase(pendingSends_.begin());
    completion(error);
}

void FakeLifecycle::send(AppEvent event) {
    background = event == AppEvent::didEnterBackground;
    auto handlers = observers_->handlers;
    for (auto& [id, entry] : handlers) {
        if (entry.first == event) entry.second();
    }
}

std::size_t FakeLifecycle::observerCount() const {
    return observers_->handlers.size();
}

FakePlatform::FakePlatform() : platform(std::make_shared<Platform>()) {
    platform->main = executor;
    platform->http = http;
    platform->defaults = store;
    platform->device = device;
    platform->lifecycle = lifecycle;
    platform->log = log;
    auto exec = executor;
    platform->makeSerialQueue = [exec](const std::string&) -> std::shared_ptr<SerialQueue> {
        return exec;
    };
    auto monitors = paths;
    platform->makePathMonitor = [monitors] { return monitors->make(); };
    platform->makeSocket = [this](const Url& url, const std::shared_ptr<SocketSession>&,
                                  const std::vector<std::string>& protocols,
                                  std::weak_ptr<SocketDelegate> delegate) {
        auto socket = std::make_shared<FakeSocket>();
        socket->url = url;
        socket->protocols = protocols;
        socket->delegate = std::move(delegate);
        sockets.push_back(socket);
        return SocketConnection{socket, nullptr};
    };
}

std::vector<std::pair<std::string, std::function<void()>>> epochEndings(
    FakePlatform& fake, const std::shared_ptr<VirelaClient>& client) {
    return {
        {"stop", [&client] { client->stop(); }},
        {"reset",
         [&fake, &client] {
             fake.http->reply("/v1/sdk/devices/reset", 200, "{}");
             client->reset();
         }},
        {"newer configure",
         [&fake, &client] {
             fake.http->reply("/v1/sdk/devices", 200, kRegisteredReply);
             client->configure(*Url::parse("https://backend.test"), "key", std::nullopt, false,
                               [](std::exception_ptr) {});
         }},
    };
}

}  // namespace virela::testing
