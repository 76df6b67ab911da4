#pragma once

#include <memory>
#include <optional>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include "tools/devserver/exchange.hpp"
#include "tools/devserver/socket_hub.hpp"

namespace virela::devserver {

namespace beast = boost::beast;
namespace http = boost::beast::http;

// Parses one request straight into a RecordedRequest, within the header and body limits of a
// connection. Beast's own fields container groups repeated headers together, which would lose
// the order in which they arrived.
class RecordingParser final : public http::basic_parser<true> {
  public:
    RecordingParser();
    RecordedRequest& request() { return request_; }
    int version() const { return version_; }

  private:
    void on_request_impl(http::verb, beast::string_view method, beast::string_view target,
                         int version, beast::error_code&) override;
    void on_response_impl(int, beast::string_view, int, beast::error_code&) override {}
    void on_field_impl(http::field, beast::string_view name, beast::string_view value,
                       beast::error_code&) override;
    void on_header_impl(beast::error_code&) override {}
    void on_body_init_impl(const boost::optional<std::uint64_t>& length,
                           beast::error_code&) override;
    std::size_t on_body_impl(beast::string_view body, beast::error_code&) override;
    void on_chunk_header_impl(std::uint64_t, beast::string_view, beast::error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, beast::string_view body,
                                   beast::error_code&) override;
    void on_finish_impl(beast::error_code&) override {}

    RecordedRequest request_;
    int version_ = 11;
};

// What a connection does once it has read a whole request: the handler's outcome (a handler
// that throws gets a 500), whether to read another request afterwards, and the HTTP version.
struct Answer {
    Outcome outcome;
    bool keepAlive = false;
    int version = 11;
    // For a request that may become a socket: the request again as a Beast message, which the
    // WebSocket handshake takes.
    std::optional<http::request<http::empty_body>> upgrade;
};
Answer answer(RecordingParser& parser, const RequestHandler& handler);

// The reply to a request that could not be read, or nullopt to close without one.
std::optional<Reply> readFailureReply(const beast::error_code& ec);

// The reply as the message to write; nullptr when it cannot be written (a header Beast refuses).
std::shared_ptr<http::response<http::string_body>> responseOf(Reply reply, bool keepAlive,
                                                              int version);

// One accepted connection: reads requests, hands each to the handler and writes its reply,
// for as long as the client keeps the connection alive. The session owns the stream, so that
// an upgrade to a WebSocket can take it over from here.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    HttpSession(boost::asio::ip::tcp::socket socket, const RequestHandler& handler,
                SocketHub& sockets);
    void run();

  private:
    void readHeader();
    void onHeader(beast::error_code ec);
    void readBody();
    void onBody(beast::error_code ec);
    void respond();
    void write(Reply reply, bool keepAlive, int version);
    void onWrite(bool keepAlive, beast::error_code ec);
    void failRead(beast::error_code ec);
    void lingerAndClose();
    void drain();
    void close();

    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    std::optional<RecordingParser> parser_;
    std::shared_ptr<void> pending_;   // keeps the message being written alive
    boost::asio::steady_timer hold_;  // a reply held back until Outcome::holdUntil
    const RequestHandler& handler_;
    SocketHub& sockets_;
};

}  // namespace virela::devserver
