#include "tools/devserver/server.hpp"

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "tools/devserver/capture_book.hpp"
#include "tools/devserver/console.hpp"
#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/http_server.hpp"
#include "tools/devserver/live_book.hpp"
#include "tools/devserver/router.hpp"
#include "tools/devserver/sdk_routes.hpp"
#include "tools/devserver/socket_admission.hpp"
#include "tools/devserver/socket_hub.hpp"

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

std::string frame(std::string_view type, const nlohmann::ordered_json& payload) {
    const nlohmann::ordered_json message{{"type", type}, {"payload", payload}};
    return message.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
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
    explicit Impl(Server& server) : console(server, registry, captures, live) {}

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
    // What the last start() was given, for the defaults of an asked screenshot.
    std::string consentCopy = Options().consentCopy;
    double promptSeconds = Options().promptSeconds;

    DeviceRegistry registry;
    CaptureBook captures;
    LiveBook live;
    SocketHub sockets{[this](std::string_view device) { return registry.deviceIdOf(device); }};
    Console console;
    // Rebuilt by start() while no server thread runs; read only by the server thread.
    Router router;
    std::string consoleToken;  // empty: no console
    std::function<void(const RecordedRequest&, int)> onRequest;
    bool keepRequests = true;

    Outcome handle(RecordedRequest request, int version);
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
                !carriesConsoleToken(request, consoleToken, [this] {
                    std::lock_guard lock(mutex);
                    return port;
                }())) {
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

    if (!consoleToken.empty() && outcome.kind != Outcome::Kind::close) {
        try {
            console.observe(request, outcome.reply.status);
        } catch (const std::exception&) {
            // The journal is for the page; a report it cannot read is not the device's problem.
        }
    }
    if (onRequest) {
        try {
            onRequest(request, outcome.kind == Outcome::Kind::close ? 0 : outcome.reply.status);
        } catch (const std::exception&) {
            // An observer's failure is not the client's problem.
        }
    }
    // Recorded before the reply goes out, so a client that has its answer finds it here.
    if (!keepRequests) return outcome;
    std::lock_guard lock(mutex);
    requests.push_back(std::move(request));
    return outcome;
}

Server::Server() : impl_(std::make_unique<Impl>(*this)) {}

Server::~Server() {
    stop();
}

void Server::start(Options options) {
    std::lock_guard lifecycle(impl_->lifecycle);
    if (impl_->http) throw std::logic_error("devserver is already running");

    impl_->router = Router();
    impl_->registry.setTokenPrefix(options.tokenPrefix);
    addDeviceRoutes(impl_->router, impl_->registry,
                    {options.apiKeys, options.consentCopy, options.captureMode});
    Impl* impl = impl_.get();
    auto baseUrl = [impl] {
        std::lock_guard lock(impl->mutex);
        return impl->url;
    };
    addCaptureRoutes(impl_->router, impl_->registry, impl_->captures, impl_->live,
                     {fromSeconds(options.sessionSeconds), baseUrl});
    addLiveRoutes(impl_->router, impl_->registry, impl_->live, baseUrl);
    impl_->consoleToken = options.consoleToken.value_or("");
    // The console's agent watches leases lapse, as with a real backend.
    impl_->live.enforceLeases(!impl_->consoleToken.empty());
    if (!impl_->consoleToken.empty()) {
        impl_->console.addRoutes(impl_->router, impl_->consoleToken, options.consoleDirectory);
    }
    impl_->onRequest = std::move(options.onRequest);
    impl_->keepRequests = options.keepRequests;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->consentCopy = options.consentCopy;
        impl_->promptSeconds = options.promptSeconds;
    }

    if (impl_->consoleToken.empty()) {
        impl_->sockets.open(std::move(options.onSocketEvent));
    } else {
        impl_->sockets.open(
            [impl, observer = std::move(options.onSocketEvent)](const SocketEvent& event) {
                try {
                    impl->console.observe(event);
                } catch (const std::exception&) {
                    // As above: the journal never takes a socket down.
                }
                if (observer) observer(event);
            });
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
    return impl_->sockets.send(device, {Outgoing::Kind::text, std::move(text), 0});
}

bool Server::pushBinary(std::string_view device, std::string bytes) {
    return impl_->sockets.send(device, {Outgoing::Kind::binary, std::move(bytes), 0});
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
    std::string consentCopy;
    double promptSeconds = 0;
    {
        std::lock_guard lock(impl_->mutex);
        consentCopy = impl_->consentCopy;
        promptSeconds = impl_->promptSeconds;
    }
    CaptureBook& book = impl_->captures;
    AskedScreenshot asked;
    asked.requestId = request.requestId ? *request.requestId : book.freshRequestId();
    asked.promptId = request.promptId ? *request.promptId : book.freshPromptId();
    nlohmann::ordered_json payload{
        {"requestId", asked.requestId},
        {"promptId", asked.promptId},
        {"mode", request.mode},
        {"consentCopy", request.consentCopy ? *request.consentCopy : consentCopy}};
    if (request.agentName) payload["agentName"] = *request.agentName;
    if (request.workspaceName) payload["workspaceName"] = *request.workspaceName;
    if (request.logoUrl) payload["logoUrl"] = *request.logoUrl;
    payload["expiresAt"] =
        request.expiresAt ? *request.expiresAt
                          : isoUtc(std::chrono::system_clock::now() + fromSeconds(promptSeconds));
    asked.push = frame("consent", payload);

    const std::string deviceId = impl_->registry.deviceIdOf(device).value_or(std::string(device));
    const bool sent = book.ask(asked.requestId, deviceId, request.mode, asked.promptId, [&] {
        return impl_->sockets.send(device, {Outgoing::Kind::text, asked.push, 0});
    });
    if (!sent) return std::nullopt;
    return asked;
}

bool Server::sendCapture(std::string_view device, std::string_view requestId) {
    const std::string push = frame("capture", {{"requestId", requestId}});
    return impl_->captures.touch(std::string(requestId), [&] {
        return impl_->sockets.send(device, {Outgoing::Kind::text, push, 0});
    });
}

bool Server::sendExpired(std::string_view device) {
    return pushText(device, frame("expired", nlohmann::ordered_json::object()));
}

bool Server::sendDenied(std::string_view device) {
    return pushText(device, frame("denied", nlohmann::ordered_json::object()));
}

void Server::setRespondStatus(std::string status) {
    impl_->captures.setRespondStatus(std::move(status));
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
    const std::optional<std::string> deviceId = impl_->registry.deviceIdOf(device);
    if (!deviceId) return std::nullopt;
    double promptSeconds = 0;
    {
        std::lock_guard lock(impl_->mutex);
        promptSeconds = impl_->promptSeconds;
    }
    LivePushed pushed;
    pushed.sessionId = request.sessionId ? *request.sessionId : impl_->live.freshSessionId();
    pushed.promptId = request.promptId ? *request.promptId : impl_->captures.freshPromptId();
    nlohmann::ordered_json payload{{"sessionId", pushed.sessionId}, {"state", "requested"}};
    if (request.consentCopy) payload["consentCopy"] = *request.consentCopy;
    payload["promptId"] = pushed.promptId;
    if (request.agentName) payload["agentName"] = *request.agentName;
    if (request.workspaceName) payload["workspaceName"] = *request.workspaceName;
    if (request.logoUrl) payload["logoUrl"] = *request.logoUrl;
    if (!request.expiresAt) {
        payload["expiresAt"] =
            isoUtc(std::chrono::system_clock::now() + fromSeconds(promptSeconds));
    } else if (!request.expiresAt->empty()) {
        payload["expiresAt"] = *request.expiresAt;
    }
    pushed.push = frame("live", payload);

    const bool sent = impl_->live.request(pushed.sessionId, *deviceId, pushed.promptId, [&] {
        return impl_->sockets.send(device, {Outgoing::Kind::text, pushed.push, 0});
    });
    if (!sent) return std::nullopt;
    return pushed;
}

bool Server::activateLive(std::string_view device, std::string_view sessionId,
                          std::optional<std::string> generation) {
    const std::optional<std::string> deviceId = impl_->registry.deviceIdOf(device);
    if (!deviceId) return false;
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"state", "active"}};
    if (generation) payload["generation"] = *generation;
    const std::string push = frame("live", payload);
    return impl_->live.activate(std::string(sessionId), *deviceId, std::move(generation), [&] {
        return impl_->sockets.send(device, {Outgoing::Kind::text, push, 0});
    });
}

bool Server::endLive(std::string_view device, std::string_view sessionId) {
    const std::optional<std::string> deviceId = impl_->registry.deviceIdOf(device);
    if (!deviceId) return false;
    impl_->live.end(sessionId, *deviceId);
    return pushText(device, frame("live", {{"sessionId", sessionId}, {"state", "ended"}}));
}

std::optional<LivePushed> Server::sendLiveNote(std::string_view device, std::string_view sessionId,
                                               LiveNote note) {
    LivePushed pushed;
    pushed.sessionId = sessionId;
    pushed.promptId = note.promptId ? *note.promptId : impl_->captures.freshPromptId();
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"kind", note.kind}};
    if (note.guides) payload["guides"] = *note.guides;
    payload["promptId"] = pushed.promptId;
    if (note.generation) payload["generation"] = *note.generation;
    pushed.push = frame("live-note", payload);
    // Known before the push goes out, so that a report racing back finds its session.
    impl_->live.notePrompt(sessionId, pushed.promptId);
    if (!pushText(device, pushed.push)) return std::nullopt;
    return pushed;
}

bool Server::sendGuide(std::string_view device, std::string_view sessionId, const Guide& guide) {
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"kind", guide.kind}};
    const std::pair<const char*, const std::optional<double>*> numbers[] = {
        {"x", &guide.x},   {"y", &guide.y}, {"x2", &guide.x2},
        {"y2", &guide.y2}, {"w", &guide.w}, {"h", &guide.h}};
    for (const auto& [key, value] : numbers) {
        if (*value) payload[key] = **value;
    }
    if (guide.color) payload["color"] = *guide.color;
    if (guide.text) payload["text"] = *guide.text;
    return pushText(device, frame("guide", payload));
}

void Server::refuseIndicator(std::string kind, bool refuse) {
    impl_->live.refuseIndicator(std::move(kind), refuse);
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
    ControlPushed pushed;
    pushed.sessionId = sessionId;
    pushed.requestId = request.requestId ? *request.requestId : impl_->live.freshControlRequestId();
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"state", "requested"}};
    if (!pushed.requestId.empty()) payload["requestId"] = pushed.requestId;
    if (request.consentCopy) payload["consentCopy"] = *request.consentCopy;
    if (request.agentName) payload["agentName"] = *request.agentName;
    if (request.workspaceName) payload["workspaceName"] = *request.workspaceName;
    if (request.logoUrl) payload["logoUrl"] = *request.logoUrl;
    pushed.push = frame("control", payload);
    const bool sent =
        impl_->live.pushControl(sessionId, "requested", pushed.requestId, std::nullopt, [&] {
            return impl_->sockets.send(device, {Outgoing::Kind::text, pushed.push, 0});
        });
    if (!sent) return std::nullopt;
    return pushed;
}

bool Server::grantControl(std::string_view device, std::string_view sessionId,
                          std::optional<std::string> generation) {
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"state", "active"}};
    if (generation) payload["generation"] = *generation;
    const std::string push = frame("control", payload);
    return impl_->live.pushControl(sessionId, "active", std::nullopt, std::move(generation), [&] {
        return impl_->sockets.send(device, {Outgoing::Kind::text, push, 0});
    });
}

bool Server::endControl(std::string_view device, std::string_view sessionId) {
    if (!impl_->registry.deviceIdOf(device)) return false;
    impl_->live.endControl(sessionId);
    return pushText(device, frame("control", {{"sessionId", sessionId}, {"state", "ended"}}));
}

bool Server::sendInput(std::string_view device, std::string_view sessionId,
                       const ControlInput& input) {
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"action", input.action}};
    const std::pair<const char*, const std::optional<double>*> numbers[] = {
        {"x", &input.x}, {"y", &input.y}, {"dx", &input.dx}, {"dy", &input.dy}};
    for (const auto& [key, value] : numbers) {
        if (*value) payload[key] = **value;
    }
    if (input.text) payload["text"] = *input.text;
    if (input.key) payload["key"] = *input.key;
    const std::string push = frame("control-input", payload);
    return impl_->live.pushInput(sessionId, [&] {
        return impl_->sockets.send(device, {Outgoing::Kind::text, push, 0});
    });
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
