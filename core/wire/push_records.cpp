#include "core/wire/push_records.hpp"

#include "core/base/json.hpp"

#include "core/base/errors.hpp"
#include "core/wire/json_fields.hpp"

namespace virela {

using nlohmann::json;

const char* rawValue(LiveState state) noexcept {
    switch (state) {
        case LiveState::requested:
            return "requested";
        case LiveState::active:
            return "active";
        case LiveState::ended:
            return "ended";
    }
    return "requested";
}

const char* rawValue(LiveNoteKind kind) noexcept {
    switch (kind) {
        case LiveNoteKind::frameSaved:
            return "frameSaved";
        case LiveNoteKind::recordingStarted:
            return "recordingStarted";
        case LiveNoteKind::recordingStopped:
            return "recordingStopped";
    }
    return "frameSaved";
}

namespace {

CaptureMode captureMode(const json& o, const char* key) {
    auto mode = captureModeFromRaw(wire::requireString(o, key));
    if (!mode) throw DecodingError(std::string("\"") + key + "\" is not a known capture mode");
    return *mode;
}

LiveState liveState(const json& o, const char* key) {
    const std::string raw = wire::requireString(o, key);
    if (raw == "requested") return LiveState::requested;
    if (raw == "active") return LiveState::active;
    if (raw == "ended") return LiveState::ended;
    throw DecodingError(std::string("\"") + key + "\" is not a known live state");
}

LiveNoteKind liveNoteKind(const json& o, const char* key) {
    const std::string raw = wire::requireString(o, key);
    if (raw == "frameSaved") return LiveNoteKind::frameSaved;
    if (raw == "recordingStarted") return LiveNoteKind::recordingStarted;
    if (raw == "recordingStopped") return LiveNoteKind::recordingStopped;
    throw DecodingError(std::string("\"") + key + "\" is not a known note kind");
}

ConsentPush consentPush(const json& o) {
    ConsentPush p;
    p.requestId = wire::requireString(o, "requestId");
    p.mode = captureMode(o, "mode");
    p.consentCopy = wire::requireString(o, "consentCopy");
    p.promptId = wire::optionalString(o, "promptId");
    p.agentName = wire::optionalString(o, "agentName");
    p.workspaceName = wire::optionalString(o, "workspaceName");
    p.logoUrl = wire::optionalString(o, "logoUrl");
    p.expiresAt = wire::requireString(o, "expiresAt");
    return p;
}

LivePush livePush(const json& o) {
    LivePush p;
    p.sessionId = wire::requireString(o, "sessionId");
    p.state = liveState(o, "state");
    p.consentCopy = wire::optionalString(o, "consentCopy");
    p.promptId = wire::optionalString(o, "promptId");
    p.agentName = wire::optionalString(o, "agentName");
    p.workspaceName = wire::optionalString(o, "workspaceName");
    p.logoUrl = wire::optionalString(o, "logoUrl");
    p.expiresAt = wire::optionalString(o, "expiresAt");
    p.generation = wire::optionalString(o, "generation");
    return p;
}

LiveNotePush liveNotePush(const json& o) {
    LiveNotePush p;
    p.sessionId = wire::requireString(o, "sessionId");
    p.kind = liveNoteKind(o, "kind");
    p.guides = wire::optionalBool(o, "guides");
    p.promptId = wire::optionalString(o, "promptId");
    p.generation = wire::optionalString(o, "generation");
    return p;
}

GuidePush guidePush(const json& o) {
    GuidePush p;
    p.sessionId = wire::requireString(o, "sessionId");
    p.kind = wire::requireString(o, "kind");
    p.x = wire::optionalNumber(o, "x");
    p.y = wire::optionalNumber(o, "y");
    p.x2 = wire::optionalNumber(o, "x2");
    p.y2 = wire::optionalNumber(o, "y2");
    p.w = wire::optionalNumber(o, "w");
    p.h = wire::optionalNumber(o, "h");
    p.color = wire::optionalString(o, "color");
    p.text = wire::optionalString(o, "text");
    return p;
}

ControlPush controlPush(const json& o) {
    ControlPush p;
    p.sessionId = wire::requireString(o, "sessionId");
    p.state = liveState(o, "state");
    p.requestId = wire::optionalString(o, "requestId");
    p.consentCopy = wire::optionalString(o, "consentCopy");
    p.agentName = wire::optionalString(o, "agentName");
    p.workspaceName = wire::optionalString(o, "workspaceName");
    p.logoUrl = wire::optionalString(o, "logoUrl");
    p.generation = wire::optionalString(o, "generation");
    return p;
}

ControlInputPush controlInputPush(const json& o) {
    ControlInputPush p;
    p.sessionId = wire::requireString(o, "sessionId");
    p.action = wire::requireString(o, "action");
    p.x = wire::optionalNumber(o, "x");
    p.y = wire::optionalNumber(o, "y");
    p.dx = wire::optionalNumber(o, "dx");
    p.dy = wire::optionalNumber(o, "dy");
    p.text = wire::optionalString(o, "text");
    p.key = wire::optionalString(o, "key");
    return p;
}

// A record decodes from an object only; an array payload fails here like any other mismatch.
template <class Decode>
auto record(const json& payload, Decode decode) {
    return decode(wire::requireObject(payload, "payload"));
}

}  // namespace

RespondResult RespondResult::decode(std::string_view bytes) {
    const json value = wire::parse(bytes);
    const json& o = wire::requireObject(value, "respond reply");
    return RespondResult{wire::requireString(o, "status"),
                         wire::optionalString(o, "sessionExpiresAt")};
}

std::optional<Push> decodePush(std::string_view text) {
    if (!jsonNestsWithin(text)) return std::nullopt;
    json frame = json::parse(text.begin(), text.end(), nullptr, false);
    if (frame.is_discarded() || !frame.is_object()) return std::nullopt;
    auto type = frame.find("type");
    if (type == frame.end() || !type->is_string()) return std::nullopt;
    auto payload = frame.find("payload");
    if (payload == frame.end()) return std::nullopt;
    // Only a container can stand on its own as a JSON document; a scalar or null payload is
    // dropped whatever the type.
    if (!payload->is_object() && !payload->is_array()) return std::nullopt;

    const std::string& t = type->get_ref<const std::string&>();
    try {
        if (t == "consent") return record(*payload, consentPush);
        if (t == "capture") {
            return record(*payload, [](const json& o) {
                return CapturePush{wire::requireString(o, "requestId")};
            });
        }
        if (t == "live") return record(*payload, livePush);
        if (t == "live-note") return record(*payload, liveNotePush);
        if (t == "guide") return record(*payload, guidePush);
        if (t == "control") return record(*payload, controlPush);
        if (t == "control-input") return record(*payload, controlInputPush);
        if (t == "session") {
            return record(*payload, [](const json& o) {
                return SessionPush{wire::requireString(o, "state")};
            });
        }
        if (t == "expired") return ExpiredPush{};
        if (t == "denied") return DeniedPush{};
    } catch (const DecodingError&) {
        return std::nullopt;
    }
    return std::nullopt;
}

const char* pushType(const Push& push) noexcept {
    struct Names {
        const char* operator()(const ConsentPush&) const { return "consent"; }
        const char* operator()(const CapturePush&) const { return "capture"; }
        const char* operator()(const LivePush&) const { return "live"; }
        const char* operator()(const LiveNotePush&) const { return "live-note"; }
        const char* operator()(const GuidePush&) const { return "guide"; }
        const char* operator()(const ControlPush&) const { return "control"; }
        const char* operator()(const ControlInputPush&) const { return "control-input"; }
        const char* operator()(const SessionPush&) const { return "session"; }
        const char* operator()(const ExpiredPush&) const { return "expired"; }
        const char* operator()(const DeniedPush&) const { return "denied"; }
    };
    return std::visit(Names{}, push);
}

}  // namespace virela
