#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/base/url.hpp"

namespace virela {

// The task states of a WebSocket: suspended until resume(), running while connecting and open,
// canceling while a close is under way, completed once closed or failed.
enum class SocketState { running, suspended, canceling, completed };

struct SocketMessage {
    enum class Kind { text, binary };
    Kind kind = Kind::text;
    std::string data;  // UTF-8 text or raw bytes

    static SocketMessage text(std::string value) { return {Kind::text, std::move(value)}; }
    static SocketMessage binary(std::string bytes) { return {Kind::binary, std::move(bytes)}; }
    friend bool operator==(const SocketMessage&, const SocketMessage&) = default;
};

// A received message, or the error that ended the connection (a NetworkError from the
// platform; a cancelled socket reports NetworkError::Kind::cancelled).
using SocketReceiveResult = std::variant<SocketMessage, std::exception_ptr>;

// One WebSocket connection. Completions may arrive on any thread, each exactly once.
class VirelaSocket {
  public:
    virtual ~VirelaSocket() = default;
    virtual SocketState state() const = 0;
    // Starts connecting.
    virtual void resume() = 0;
    // Closes with `closeCode` and an optional reason; pending and later receives fail.
    virtual void cancel(int closeCode, std::optional<std::string> reason) = 0;
    // `completion` receives nullptr once sent, or the error.
    virtual void send(SocketMessage message,
                      std::function<void(std::exception_ptr)> completion) = 0;
    // Delivers the next incoming message, or the error that ended the connection, once.
    // Messages that arrive while no receive is outstanding are kept in order.
    virtual void receive(std::function<void(SocketReceiveResult)> completion) = 0;
};

// Told when a socket's opening handshake has completed, with the subprotocol the server chose.
// Called on any thread.
class SocketDelegate {
  public:
    virtual ~SocketDelegate() = default;
    virtual void socketDidOpen(const VirelaSocket& socket,
                               const std::optional<std::string>& protocol) = 0;
};

// What a close frame may carry: a code that only describes a close (1005, 1006, 1015) or lies
// outside the ranges an endpoint may send goes out as 1000, and the reason is cut to 123 bytes
// (a control frame's 125 less the code) without splitting a UTF-8 sequence.
int closeCodeToSend(int code) noexcept;
std::string closeReasonToSend(std::string reason);

// The platform object that owns a socket (a URL session on iOS); opaque to core.
class SocketSession {
  public:
    virtual ~SocketSession() = default;
};

struct SocketConnection {
    std::shared_ptr<VirelaSocket> socket;
    std::shared_ptr<SocketSession> session;
};

// Makes a socket for `url` offering `protocols` as subprotocols, with no other headers. The
// socket is returned suspended; the caller resumes it.
using SocketFactory = std::function<SocketConnection(
    const Url& url, const std::shared_ptr<SocketSession>& session,
    const std::vector<std::string>& protocols, std::weak_ptr<SocketDelegate> delegate)>;

}  // namespace virela
