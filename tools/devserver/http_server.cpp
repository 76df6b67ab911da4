#include "tools/devserver/http_server.hpp"

#include <chrono>
#include <stdexcept>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "tools/devserver/http_session.hpp"

namespace virela::devserver {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

struct HttpServer::Impl {
    // Declared first so that it outlives the sessions, which io_context's destruction frees.
    RequestHandler handler;
    SocketHub& sockets;
    asio::io_context io{1};
    tcp::acceptor acceptor{io};
    asio::steady_timer retry{io};
    std::uint16_t port = 0;
    std::string url;
    std::thread thread;

    Impl(RequestHandler h, SocketHub& s) : handler(std::move(h)), sockets(s) {}

    ~Impl() { halt(); }

    void halt() {
        io.stop();
        if (thread.joinable()) thread.join();
    }

    void accept() {
        acceptor.async_accept(io, [this](boost::system::error_code ec, tcp::socket socket) {
            if (ec == asio::error::operation_aborted || !acceptor.is_open()) return;
            if (ec) {
                // Typically out of descriptors: back off instead of spinning.
                retry.expires_after(std::chrono::milliseconds(50));
                retry.async_wait([this](boost::system::error_code waitEc) {
                    if (!waitEc) accept();
                });
                return;
            }
            boost::system::error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);
            std::make_shared<HttpSession>(std::move(socket), handler, sockets)->run();
            accept();
        });
    }
};

HttpServer::HttpServer(const std::string& host, std::uint16_t port, RequestHandler handler,
                       SocketHub& sockets, bool beyondLoopback)
    : impl_(std::make_unique<Impl>(std::move(handler), sockets)) {
    boost::system::error_code ec;
    const asio::ip::address address = asio::ip::make_address(host, ec);
    if (ec || (!address.is_loopback() && !beyondLoopback)) {
        throw std::invalid_argument("devserver only listens on loopback, not \"" + host + "\"");
    }
    const tcp::endpoint endpoint(address, port);
    tcp::acceptor& acceptor = impl_->acceptor;
    acceptor.open(endpoint.protocol());
    // Lets a restarted server take its old port while connections of the last run linger.
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    acceptor.bind(endpoint);
    acceptor.listen(asio::socket_base::max_listen_connections);
    impl_->port = acceptor.local_endpoint().port();
    const std::string hostText =
        address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    impl_->url = "http://" + hostText + ":" + std::to_string(impl_->port);

    impl_->accept();
    impl_->thread = std::thread([impl = impl_.get()] {
        for (;;) {
            try {
                impl->io.run();
                return;
            } catch (const std::exception&) {
                // One failed handler must not take the server down; keep serving.
            }
        }
    });
}

HttpServer::~HttpServer() = default;

void HttpServer::halt() {
    impl_->halt();
}

std::uint16_t HttpServer::port() const {
    return impl_->port;
}

std::string HttpServer::url() const {
    return impl_->url;
}

}  // namespace virela::devserver
