#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/ports/socket.hpp"
#include "platform/headless/http_client.hpp"

namespace virela::headless {

struct WebSocketOptions {
    // Resolve, connect, TLS and the opening handshake together.
    double openTimeoutSeconds = 60;
    // The closing handshake after cancel(); then the connection is dropped.
    double closeTimeoutSeconds = 5;
    // Messages received but not yet taken by receive(); one more ends the connection.
    std::size_t maxQueuedMessages = 4096;
    // A larger incoming message ends the connection.
    std::size_t maxMessageBytes = std::size_t{16} * 1024 * 1024;
};

// The VirelaSocket port on Boost.Beast, ws and wss, on the network thread of a BeastHttpClient
// and with its TLS trust and user agent. The opening handshake offers the given subprotocols and
// adds no other headers of ours. Completions and the delegate run on the network thread, or on
// the caller's thread once the network is shut down; each completion runs exactly once, never
// under a lock of ours. Dropping the last reference closes the connection ("going away").
class BeastWebSocket final : public VirelaSocket {
  public:
    // Suspended until resume(). A URL that is not ws or wss, or a subprotocol that is not an
    // HTTP token, fails the connection on resume() with NetworkError::Kind::other.
    static std::shared_ptr<BeastWebSocket> create(BeastHttpClient& network, Url url,
                                                  std::vector<std::string> protocols,
                                                  std::weak_ptr<SocketDelegate> delegate,
                                                  WebSocketOptions options = {});
    ~BeastWebSocket() override;

    BeastWebSocket(const BeastWebSocket&) = delete;
    BeastWebSocket& operator=(const BeastWebSocket&) = delete;

    SocketState state() const override;
    void resume() override;
    // Codes a close frame may not carry are sent as 1000; the reason is cut to 123 bytes.
    void cancel(int closeCode, std::optional<std::string> reason) override;
    void send(SocketMessage message, std::function<void(std::exception_ptr)> completion) override;
    // Several receives may wait; they are served in the order they were made.
    void receive(std::function<void(SocketReceiveResult)> completion) override;

  private:
    struct Impl;
    BeastWebSocket() = default;

    std::shared_ptr<detail::Network> network_;  // keeps the network thread's loop alive
    std::shared_ptr<Impl> impl_;
};

// The platform's socket factory: BeastWebSockets on `network`. The given session is ignored and
// none is returned.
SocketFactory beastSocketFactory(std::shared_ptr<BeastHttpClient> network,
                                 WebSocketOptions options = {});

}  // namespace virela::headless
