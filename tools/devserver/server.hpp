#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/records.hpp"
#include "tools/devserver/tls.hpp"

namespace virela::devserver {

struct Options {
    // Only loopback addresses are accepted unless `beyondLoopback` is set.
    std::string host = "127.0.0.1";
    // Accept any address for `host` ("0.0.0.0" reaches every interface), so that devices and
    // browsers on other machines get in; the console's token then stands between them and the
    // agent's side. Plain http only: https stays on loopback.
    bool beyondLoopback = false;
    std::uint16_t port = 0;  // 0 picks a free port
    std::vector<std::string> apiKeys{"vk_demo_local"};
    std::string consentCopy =
        "Your support agent would like to see a screenshot of this app. Anything marked "
        "private stays hidden.";
    std::string captureMode = "AskEveryTime";
    // How long an asked screenshot's prompt stays up unless the request says otherwise.
    double promptSeconds = 60;
    // The session an allowed PerSession request opens.
    double sessionSeconds = 45 * 60;
    // A lease the backend issued (sharing, recording, control) lapses when the device has not
    // confirmed it within `leaseGraceSeconds` of the issue, or then within `leaseSeconds` of its
    // last accepted confirmation; the device confirms every 10 s.
    double leaseGraceSeconds = 5;
    double leaseSeconds = 15;
    // Put before every device token issued, so that tests can hand out tokens with "/", "=",
    // ":" or spaces in them.
    std::string tokenPrefix;
    // Also serve https and wss with this identity, on `tlsPort` (0 picks a free one).
    std::optional<TlsIdentity> tls;
    std::uint16_t tlsPort = 0;
    // Keep every request for requests(). A long run (the live soak) turns this off so that the
    // log of three frames a second does not grow the process it measures.
    bool keepRequests = true;
    // Serve the agent's console at "/console", with its API under "/console/api/". Every console
    // path, and the captured images and live frames, then need this token (see consoleUrl()).
    std::optional<std::string> consoleToken;
    // Serve the console's files from this folder, read on each request, instead of the copies
    // built into the program; for working on the page.
    std::string consoleDirectory;
    // Called on the server thread for each request once its reply is decided; status 0 means
    // the connection is closed without a reply. Must not call stop().
    std::function<void(const RecordedRequest&, int status)> onRequest;
    // Called on the server thread for each socket event; the closed events of the sockets that
    // stop() drops come from the thread calling stop(). Must not call stop() or wait on the
    // server; pushing from here is fine.
    std::function<void(const SocketEvent&)> onSocketEvent;
    // Append every exchange on the device routes and every frame of the device sockets to this
    // file, one JSON object a line (see traffic_log.hpp), for checking real traffic against the
    // protocol documents. Empty: nothing is recorded. start() throws std::runtime_error when the
    // file cannot be opened.
    std::string trafficLog;
};

// 128 random bits as 32 hex digits, for Options::consoleToken.
std::string freshConsoleToken();

// The local backend: a loopback HTTP/1.1 server on its own thread. Device state, the recorded
// requests and the frames devices sent survive stop() and start(), so a restart looks like the
// same backend. All member functions are thread-safe.
//
// Devices hold a WebSocket on "/sdk/socket", offering "virela.device." + a token of theirs as
// the subprotocol. One socket per device: a newer one replaces the older, which is closed with
// kReplacedCloseCode. Wherever a `device` is asked for, its id, any of its tokens or its
// current support code will do.
class Server {
  public:
    Server();
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Throws std::invalid_argument for a host that is not a loopback address (see
    // Options::beyondLoopback), std::logic_error
    // when already running and std::runtime_error when the port cannot be bound.
    void start(Options options = {});
    // Idempotent; open connections, sockets included, are dropped without a close frame.
    void stop();
    bool running() const;

    std::uint16_t port() const;  // 0 when not running
    std::string url() const;     // "http://127.0.0.1:PORT"; empty when not running
    // "https://127.0.0.1:PORT" when started with a TLS identity; empty otherwise.
    std::string tlsUrl() const;
    // url() + "/console?token=" + the token, when started with a console; empty otherwise.
    std::string consoleUrl() const;

    // Answers `bytes` as a connection to the running server would (pipelined requests in turn,
    // up to the first close or upgrade), but on the calling thread and without a socket; what
    // the connection would have written, or nothing when not running. For fuzzing the request
    // handling: onRequest is then called on this thread.
    std::string answerBytes(std::string_view bytes);

    std::vector<RecordedRequest> requests() const;
    std::vector<RecordedRequest> requests(std::string_view path) const;
    void clearRequests();

    // The next request to `path` (any method) gets this reply instead of the normal one.
    // Several queued replies for one path are used in order.
    void queueReply(std::string path, QueuedReply reply);
    // The next request to `path` is answered by closing its connection without a reply.
    void queueClose(std::string path);

    // Looks a device up by its id, any of its tokens or its current support code.
    std::optional<DeviceInfo> device(std::string_view idTokenOrCode) const;
    std::vector<DeviceInfo> devices() const;  // in order of first registration

    // Queue a frame on the device's current socket; false when it has none. Frames to one
    // device go out in call order.
    bool pushText(std::string_view device, std::string text);
    bool pushBinary(std::string_view device, std::string bytes);
    // Every text frame the device sent, in order, across all its sockets (up to 64 MiB per
    // device; a flood past that is still reported to onSocketEvent but not kept). Binary frames
    // are not kept (devices send none); onSocketEvent reports them too.
    std::vector<std::string> framesFrom(std::string_view device) const;

    bool connected(std::string_view device) const;
    // Successful upgrades for the device, over the server's whole life.
    std::size_t connectionsAccepted(std::string_view device) const;
    // Block until the device is connected and has at least `minAccepted` upgrades behind it,
    // or until the timeout; true on success.
    bool waitForConnection(std::string_view device, std::chrono::milliseconds timeout,
                           std::size_t minAccepted = 1) const;
    // Block until framesFrom(device) holds at least `count` frames, or until the timeout.
    bool waitForFrames(std::string_view device, std::size_t count,
                       std::chrono::milliseconds timeout) const;

    // Close the device's socket without a close frame, as a lost network would. The device
    // counts as disconnected from the moment this returns.
    void dropConnection(std::string_view device);
    // Close the device's socket with a close handshake carrying `code`, after the frames
    // already queued. Throws std::invalid_argument for a code that a close frame may not carry
    // (only 1000-1003, 1007-1013 and 3000-4999 may).
    void closeConnection(std::string_view device, int code);
    // Live frame uploads arriving in the coming `duration` get no reply until it is over, then
    // a 503, and are not kept: a backend that stalls and recovers. Zero ends the stall for
    // frames still to come.
    void stallFrames(std::chrono::milliseconds duration);
    // Upgrade requests in the coming `duration` get a 503 instead; zero ends the refusal.
    // Sockets already open are left alone.
    void refuseConnections(std::chrono::milliseconds duration);

    // The screenshot flow, agent side. askScreenshot() pushes {"type":"consent","payload":...}
    // and remembers the request; nullopt when the device has no socket. A request asked again
    // under the same id starts its record afresh.
    // The agent's actions below keep the rules a real backend keeps: a push they forbid is not
    // sent, and the call answers as if the device had no socket (nullopt, false). Those are one
    // screenshot question at a time, another image only inside an allowed call, control granted
    // only in answer to the customer allowing the pending request (once), and input only under
    // a control lease the device has confirmed and keeps confirming. pushText() sends anything.
    std::optional<AskedScreenshot> askScreenshot(std::string_view device,
                                                 ScreenshotRequest request = {});
    // {"type":"capture","payload":{"requestId":...}}, {"type":"expired","payload":{}} and
    // {"type":"denied","payload":{}}; false when the device has no socket.
    bool sendCapture(std::string_view device, std::string_view requestId);
    bool sendExpired(std::string_view device);
    bool sendDenied(std::string_view device);
    // {"type":"session","payload":{"state":"ended"}}; the backend ends the device's screenshot
    // calls even when it has no socket to hear it (then false).
    bool endCall(std::string_view device);
    // The status an allow is answered with ("Allowed" until set); a deny is always "Denied".
    void setRespondStatus(std::string status);

    // Every request asked, answered, pushed a capture for or uploaded to, in order of first
    // sight, across restarts.
    std::optional<CaptureRecord> captureRequest(std::string_view requestId) const;
    std::vector<CaptureRecord> captureRequests() const;
    // Block until the request has an answer (an upload), or until the timeout; true on success.
    bool waitForAnswer(std::string_view requestId, std::chrono::milliseconds timeout) const;
    bool waitForUpload(std::string_view requestId, std::chrono::milliseconds timeout) const;
    // A small PNG served at url() + "/assets/logo.png", for consent pushes that show a logo.
    // Empty when not running.
    std::string logoUrl() const;

    // The live flow, agent side. requestLive() pushes {"type":"live","payload":{...,"state":
    // "requested",...}} and remembers the session; nullopt when the device has no socket.
    // Requesting a known session again starts its record afresh.
    std::optional<LivePushed> requestLive(std::string_view device, LiveRequest request = {});
    // State "active", with the generation when one is given; also for a session never requested,
    // as the backend may start one directly. False when the device has no socket.
    bool activateLive(std::string_view device, std::string_view sessionId,
                      std::optional<std::string> generation = std::nullopt);
    // State "ended". For a known device the session is over for the backend even when the
    // device has no socket to hear it (then false): its frames get 410 from now on.
    bool endLive(std::string_view device, std::string_view sessionId);
    std::optional<LivePushed> sendLiveNote(std::string_view device, std::string_view sessionId,
                                           LiveNote note = {});
    bool sendGuide(std::string_view device, std::string_view sessionId, const Guide& guide);
    // While set, confirmations of that indicator kind ("sharing", "recording", "control") are
    // answered 409 with the error "lease_mismatch"; they are still recorded.
    void refuseIndicator(std::string kind, bool refuse = true);

    // Every session requested, activated or reported on, in order of first sight.
    std::optional<LiveRecord> liveSession(std::string_view sessionId) const;
    std::vector<LiveRecord> liveSessions() const;
    // url() + "/live/{sessionId}/latest.jpg", where the session's latest frame is served; empty
    // when not running.
    std::string liveFrameUrl(std::string_view sessionId) const;
    // The "view" messages among framesFrom(device), in order.
    std::vector<ViewChange> viewChanges(std::string_view device) const;
    // Block until the session has `count` answers (frames, indicator confirmations), until the
    // prompt is reported shown, or until the timeout; true on success.
    bool waitForLiveAnswer(std::string_view sessionId, std::chrono::milliseconds timeout,
                           std::size_t count = 1) const;
    bool waitForLiveFrames(std::string_view sessionId, std::size_t count,
                           std::chrono::milliseconds timeout) const;
    bool waitForIndicator(std::string_view sessionId, std::size_t count,
                          std::chrono::milliseconds timeout) const;
    bool waitForLivePromptShown(std::string_view sessionId, std::string_view promptId,
                                std::chrono::milliseconds timeout) const;
    bool waitForViewChanges(std::string_view device, std::size_t count,
                            std::chrono::milliseconds timeout) const;

    // Remote control, agent side, within a live session. requestControl() pushes {"type":
    // "control","payload":{...,"state":"requested",...}}; nullopt when the device has no socket.
    // Requests go out for any session, a stale one included, so that tests can see the device
    // ignore them; only the live session's record keeps track of them.
    std::optional<ControlPushed> requestControl(std::string_view device, std::string_view sessionId,
                                                ControlRequest request = {});
    // State "active", with the generation when one is given. False when the device has no
    // socket.
    bool grantControl(std::string_view device, std::string_view sessionId,
                      std::optional<std::string> generation = std::nullopt);
    // State "ended". For a known device control is over for the backend even when the device
    // has no socket to hear it (then false).
    bool endControl(std::string_view device, std::string_view sessionId);
    // {"type":"control-input","payload":{"sessionId":...,"action":...,...}}; false when the
    // device has no socket.
    bool sendInput(std::string_view device, std::string_view sessionId, const ControlInput& input);
    // liveSession(sessionId)->control.
    std::optional<ControlRecord> controlSession(std::string_view sessionId) const;
    // Block until the session has `count` control answers or feedback reports, or until the
    // timeout; true on success.
    bool waitForControlAnswer(std::string_view sessionId, std::chrono::milliseconds timeout,
                              std::size_t count = 1) const;
    bool waitForFeedback(std::string_view sessionId, std::size_t count,
                         std::chrono::milliseconds timeout) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace virela::devserver
