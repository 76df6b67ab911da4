#pragma once

// TLS for the local backend: a throw-away certificate made at start-up, and a front that
// terminates TLS on a port of its own and hands the plain bytes to the HTTP server, so that
// tests run whole sessions over https and wss. Loopback only.

#include <cstdint>
#include <memory>
#include <string>

namespace virela::devserver {

// A certificate and its private key, PEM text.
struct TlsIdentity {
    std::string certificatePem;
    std::string privateKeyPem;
};

// A self-signed certificate (P-256 key) valid now for a day, for "localhost" and 127.0.0.1.
// Throws std::runtime_error when OpenSSL fails.
TlsIdentity makeSelfSignedIdentity();

// Listens on `host`:`port` (0 picks a free one), completes each TLS handshake with
// `identity`, then relays the connection to `host`:`plainPort` until either side closes.
// Destruction stops its thread and drops every connection.
class TlsFront {
  public:
    TlsFront(const std::string& host, std::uint16_t port, std::uint16_t plainPort,
             const TlsIdentity& identity);
    ~TlsFront();
    TlsFront(const TlsFront&) = delete;
    TlsFront& operator=(const TlsFront&) = delete;

    std::uint16_t port() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace virela::devserver
