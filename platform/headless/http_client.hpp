#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "core/ports/http_client.hpp"

namespace virela::headless {

namespace detail {
class Network;
}

struct HttpClientOptions {
    // Extra trust for TLS, added to the system's default roots: a PEM file and/or PEM text
    // (a local test server's own CA).
    std::optional<std::filesystem::path> caFile;
    std::optional<std::string> caPem;
    // Off only for loopback test servers with throw-away certificates.
    bool verifyPeer = true;
    std::size_t maxBodyBytes = std::size_t{64} * 1024 * 1024;
    // Sent unless the request has its own; "VirelaAgent/<version>" when unset, none when empty.
    std::optional<std::string> userAgent;
};

// The HttpClient port on Boost.Beast, http and https, one connection per request, on its own
// network thread. Transport failures complete with a NetworkError; a peer that answers with
// something that is not HTTP completes with neither a response nor an error. WebSockets made
// from it (BeastWebSocket) share its thread, TLS trust and user agent.
class BeastHttpClient final : public HttpClient {
  public:
    // Throws std::runtime_error when the TLS trust in `options` cannot be loaded.
    explicit BeastHttpClient(HttpClientOptions options = {});
    ~BeastHttpClient() override;  // shutdown()

    std::shared_ptr<VirelaCancellable> send(HttpRequest request,
                                            std::function<void(HttpOutcome)> done) override;

    // Stops the network thread; requests and sockets still in flight complete as cancelled,
    // later ones at once. Idempotent.
    void shutdown();

  private:
    friend class BeastWebSocket;
    std::shared_ptr<detail::Network> network_;
};

}  // namespace virela::headless
