#include "tools/devserver/server.hpp"

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "core/base/json.hpp"
#include "tools/devserver/agent.hpp"
#include "tools/devserver/capture_book.hpp"
#include "tools/devserver/console_api.hpp"
#include "tools/devserver/console_auth.hpp"
#include "tools/devserver/console_journal.hpp"
#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/http_server.hpp"
#include "tools/devserver/live_book.hpp"
#include "tools/devserver/reference_pages.hpp"
#include "tools/devserver/router.hpp"
#include "tools/devserver/sdk_routes.hpp"
#include "tools/devserver/socket_admission.hpp"
#include "tools/devserver/socket_hub.hpp"
#include "tools/devserver/traffic_log.hpp"

namespace virela::devserver {

namespace {

bool sendableCloseCode(int code) {
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1013) ||
           (code >= 3000 && code <= 4999);
}

std::chrono::milliseconds fromSeconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(seconds));
}

// A "view" message. Devices build it by concatenation without escaping, so a session id with a
// quote in it is not valid JSON; the exact layout is read first and JSON only as a fallback.
std::optional<ViewChange> parseViewChange(const std::string& text) {
    constexpr std::string_view kHead = R"({"type":"view","kind":")";
    constexpr std::string_view kMiddle = R"(","sessionId":")";
    constexpr std::string_view kTail = R"("})";
    if (text.starts_with(kHead) && text.ends_with(kTail)) {
        const std::size_t middle = text.find(kMiddle, kHead.size());
        if (middle != std::string::npos && middle + kMiddle.size() <= text.size() - kTail.size()) {
            const std::size_t sessionAt = middle + kMiddle.size();
            return ViewChange{text.substr(kHead.size(), middle - kHead.size()),
                              text.substr(sessionAt, text.size() - kTail.size() - sessionAt), text};
        }
    }
    if (!jsonNestsWithin(text)) return std::nullopt;
    const nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
    if (!value.is_object() || value.value("type", nlohmann::json()) != "view") return std::nullopt;
    auto member = [&](const char* key) {
        auto it = value.find(key);
        return it != value.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    return ViewChange{member("kind"), member("sessionId"), text};
}

}  // namespace

struct Server::Impl {
    // An agent acting before the first start() gets the defaults of Options.
    Impl() { agent.setDefaults(Options().consentCopy, Options().promptSeconds); }

    // Serialises start and stop. Never taken on the server thread.
    std::mutex lifecycle;
    std::unique_ptr<HttpServer> http;
    std::unique_ptr<TlsFront> tlsFront;
    std::string tlsUrl;

    // Everything below is shared with the server thread.
    mutable std::mutex mutex;
    std::vector<RecordedRequest> requests;
    // nullopt stands for "close the connection".
    std::map<std::string, std::deque<std::optional<QueuedReply>>, std::less<>> queued;
    std::chrono::steady_clock::time_point framesStalledUntil{};
    std::uint16_t port = 0;
    std::string url;

    DeviceRegistry registry;
    CaptureBook captures;
    LiveBook live;
    SocketHub sockets{[this](std::string_view device) { return registry.deviceIdOf(device); }};
    Agent agent{registry, captures, live, sockets};
    ConsoleJournal journal;
    ConsoleApi console{agent, registry, captures, live, journal};
    // Rebuilt by start() while no server thread runs; read only by the server thread.
    Router router;
    std::string consoleToken;  // empty: no console
    std::function<void(const RecordedRequest&, int)> onRequest;
    std::shared_ptr<TrafficLog> traffic;  // null: not recording
    bool keepRequests = true;

    Outcome handle(RecordedRequest request, int version);
    std::uint16_t currentPort() const;
    // What devices report, for the console while it is on.
    void report(const DeviceReport& report);
};

Outcome Server::Impl::handle(RecordedRequest request, int version) {
    std::optional<std::optional<QueuedReply>> injected;
    std::chrono::steady_clock::time_point stalledUntil{};
    bool stalled = false;
    {
        std::lock_guard lock(mutex);
        if (request.method == "POST" && request.path.starts_with("/v1/sdk/live/") &&
            request.path.ends_with("/frame")) {
            stalledUntil = framesStalledUntil;
            stalled = stalledUntil > std::chrono::steady_clock::now();
        }
        auto it = queued.find(request.path);
        if (it != queued.end() && !stalled) {
            injected = std::move(it->second.front());
            it->second.pop_front();
            if (it->second.empty()) queued.erase(it);
        }
    }

    Outcome outcome;
    if (stalled) {
        outcome.reply = jsonError(503, "stalled", "The backend stalled; the frame was not kept.");
        outcome.holdUntil = stalledUntil;
    } else if (injected && !*injected) {
        outcome.kind = Outcome::Kind::close;
    } else if (injected) {
        QueuedReply& canned = **injected;
        outcome.reply.status = canned.status;
        outcome.reply.body = std::move(canned.body);
        outcome.reply.contentType = std::move(canned.contentType);
    } else {
        try {
            if (!consoleToken.empty() && consoleGuards(request.path) &&
                !carriesConsoleToken(request, consoleToken, currentPort())) {
                outcome.reply = consoleRefusal();
            } else if (request.path == kSocketPath) {
                outcome = admitSocket(request, version, registry, sockets.refusing());
            } else {
                outcome.reply = router.dispatch(request);
            }
        } catch (const std::exception&) {
            outcome.reply = jsonError(500, "internal", "The server failed to handle the request.");
        }
    }

    if (onRequest) {
        try {
            onRequest(request, outcome.kind == Outcome::Kind::close ? 0 : outcome.reply.status);
        } catch (const std::exception&) {
            // An observer's failure is not the client's problem.
        }
    }
    if (traffic) {
        try {
            if (request.path == kSocketPath) {
                const int status = outcome.kind == Outcome::Kind::upgrade ? 101
                                   : outcome.kind == Outcome::Kind::close ? 0
                                                                          : outcome.reply.status;
                traffic->upgrade(request, status, outcome.deviceId, outcome.subprotocol);
            } else {
                traffic->request(request,
                                 outcome.kind == Outcome::Kind::close ? nullptr : &outcome.reply,
                                 injected.has_value());
            }
        } catch (const std::exception&) {
            // A log that cannot be written is the tester's problem, not the client's.
        }
    }
    // Recorded before the reply goes out, so a client that has its answer finds it here.
    if (!keepRequests) return outcome;
    std::lock_guard lock(mutex);
    requests.push_back(std::move(request));
    return outcome;
}

std::uint16_t Server::Impl::currentPort() const {
    std::lock_guard lock(mutex);
    return port;
}

void Server::Impl::report(const DeviceReport& report) {
    try {
        journal.note(report);
        console.react(report);
    } catch (const std::exception&) {
        // The journal is for the page; a report it cannot read is not the device's problem.
    }
}

Server::Server() : impl_(std::make_unique<Impl>()) {}

Server::~Server() {
    stop();
}

void Server::start(Options options) {
    std::lock_guard lifecycle(impl_->lifecycle);
    if (impl_->http) throw std::logic_error("devserver is already running");
    // Opened first, so that a log that cannot be opened leaves the server as it was.
    impl_->traffic =
        options.trafficLog.empty() ? nullptr : std::make_shared<TrafficLog>(options.trafficLog);

    impl_->router = Router();
    impl_->registry.setTokenPrefix(options.tokenPrefix);
    Impl* impl = impl_.get();
    impl_->consoleToken = options.consoleToken.value_or("");
    ReportHandler report;
    if (!impl_->consoleToken.empty()) {
        report = [impl](const DeviceReport& what) { impl->report(what); };
    }
    addDeviceRoutes(impl_->router, impl_->registry,
                    {options.apiKeys, options.consentCopy, options.captureMode, report});
    auto baseUrl = [impl] {
        std::lock_guard lock(impl->mutex);
        return impl->url;
    };
    addCaptureRoutes(impl_->router, impl_->registry, impl_->captures, impl_->live,
                     {fromSeconds(options.sessionSeconds), baseUrl, report});
    addLiveRoutes(impl_->router, impl_->registry, impl_->live, baseUrl, report);
    addReferencePages(impl_->router);
    impl_->live.setLeaseTimes(fromSeconds(options.leaseGraceSeconds),
                              fromSeconds(options.leaseSeconds));
    if (!impl_->consoleToken.empty()) {
        addConsolePages(impl_->router, impl_->consoleToken, options.consoleDirectory,
                        [impl] { return impl->currentPort(); });
        impl_->console.addRoutes(impl_->router);
    }
    impl_->onRequest = std::move(options.onRequest);
    impl_->keepRequests = options.keepRequests;
    impl_->agent.setDefaults(options.consentCopy, options.promptSeconds);

    if (impl_->consoleToken.empty()) {
        impl_->sockets.open(std::move(options.onSocketEvent), impl_->traffic);
    } else {
        impl_->sockets.open(
            [impl, observer = std::move(options.onSocketEvent)](const SocketEvent& event) {
                try {
                    impl->journal.note(event);
                } catch (const std::exception&) {
                    // As above: the journal never takes a socket down.
                }
                if (observer) observer(event);
            },
            impl_->traffic);
    }
    std::unique_ptr<HttpServer> http;
    try {
        http = std::make_unique<HttpServer>(
            options.host, options.port,
            [impl](RecordedRequest request, int version) {
                return impl->handle(std::move(request), version);
            },
            impl_->sockets, options.beyondLoopback);
    } catch (...) {
        impl_->sockets.shutdown();
        throw;
    }
    std::unique_ptr<TlsFront> front;
    if (options.tls) {
        try {
            front = std::make_unique<TlsFront>(options.host, options.tlsPort, http->port(),
                                               *options.tls);
        } catch (...) {
            http->halt();
            impl_->sockets.shutdown();
            throw;
        }
    }
    {
        std::lock_guard lock(impl_->mutex);
        impl_->port = http->port();
        impl_->url = http->url();
        impl_->tlsUrl = front ? "https" + impl_->url.substr(4, impl_->url.rfind(':') - 4) + ":" +
                                    std::to_string(front->port())
                              : "";
    }
    impl_->http = std::move(http);
    impl_->tlsFront = std::move(front);
}

void Server::stop() {
    std::lock_guard lifecycle(impl_->lifecycle);
    impl_->tlsFront.reset();
    if (impl_->http) {
        // The thread goes first, so that no session is still running while the hub forgets
        // them all, and the io_context last, so that the hub never posts to a dead one.
        impl_->http->halt();
        impl_->sockets.shutdown();
    }
    impl_->http.reset();
    std::lock_guard lock(impl_->mutex);
    impl_->port = 0;
    impl_->url.clear();
    impl_->tlsUrl.clear();
}

bool Server::running() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port != 0;
}

std::uint16_t Server::port() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port;
}

std::string Server::url() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->url;
}

std::string Server::tlsUrl() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->tlsUrl;
}

std::string Server::consoleUrl() const {
    std::lock_guard lock(impl_->mutex);
    if (impl_->url.empty() || impl_->consoleToken.empty()) return {};
    return impl_->url + "/console?token=" + impl_->consoleToken;
}

std::string Server::answerBytes(std::string_view bytes) {
    // Held throughout, so that stop() and start() wait for the router this reads.
    std::lock_guard lifecycle(impl_->lifecycle);
    if (!impl_->http) return {};
    Impl* impl = impl_.get();
    return devserver::answerBytes(bytes, [impl](RecordedRequest request, int version) {
        return impl->handle(std::move(request), version);
    });
}

std::vector<RecordedRequest> Server::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

std::vector<RecordedRequest> Server::requests(std::string_view path) const {
    std::lock_guard lock(impl_->mutex);
    std::vector<RecordedRequest> matching;
    for (const RecordedRequest& request : impl_->requests) {
        if (request.path == path) matching.push_back(request);
    }
    return matching;
}

void Server::clearRequests() {
    std::lock_guard lock(impl_->mutex);
    impl_->requests.clear();
}

void Server::queueReply(std::string path, QueuedReply reply) {
    std::lock_guard lock(impl_->mutex);
    impl_->queued[std::move(path)].emplace_back(std::move(reply));
}

void Server::queueClose(std::string path) {
    std::lock_guard lock(impl_->mutex);
    impl_->queued[std::move(path)].emplace_back(std::nullopt);
}

std::optional<DeviceInfo> Server::device(std::string_view idTokenOrCode) const {
    return impl_->registry.find(idTokenOrCode);
}

std::vector<DeviceInfo> Server::devices() const {
    return impl_->registry.all();
}

bool Server::pushText(std::string_view device, std::string text) {
    return impl_->sockets.send(device, {Outgoing::Kind::text, std::move(text), 0, true});
}

bool Server::pushBinary(std::string_view device, std::string bytes) {
    return impl_->sockets.send(device, {Outgoing::Kind::binary, std::move(bytes), 0, true});
}

std::vector<std::string> Server::framesFrom(std::string_view device) const {
    return impl_->sockets.frames(device);
}

bool Server::connected(std::string_view device) const {
    return impl_->sockets.connected(device);
}

std::size_t Server::connectionsAccepted(std::string_view device) const {
    return impl_->sockets.accepted(device);
}

bool Server::waitForConnection(std::string_view device, std::chrono::milliseconds timeout,
                               std::size_t minAccepted) const {
    return impl_->sockets.waitForConnection(device, timeout, minAccepted);
}

bool Server::waitForFrames(std::string_view device, std::size_t count,
                           std::chrono::milliseconds timeout) const {
    return impl_->sockets.waitForFrames(device, count, timeout);
}

void Server::dropConnection(std::string_view device) {
    impl_->sockets.drop(device);
}

void Server::closeConnection(std::string_view device, int code) {
    if (!sendableCloseCode(code)) {
        throw std::invalid_argument("close code " + std::to_string(code) +
                                    " may not be sent in a close frame");
    }
    impl_->sockets.send(device, {Outgoing::Kind::close, {}, code});
}

void Server::stallFrames(std::chrono::milliseconds duration) {
    std::lock_guard lock(impl_->mutex);
    impl_->framesStalledUntil = std::chrono::steady_clock::now() + duration;
}

void Server::refuseConnections(std::chrono::milliseconds duration) {
    impl_->sockets.refuseFor(duration);
}

std::optional<AskedScreenshot> Server::askScreenshot(std::string_view device,
                                                     ScreenshotRequest request) {
    return impl_->agent.askScreenshot(device, std::move(request)).value;
}

bool Server::sendCapture(std::string_view device, std::string_view requestId) {
    return static_cast<bool>(impl_->agent.sendCapture(device, requestId));
}

bool Server::endCall(std::string_view device) {
    return impl_->agent.endCall(device);
}

bool Server::sendExpired(std::string_view device) {
    return impl_->agent.sendExpired(device);
}

bool Server::sendDenied(std::string_view device) {
    return impl_->agent.sendDenied(device);
}

void Server::setRespondStatus(std::string status) {
    impl_->agent.setRespondStatus(std::move(status));
}

std::optional<CaptureRecord> Server::captureRequest(std::string_view requestId) const {
    return impl_->captures.find(requestId);
}

std::vector<CaptureRecord> Server::captureRequests() const {
    return impl_->captures.all();
}

bool Server::waitForAnswer(std::string_view requestId, std::chrono::milliseconds timeout) const {
    return impl_->captures.waitFor(
        requestId, timeout, [](const CaptureRecord& record) { return record.answer.has_value(); });
}

bool Server::waitForUpload(std::string_view requestId, std::chrono::milliseconds timeout) const {
    return impl_->captures.waitFor(requestId, timeout, [](const CaptureRecord& record) {
        return record.captureId.has_value();
    });
}

std::string Server::logoUrl() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->url.empty() ? std::string() : impl_->url + std::string(kLogoPath);
}

std::optional<LivePushed> Server::requestLive(std::string_view device, LiveRequest request) {
    return impl_->agent.requestLive(device, std::move(request));
}

bool Server::activateLive(std::string_view device, std::string_view sessionId,
                          std::optional<std::string> generation) {
    return impl_->agent.activateLive(device, sessionId, std::move(generation));
}

bool Server::endLive(std::string_view device, std::string_view sessionId) {
    return impl_->agent.endLive(device, sessionId);
}

std::optional<LivePushed> Server::sendLiveNote(std::string_view device, std::string_view sessionId,
                                               LiveNote note) {
    return impl_->agent.sendLiveNote(device, sessionId, std::move(note));
}

bool Server::sendGuide(std::string_view device, std::string_view sessionId, const Guide& guide) {
    return impl_->agent.sendGuide(device, sessionId, guide);
}

void Server::refuseIndicator(std::string kind, bool refuse) {
    impl_->agent.refuseIndicator(std::move(kind), refuse);
}

std::optional<LiveRecord> Server::liveSession(std::string_view sessionId) const {
    return impl_->live.find(sessionId);
}

std::vector<LiveRecord> Server::liveSessions() const {
    return impl_->live.all();
}

std::string Server::liveFrameUrl(std::string_view sessionId) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->url.empty() ? std::string() : impl_->url + liveFramePath(sessionId);
}

std::vector<ViewChange> Server::viewChanges(std::string_view device) const {
    std::vector<ViewChange> views;
    for (const std::string& text : impl_->sockets.frames(device)) {
        if (auto view = parseViewChange(text)) views.push_back(std::move(*view));
    }
    return views;
}

bool Server::waitForLiveAnswer(std::string_view sessionId, std::chrono::milliseconds timeout,
                               std::size_t count) const {
    return impl_->live.waitFor(sessionId, timeout, [count](const LiveRecord& record) {
        return record.answers.size() >= count;
    });
}

bool Server::waitForLiveFrames(std::string_view sessionId, std::size_t count,
                               std::chrono::milliseconds timeout) const {
    return impl_->live.waitFor(
        sessionId, timeout, [count](const LiveRecord& record) { return record.frames >= count; });
}

bool Server::waitForIndicator(std::string_view sessionId, std::size_t count,
                              std::chrono::milliseconds timeout) const {
    return impl_->live.waitFor(sessionId, timeout, [count](const LiveRecord& record) {
        return record.indicators.size() >= count;
    });
}

bool Server::waitForLivePromptShown(std::string_view sessionId, std::string_view promptId,
                                    std::chrono::milliseconds timeout) const {
    return impl_->live.waitFor(sessionId, timeout, [promptId](const LiveRecord& record) {
        return std::find(record.promptsShown.begin(), record.promptsShown.end(), promptId) !=
               record.promptsShown.end();
    });
}

bool Server::waitForViewChanges(std::string_view device, std::size_t count,
                                std::chrono::milliseconds timeout) const {
    return impl_->sockets.waitForTexts(
        device,
        [count](const std::vector<std::string>& texts) {
            return static_cast<std::size_t>(
                       std::count_if(texts.begin(), texts.end(), [](const std::string& text) {
                           return parseViewChange(text).has_value();
                       })) >= count;
        },
        timeout);
}

std::optional<ControlPushed> Server::requestControl(std::string_view device,
                                                    std::string_view sessionId,
                                                    ControlRequest request) {
    return impl_->agent.requestControl(device, sessionId, std::move(request));
}

bool Server::grantControl(std::string_view device, std::string_view sessionId,
                          std::optional<std::string> generation) {
    return static_cast<bool>(impl_->agent.grantControl(device, sessionId, std::move(generation)));
}

bool Server::endControl(std::string_view device, std::string_view sessionId) {
    return impl_->agent.endControl(device, sessionId);
}

bool Server::sendInput(std::string_view device, std::string_view sessionId,
                       const ControlInput& input) {
    return static_cast<bool>(impl_->agent.sendInput(device, sessionId, input));
}

std::optional<ControlRecord> Server::controlSession(std::string_view sessionId) const {
    std::optional<LiveRecord> record = impl_->live.find(sessionId);
    if (!record) return std::nullopt;
    return std::move(record->control);
}

bool Server::waitForControlAnswer(std::string_view sessionId, std::chrono::milliseconds timeout,
                                  std::size_t count) const {
    return impl_->live.waitFor(sessionId, timeout, [count](const LiveRecord& record) {
        return record.control.answers.size() >= count;
    });
}

bool Server::waitForFeedback(std::string_view sessionId, std::size_t count,
                             std::chrono::milliseconds timeout) const {
    return impl_->live.waitFor(sessionId, timeout, [count](const LiveRecord& record) {
        return record.control.feedback.size() >= count;
    });
}

}  // namespace virela::devserver
