#include "tools/devserver/agent.hpp"

#include <chrono>
#include <utility>

#include <nlohmann/json.hpp>

#include "tools/devserver/capture_book.hpp"
#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/live_book.hpp"
#include "tools/devserver/socket_hub.hpp"

namespace virela::devserver {

namespace {

std::chrono::milliseconds fromSeconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(seconds));
}

std::string frame(std::string_view type, const nlohmann::ordered_json& payload) {
    const nlohmann::ordered_json message{{"type", type}, {"payload", payload}};
    return message.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace

Agent::Agent(const DeviceRegistry& registry, CaptureBook& captures, LiveBook& live,
             SocketHub& sockets)
    : registry_(registry), captures_(captures), live_(live), sockets_(sockets) {}

void Agent::setDefaults(std::string consentCopy, double promptSeconds) {
    std::lock_guard lock(mutex_);
    consentCopy_ = std::move(consentCopy);
    promptSeconds_ = promptSeconds;
}

bool Agent::connected(std::string_view device) const {
    return sockets_.connected(device);
}

bool Agent::push(std::string_view device, std::string text) {
    return sockets_.send(device, {Outgoing::Kind::text, std::move(text), 0});
}

Attempt<AskedScreenshot> Agent::askScreenshot(std::string_view device, ScreenshotRequest request) {
    std::string consentCopy;
    double promptSeconds = 0;
    {
        std::lock_guard lock(mutex_);
        consentCopy = consentCopy_;
        promptSeconds = promptSeconds_;
    }
    CaptureBook& book = captures_;
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
    std::optional<std::chrono::system_clock::time_point> expires;
    if (!request.expiresAt) expires = std::chrono::system_clock::now() + fromSeconds(promptSeconds);
    payload["expiresAt"] = request.expiresAt ? *request.expiresAt : isoUtc(*expires);
    asked.push = frame("consent", payload);

    const std::string deviceId = registry_.deviceIdOf(device).value_or(std::string(device));
    Attempt<Done> sent =
        book.ask(asked.requestId, deviceId, request.mode, asked.promptId, expires, [&] {
            return sockets_.send(device, {Outgoing::Kind::text, asked.push, 0});
        });
    Attempt<AskedScreenshot> attempt;
    attempt.refusal = std::move(sent.refusal);
    if (sent) attempt.value = std::move(asked);
    return attempt;
}

Attempt<Done> Agent::sendCapture(std::string_view device, std::string_view requestId) {
    const std::string push = frame("capture", {{"requestId", requestId}});
    const std::string deviceId = registry_.deviceIdOf(device).value_or(std::string(device));
    return captures_.another(requestId, deviceId, [&] {
        return sockets_.send(device, {Outgoing::Kind::text, push, 0});
    });
}

bool Agent::endCall(std::string_view device) {
    const std::optional<std::string> deviceId = registry_.deviceIdOf(device);
    if (!deviceId) return false;
    captures_.endCalls(*deviceId);
    return push(device, frame("session", {{"state", "ended"}}));
}

bool Agent::sendExpired(std::string_view device) {
    return push(device, frame("expired", nlohmann::ordered_json::object()));
}

bool Agent::sendDenied(std::string_view device) {
    return push(device, frame("denied", nlohmann::ordered_json::object()));
}

void Agent::setRespondStatus(std::string status) {
    captures_.setRespondStatus(std::move(status));
}

std::optional<LivePushed> Agent::requestLive(std::string_view device, LiveRequest request) {
    const std::optional<std::string> deviceId = registry_.deviceIdOf(device);
    if (!deviceId) return std::nullopt;
    double promptSeconds = 0;
    {
        std::lock_guard lock(mutex_);
        promptSeconds = promptSeconds_;
    }
    LivePushed pushed;
    pushed.sessionId = request.sessionId ? *request.sessionId : live_.freshSessionId();
    pushed.promptId = request.promptId ? *request.promptId : captures_.freshPromptId();
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

    const bool sent = live_.request(pushed.sessionId, *deviceId, pushed.promptId, [&] {
        return sockets_.send(device, {Outgoing::Kind::text, pushed.push, 0});
    });
    if (!sent) return std::nullopt;
    return pushed;
}

bool Agent::activateLive(std::string_view device, std::string_view sessionId,
                         std::optional<std::string> generation) {
    const std::optional<std::string> deviceId = registry_.deviceIdOf(device);
    if (!deviceId) return false;
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"state", "active"}};
    if (generation) payload["generation"] = *generation;
    const std::string push = frame("live", payload);
    return live_.activate(std::string(sessionId), *deviceId, std::move(generation), [&] {
        return sockets_.send(device, {Outgoing::Kind::text, push, 0});
    });
}

bool Agent::endLive(std::string_view device, std::string_view sessionId) {
    const std::optional<std::string> deviceId = registry_.deviceIdOf(device);
    if (!deviceId) return false;
    live_.end(sessionId, *deviceId);
    return push(device, frame("live", {{"sessionId", sessionId}, {"state", "ended"}}));
}

std::optional<LivePushed> Agent::sendLiveNote(std::string_view device, std::string_view sessionId,
                                              LiveNote note) {
    LivePushed pushed;
    pushed.sessionId = sessionId;
    pushed.promptId = note.promptId ? *note.promptId : captures_.freshPromptId();
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"kind", note.kind}};
    if (note.guides) payload["guides"] = *note.guides;
    payload["promptId"] = pushed.promptId;
    if (note.generation) payload["generation"] = *note.generation;
    pushed.push = frame("live-note", payload);
    // Known before the push goes out, so that a report racing back finds its session, and a
    // confirmation racing back finds its lease.
    live_.notePrompt(sessionId, pushed.promptId);
    const bool starts = note.kind == "recordingStarted";
    if (starts) live_.issueLease(sessionId, "recording", note.generation);
    if (!push(device, pushed.push)) {
        if (starts) live_.withdrawLease(sessionId, "recording");
        return std::nullopt;
    }
    if (note.kind == "recordingStopped") live_.withdrawLease(sessionId, "recording");
    return pushed;
}

bool Agent::sendGuide(std::string_view device, std::string_view sessionId, const Guide& guide) {
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"kind", guide.kind}};
    const std::pair<const char*, const std::optional<double>*> numbers[] = {
        {"x", &guide.x},   {"y", &guide.y}, {"x2", &guide.x2},
        {"y2", &guide.y2}, {"w", &guide.w}, {"h", &guide.h}};
    for (const auto& [key, value] : numbers) {
        if (*value) payload[key] = **value;
    }
    if (guide.color) payload["color"] = *guide.color;
    if (guide.text) payload["text"] = *guide.text;
    return push(device, frame("guide", payload));
}

void Agent::refuseIndicator(std::string kind, bool refuse) {
    live_.refuseIndicator(std::move(kind), refuse);
}

std::optional<ControlPushed> Agent::requestControl(std::string_view device,
                                                   std::string_view sessionId,
                                                   ControlRequest request) {
    ControlPushed pushed;
    pushed.sessionId = sessionId;
    pushed.requestId = request.requestId ? *request.requestId : live_.freshControlRequestId();
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"state", "requested"}};
    if (!pushed.requestId.empty()) payload["requestId"] = pushed.requestId;
    if (request.consentCopy) payload["consentCopy"] = *request.consentCopy;
    if (request.agentName) payload["agentName"] = *request.agentName;
    if (request.workspaceName) payload["workspaceName"] = *request.workspaceName;
    if (request.logoUrl) payload["logoUrl"] = *request.logoUrl;
    pushed.push = frame("control", payload);
    const bool sent = live_.requestControl(sessionId, pushed.requestId, [&] {
        return sockets_.send(device, {Outgoing::Kind::text, pushed.push, 0});
    });
    if (!sent) return std::nullopt;
    return pushed;
}

Attempt<Done> Agent::grantControl(std::string_view device, std::string_view sessionId,
                                  std::optional<std::string> generation) {
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"state", "active"}};
    if (generation) payload["generation"] = *generation;
    const std::string push = frame("control", payload);
    return live_.grantControl(sessionId, std::move(generation), [&] {
        return sockets_.send(device, {Outgoing::Kind::text, push, 0});
    });
}

bool Agent::endControl(std::string_view device, std::string_view sessionId) {
    if (!registry_.deviceIdOf(device)) return false;
    live_.endControl(sessionId);
    return push(device, frame("control", {{"sessionId", sessionId}, {"state", "ended"}}));
}

Attempt<Done> Agent::sendInput(std::string_view device, std::string_view sessionId,
                               const ControlInput& input) {
    Attempt<Done> attempt;
    attempt.refusal = live_.admitInput(sessionId);
    if (attempt.refusal) return attempt;
    nlohmann::ordered_json payload{{"sessionId", sessionId}, {"action", input.action}};
    const std::pair<const char*, const std::optional<double>*> numbers[] = {
        {"x", &input.x}, {"y", &input.y}, {"dx", &input.dx}, {"dy", &input.dy}};
    for (const auto& [key, value] : numbers) {
        if (*value) payload[key] = **value;
    }
    if (input.text) payload["text"] = *input.text;
    if (input.key) payload["key"] = *input.key;
    const std::string push = frame("control-input", payload);
    if (live_.pushInput(sessionId, [&] {
            return sockets_.send(device, {Outgoing::Kind::text, push, 0});
        })) {
        attempt.value = Done{};
    }
    return attempt;
}

}  // namespace virela::devserver
