#pragma once

// The records the backend pushes over the realtime channel, and their decoding.

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "core/base/records.hpp"

namespace virela {

enum class LiveState { requested, active, ended };
enum class LiveNoteKind { frameSaved, recordingStarted, recordingStopped };

const char* rawValue(LiveState state) noexcept;
const char* rawValue(LiveNoteKind kind) noexcept;

struct SocketEnvelope {
    std::string type;
};

struct ConsentPush {
    std::string requestId;
    CaptureMode mode = CaptureMode::askEveryTime;
    std::string consentCopy;
    std::optional<std::string> promptId;
    std::optional<std::string> agentName;
    std::optional<std::string> workspaceName;
    std::optional<std::string> logoUrl;
    std::string expiresAt;
    friend bool operator==(const ConsentPush&, const ConsentPush&) = default;
};

struct CapturePush {
    std::string requestId;
    friend bool operator==(const CapturePush&, const CapturePush&) = default;
};

struct LivePush {
    std::string sessionId;
    LiveState state = LiveState::requested;
    std::optional<std::string> consentCopy;
    std::optional<std::string> promptId;
    std::optional<std::string> agentName;
    std::optional<std::string> workspaceName;
    std::optional<std::string> logoUrl;
    std::optional<std::string> expiresAt;
    std::optional<std::string> generation;
    friend bool operator==(const LivePush&, const LivePush&) = default;
};

struct LiveNotePush {
    std::string sessionId;
    LiveNoteKind kind = LiveNoteKind::frameSaved;
    std::optional<bool> guides;
    std::optional<std::string> promptId;
    std::optional<std::string> generation;
    friend bool operator==(const LiveNotePush&, const LiveNotePush&) = default;
};

struct GuidePush {
    std::string sessionId;
    std::string kind;
    std::optional<double> x, y;
    std::optional<double> x2, y2;
    std::optional<double> w, h;
    std::optional<std::string> color;
    std::optional<std::string> text;
    friend bool operator==(const GuidePush&, const GuidePush&) = default;
};

struct ControlPush {
    std::string sessionId;
    LiveState state = LiveState::requested;
    std::optional<std::string> requestId;
    std::optional<std::string> consentCopy;
    std::optional<std::string> agentName;
    std::optional<std::string> workspaceName;
    std::optional<std::string> logoUrl;
    std::optional<std::string> generation;
    friend bool operator==(const ControlPush&, const ControlPush&) = default;
};

struct ControlInputPush {
    std::string sessionId;
    std::string action;
    std::optional<double> x, y;
    std::optional<double> dx, dy;
    std::optional<std::string> text;
    std::optional<std::string> key;
    friend bool operator==(const ControlInputPush&, const ControlInputPush&) = default;
};

struct SessionPush {
    std::string state;
    friend bool operator==(const SessionPush&, const SessionPush&) = default;
};

// "expired" and "denied" carry no record; their payload is required but never read.
struct ExpiredPush {
    friend bool operator==(const ExpiredPush&, const ExpiredPush&) = default;
};
struct DeniedPush {
    friend bool operator==(const DeniedPush&, const DeniedPush&) = default;
};

// The reply of the respond endpoints of the consent and live flows.
struct RespondResult {
    std::string status;
    std::optional<std::string> sessionExpiresAt;
    static RespondResult decode(std::string_view bytes);  // throws DecodingError
};

using Push = std::variant<ConsentPush, CapturePush, LivePush, LiveNotePush, GuidePush, ControlPush,
                          ControlInputPush, SessionPush, ExpiredPush, DeniedPush>;

// One text frame to the record its "type" selects. nullopt for anything to drop silently:
// bytes that are not a JSON object, a missing or non-string "type", a missing "payload", a
// payload that is not an object or array, a record that does not decode, or an unknown type.
std::optional<Push> decodePush(std::string_view text);

// The message type of a decoded push ("consent", "live-note", ...).
const char* pushType(const Push& push) noexcept;

}  // namespace virela
