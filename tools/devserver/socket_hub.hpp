#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

class TrafficLog;
class WebSocketSession;

// One message for a device's socket.
struct Outgoing {
    enum class Kind { text, binary, close };
    Kind kind = Kind::text;
    std::string data;  // the frame, or the reason of a close
    int code = 0;      // for close
    // Written by hand by a test (Server::pushText), not by the agent: the traffic log says so,
    // as such a frame may be malformed on purpose.
    bool crafted = false;
};

// The devices' sockets: which one is current for each device, what each device sent, and the
// commands aimed at them from other threads. Sessions call in from the server thread; the
// control API calls in from anywhere. Outlives every server run, so counts and frames survive
// a restart.
class SocketHub {
  public:
    // Maps a device id, token or support code to the device id.
    using Resolver = std::function<std::optional<std::string>(std::string_view)>;
    using EventHandler = std::function<void(const SocketEvent&)>;

    explicit SocketHub(Resolver resolve);

    // Starts accepting sessions for a run of the server.
    // `traffic`, when given, hears every frame both ways and every open and close.
    void open(EventHandler onEvent, std::shared_ptr<TrafficLog> traffic = nullptr);
    // Ends a run: sessions are no longer accepted or sent to, and those still open are reported
    // closed with 1006. Call once the server thread has stopped and before its io_context is
    // destroyed, so that nothing is posted to a dead context.
    void shutdown();

    void refuseFor(std::chrono::milliseconds duration);
    bool refusing() const;

    // From sessions, on the server thread. attach() makes the session its device's current one
    // and closes the one it replaces; false when the hub is not open.
    bool attach(const std::shared_ptr<WebSocketSession>& session);
    void received(const WebSocketSession& session, std::string frame, bool text);
    void detach(const WebSocketSession& session, int closeCode);

    // The control API; `device` is resolved first. send() is false without a current socket; a
    // close or drop takes the socket off at once, before it has actually gone.
    bool send(std::string_view device, Outgoing message);
    void drop(std::string_view device);
    bool connected(std::string_view device) const;
    std::size_t accepted(std::string_view device) const;
    std::vector<std::string> frames(std::string_view device) const;
    bool waitForConnection(std::string_view device, std::chrono::milliseconds timeout,
                           std::size_t minAccepted) const;
    bool waitForFrames(std::string_view device, std::size_t count,
                       std::chrono::milliseconds timeout) const;
    // Block until `done` holds for the device's text frames so far, or until the timeout.
    bool waitForTexts(std::string_view device,
                      const std::function<bool(const std::vector<std::string>&)>& done,
                      std::chrono::milliseconds timeout) const;

  private:
    struct Device {
        std::shared_ptr<WebSocketSession> current;
        std::size_t accepted = 0;
        std::vector<std::string> texts;
        std::size_t textBytes = 0;
    };

    const Device* find(std::string_view device) const;  // resolves; caller holds mutex_
    Device* find(std::string_view device);
    void emit(const SocketEvent& event) const;  // caller must not hold mutex_

    const Resolver resolve_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool open_ = false;
    std::shared_ptr<const EventHandler> onEvent_;
    std::shared_ptr<TrafficLog> traffic_;
    std::map<std::string, Device, std::less<>> devices_;
    // Every attached session until it ends, current or being replaced or closed.
    std::vector<std::shared_ptr<WebSocketSession>> live_;
    std::chrono::steady_clock::time_point refuseUntil_;
};

}  // namespace virela::devserver
