#pragma once

// What the local backend records and what an agent asks of a device: plain values, shared by
// every part of the backend and by the people who drive it through Server.

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace virela::devserver {

struct Header {
    std::string name;  // as received, original case
    std::string value;
    friend bool operator==(const Header&, const Header&) = default;
};

// One request exactly as it arrived on the wire.
struct RecordedRequest {
    std::string method;
    std::string target;           // request-target, query included
    std::string path;             // target without the query
    std::vector<Header> headers;  // received order, duplicates kept
    std::string body;             // raw bytes

    // First header with that name, compared without case.
    std::optional<std::string> header(std::string_view name) const;
};

// A canned reply, sent verbatim. An empty contentType sends no Content-Type header.
struct QueuedReply {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";
};

struct IdentifiedUser {
    std::string id;
    std::optional<std::string> name;
    std::optional<std::string> phone;
};

struct DeviceInfo {
    std::string deviceId;
    std::string apiKey;
    std::optional<std::string> installId;  // absent when the registration carried none
    std::string token;                     // the most recent token
    std::vector<std::string> tokens;       // every token issued, oldest first; all stay valid
    std::string supportCode;
    std::string registration;  // body of the latest registration, as received
    std::optional<IdentifiedUser> user;
    std::optional<std::string> lastHealth;  // body of the latest health report, as received
};

// The close code sent to a device's older socket when the same device connects again.
inline constexpr int kReplacedCloseCode = 4000;

// Something that happened on a device's socket.
struct SocketEvent {
    enum class Kind { connected, text, binary, closed };
    Kind kind = Kind::connected;
    std::string deviceId;
    std::string data;   // the frame, for text and binary
    int closeCode = 0;  // for closed: the code of the peer's close frame, 1005 when the frame
                        // carried none, 1006 when the connection ended without one
};

// What an agent asks a device for: the fields of a "consent" push. Absent fields get defaults.
struct ScreenshotRequest {
    // "AskEveryTime", "PerSession" or "LiveView"; sent as is, so a test may send a bad one.
    std::string mode = "AskEveryTime";
    std::optional<std::string> consentCopy;    // default: Options::consentCopy
    std::optional<std::string> agentName;      // absent: left out of the push
    std::optional<std::string> workspaceName;  // absent: left out
    std::optional<std::string> logoUrl;        // absent: left out
    // Default: now + Options::promptSeconds, as "2026-11-21T10:00:00.123Z".
    std::optional<std::string> expiresAt;
    std::optional<std::string> promptId;   // default: a fresh "prm_<n>"; "" is sent as ""
    std::optional<std::string> requestId;  // default: a fresh "req_<n>"
};

struct AskedScreenshot {
    std::string requestId;
    std::string promptId;
    std::string push;  // the frame exactly as sent
};

// One screenshot request as the backend saw it, from the ask to the upload.
struct CaptureRecord {
    std::string requestId;
    std::string deviceId;  // the device asked; empty when the request was never asked
    std::string mode;      // of the consent push; empty when the request was never asked
    std::string promptId;
    bool promptShown = false;  // the device reported the prompt on screen
    std::optional<bool> answer;
    std::optional<std::string> sessionExpiresAt;  // what the answer replied, for PerSession
    // When the sheet stops waiting for an answer, and when an allowed call's screenshots end;
    // unknown when the asker set its own expiry text.
    std::optional<std::chrono::system_clock::time_point> promptExpires;
    std::optional<std::chrono::system_clock::time_point> sessionExpires;
    std::optional<std::string> captureId;  // of the latest upload stored
    std::vector<std::string> captureIds;   // of every upload stored, oldest first
    std::optional<std::string> imageUrl;
    std::string png;  // the uploaded file
    std::string uploadContentType;
    std::string uploadFileName;
};

// What an agent asks when it wants to watch a device live: the fields of a "live" push with
// state "requested". Absent fields get defaults.
struct LiveRequest {
    std::optional<std::string> sessionId;      // default: a fresh "live_<n>"
    std::optional<std::string> consentCopy;    // absent: left out, so the device's own copy shows
    std::optional<std::string> agentName;      // absent: left out
    std::optional<std::string> workspaceName;  // absent: left out
    std::optional<std::string> logoUrl;        // absent: left out
    // Default: now + Options::promptSeconds; "" leaves it out.
    std::optional<std::string> expiresAt;
    std::optional<std::string> promptId;  // default: a fresh "prm_<n>"; "" is sent as ""
};

// A "live-note" push. `kind` is sent as is ("frameSaved", "recordingStarted",
// "recordingStopped"), so a test may send a bad one.
struct LiveNote {
    std::string kind = "frameSaved";
    std::optional<bool> guides;             // absent: left out
    std::optional<std::string> generation;  // absent: left out
    std::optional<std::string> promptId;    // default: a fresh "prm_<n>"; "" is sent as ""
};

// A "guide" push; absent fields are left out. `kind` is sent as is ("laser", "laser-off",
// "arrow", "box", "fill", "label").
struct Guide {
    std::string kind = "laser";
    std::optional<double> x, y, x2, y2, w, h;
    std::optional<std::string> color;
    std::optional<std::string> text;
};

struct LivePushed {
    std::string sessionId;
    std::string promptId;  // empty for a push without one
    std::string push;      // the frame exactly as sent
};

struct IndicatorConfirmation {
    std::string kind;
    std::string generation;
    bool accepted = true;  // false: answered 409 lease_mismatch
    std::string reason;    // why it was refused; empty when accepted
};

// Why the backend turned an agent's action or a device's request away: the error of its 409
// ("pending", "not_allowed", "lease_mismatch", "no_control", ...) and a line that says why, for
// the journal and the reply.
struct Refusal {
    std::string error;
    std::string reason;
};

// What became of an agent's action: `value` when it went out; otherwise `refusal` when the
// backend's rules refused it, or neither when the device has no socket to hear it.
template <class T>
struct Attempt {
    std::optional<T> value;
    std::optional<Refusal> refusal;

    explicit operator bool() const { return value.has_value(); }
};
struct Done {};

// What an agent asks when it wants to take control of a device during a live session: the
// fields of a "control" push with state "requested". Absent fields are left out.
struct ControlRequest {
    std::optional<std::string> requestId;    // default: a fresh "ctl_<n>"; "" leaves it out
    std::optional<std::string> consentCopy;  // absent: the device shows its own copy
    std::optional<std::string> agentName;
    std::optional<std::string> workspaceName;
    std::optional<std::string> logoUrl;
};

struct ControlPushed {
    std::string sessionId;
    std::string requestId;  // empty for a push without one
    std::string push;       // the frame exactly as sent
};

// A "control-input" push; absent fields are left out. `action` is sent as is ("tap",
// "scroll", "type", "key"), so a test may send a misspelled one or leave out what it needs.
struct ControlInput {
    std::string action = "tap";
    std::optional<double> x, y, dx, dy;
    std::optional<std::string> text;
    std::optional<std::string> key;

    static ControlInput tapAt(double x, double y);
    static ControlInput scrollAt(double x, double y, double dx, double dy);
    static ControlInput typeText(std::string text);
    static ControlInput pressKey(std::string key);  // "backspace", "enter"
};

// One answer the device sent to a control request: the customer's choice, or "allow" false
// alone when the customer took control back.
struct ControlAnswer {
    bool allow = false;
    std::optional<std::string> requestId;  // absent when the body had none, or null
    friend bool operator==(const ControlAnswer&, const ControlAnswer&) = default;
};

// Remote control within one live session, as the backend saw it.
struct ControlRecord {
    // "requested", "active" or "ended": the last control push, or "ended" once the device
    // refused or took back control or the live session ended; empty when never asked.
    std::string state;
    std::string requestId;                  // of the last request; empty when it had none
    std::optional<std::string> generation;  // of the last grant
    std::vector<ControlAnswer> answers;     // in order
    std::vector<std::string> feedback;      // every kind the device reported, in order
    std::size_t inputs = 0;                 // input pushes delivered
};

// One live session as the backend saw it, from the request to the end.
struct LiveRecord {
    std::string sessionId;
    std::string deviceId;
    // "requested", "active" or "ended": the last the backend pushed, or "ended" once it ended
    // the session or the device refused it.
    std::string state;
    std::string promptId;                   // of the request; empty when never requested
    std::optional<std::string> generation;  // of the last activation
    // Prompts of this session (its request's and its notes') the device reported on screen,
    // in order.
    std::vector<std::string> promptsShown;
    std::vector<bool> answers;  // every "allow" the device sent, in order
    std::size_t frames = 0;
    // Frames per second over the last few seconds; 0 with fewer than two frames in that time.
    double frameRate = 0;
    std::string latestFrame;              // the JPEG of the last frame
    std::optional<std::string> frameUrl;  // where the latest frame is served, once there is one
    // Time since the latest frame and since the latest activation, when there was one.
    std::optional<std::chrono::milliseconds> sinceFrame;
    std::optional<std::chrono::milliseconds> sinceActivation;
    std::vector<IndicatorConfirmation> indicators;  // in order of arrival, "control" included
    // The leases in force whose device has stopped confirming them in time, or whose latest
    // confirmation was refused: "sharing", "recording", "control".
    std::vector<std::string> lapsed;
    ControlRecord control;
};

// A "view" message a device sent on its socket: the screen under the guides changed.
struct ViewChange {
    std::string kind;  // "scroll" or "nav"
    std::string sessionId;
    std::string text;  // the frame as received
};

}  // namespace virela::devserver
