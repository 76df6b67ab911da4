#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tools/devserver/exchange.hpp"

namespace virela::devserver {

class SocketHub;

// A listening socket and the thread that serves it. Construction binds and starts serving;
// destruction stops the thread and drops every open connection. The handler runs on the
// server thread, one request at a time; upgraded connections become sessions of `sockets`,
// which must outlive the server.
class HttpServer {
  public:
    // Throws std::invalid_argument for a host that is not an address, or not a loopback one
    // unless `beyondLoopback`, and std::runtime_error when the address cannot be bound.
    HttpServer(const std::string& host, std::uint16_t port, RequestHandler handler,
               SocketHub& sockets, bool beyondLoopback = false);
    ~HttpServer();

    // Stops the server thread. Connections stay allocated, idle, until destruction.
    void halt();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::uint16_t port() const;
    std::string url() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Reads requests from `bytes` as a connection does from a peer that sent them and then shut its
// side, hands each to `handler` on the calling thread and returns every byte the connection
// would have written, up to the first close or upgrade. Without a socket or any waiting, for
// fuzzing.
std::string answerBytes(std::string_view bytes, const RequestHandler& handler);

}  // namespace virela::devserver
