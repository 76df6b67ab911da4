#include "tools/devserver/http_session.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <sstream>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include "tools/devserver/http_server.hpp"
#include "tools/devserver/websocket_session.hpp"

namespace virela::devserver {

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kHeaderLimit = 16 * 1024;
constexpr std::uint64_t kBodyLimit = std::uint64_t{32} * 1024 * 1024;
// Long enough for a client that keeps idle connections in a pool.
constexpr auto kIdleTimeout = 120s;
constexpr auto kWriteTimeout = 30s;
constexpr auto kLingerTimeout = 2s;

bool isParseError(const beast::error_code& ec) {
    return ec.category() == http::make_error_code(http::error::bad_method).category() &&
           ec != http::error::end_of_stream && ec != http::error::partial_message;
}

bool hasNoBody(int status) {
    return status < 200 || status == 204 || status == 304;
}

// The request again as a Beast message, which the WebSocket handshake takes.
std::optional<http::request<http::empty_body>> asUpgradeRequest(const RecordedRequest& request,
                                                                int version) {
    try {
        http::request<http::empty_body> message;
        message.method_string(request.method);
        message.target(request.target);
        message.version(version);
        for (const Header& header : request.headers) message.insert(header.name, header.value);
        return message;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// A peer that sent these bytes and then shut its side, as http::read sees a socket.
class SentBytes {
  public:
    explicit SentBytes(std::string_view bytes) : rest_(bytes) {}

    template <class Buffers>
    std::size_t read_some(const Buffers& buffers, beast::error_code& ec) {
        ec = {};
        if (rest_.empty()) {
            ec = boost::asio::error::eof;
            return 0;
        }
        const std::size_t n =
            boost::asio::buffer_copy(buffers, boost::asio::buffer(rest_.data(), rest_.size()));
        rest_.remove_prefix(n);
        return n;
    }
    template <class Buffers>
    std::size_t read_some(const Buffers& buffers) {
        beast::error_code ec;
        const std::size_t n = read_some(buffers, ec);
        if (ec) throw beast::system_error(ec);
        return n;
    }

  private:
    std::string_view rest_;
};

// False when Beast refuses to write the response.
bool appendBytes(const http::response<http::string_body>& response, std::string& written) {
    try {
        std::ostringstream out;
        out << response;
        written += out.str();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

RecordingParser::RecordingParser() {
    header_limit(kHeaderLimit);
    body_limit(kBodyLimit);
}

void RecordingParser::on_request_impl(http::verb, beast::string_view method,
                                      beast::string_view target, int version, beast::error_code&) {
    request_.method.assign(method.data(), method.size());
    request_.target.assign(target.data(), target.size());
    request_.path = request_.target.substr(0, request_.target.find('?'));
    version_ = version;
}

void RecordingParser::on_field_impl(http::field, beast::string_view name, beast::string_view value,
                                    beast::error_code&) {
    request_.headers.push_back(
        {std::string(name.data(), name.size()), std::string(value.data(), value.size())});
}

void RecordingParser::on_body_init_impl(const boost::optional<std::uint64_t>& length,
                                        beast::error_code&) {
    if (length) request_.body.reserve(static_cast<std::size_t>(std::min(*length, kBodyLimit)));
}

std::size_t RecordingParser::on_body_impl(beast::string_view body, beast::error_code&) {
    request_.body.append(body.data(), body.size());
    return body.size();
}

std::size_t RecordingParser::on_chunk_body_impl(std::uint64_t, beast::string_view body,
                                                beast::error_code&) {
    request_.body.append(body.data(), body.size());
    return body.size();
}

Answer answer(RecordingParser& parser, const RequestHandler& handler) {
    Answer answered;
    // HEAD replies would need their body suppressed; closing afterwards keeps framing simple.
    answered.keepAlive = parser.keep_alive() && parser.request().method != "HEAD";
    answered.version = parser.version();
    // Kept aside only for requests that may become a socket; the handler takes the original.
    if (parser.request().header("Upgrade")) {
        answered.upgrade = asUpgradeRequest(parser.request(), answered.version);
    }
    try {
        answered.outcome = handler(std::move(parser.request()), answered.version);
    } catch (const std::exception&) {
        answered.outcome.reply =
            jsonError(500, "internal", "The server failed to handle the request.");
    }
    return answered;
}

std::optional<Reply> readFailureReply(const beast::error_code& ec) {
    if (!isParseError(ec)) return std::nullopt;
    if (ec == http::error::header_limit) {
        return jsonError(431, "headers_too_large", "The request headers are too large.");
    }
    if (ec == http::error::body_limit) {
        return jsonError(413, "body_too_large", "The request body is too large.");
    }
    return jsonError(400, "bad_request", "Malformed HTTP request.");
}

std::shared_ptr<http::response<http::string_body>> responseOf(Reply reply, bool keepAlive,
                                                              int version) {
    auto response = std::make_shared<http::response<http::string_body>>();
    try {
        const int status = reply.status >= 100 && reply.status <= 999 ? reply.status : 500;
        response->version(version);
        response->result(static_cast<unsigned>(status));
        for (const Header& header : reply.headers) response->insert(header.name, header.value);
        if (!reply.contentType.empty()) {
            response->set(http::field::content_type, reply.contentType);
        }
        if (!hasNoBody(status)) {
            response->content_length(reply.body.size());
            response->body() = std::move(reply.body);
        }
        response->keep_alive(keepAlive);
    } catch (const std::exception&) {
        return nullptr;
    }
    return response;
}

std::string answerBytes(std::string_view bytes, const RequestHandler& handler) {
    SentBytes peer(bytes);
    beast::flat_buffer buffer;
    std::string written;
    for (;;) {
        RecordingParser parser;
        beast::error_code ec;
        http::read_header(peer, buffer, parser, ec);
        // A connection would answer "100 Continue" here; this peer has sent its body anyway.
        if (!ec && !parser.is_done()) http::read(peer, buffer, parser, ec);
        if (ec) {
            std::optional<Reply> reply = readFailureReply(ec);
            auto response = reply ? responseOf(std::move(*reply), false, 11) : nullptr;
            if (response) appendBytes(*response, written);
            return written;
        }
        Answer answered = answer(parser, handler);
        // A socket would take the connection over from here.
        if (answered.outcome.kind != Outcome::Kind::reply) return written;
        auto response =
            responseOf(std::move(answered.outcome.reply), answered.keepAlive, answered.version);
        if (!response || !appendBytes(*response, written) || !answered.keepAlive) return written;
    }
}

HttpSession::HttpSession(boost::asio::ip::tcp::socket socket, const RequestHandler& handler,
                         SocketHub& sockets)
    : stream_(std::move(socket)),
      hold_(stream_.get_executor()),
      handler_(handler),
      sockets_(sockets) {}

void HttpSession::run() {
    readHeader();
}

void HttpSession::readHeader() {
    parser_.emplace();
    stream_.expires_after(kIdleTimeout);
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onHeader(ec); });
}

void HttpSession::onHeader(beast::error_code ec) {
    if (ec) return failRead(ec);
    std::optional<std::string> expect = parser_->request().header("Expect");
    if (!expect || !beast::iequals(*expect, "100-continue") || parser_->is_done()) {
        return readBody();
    }
    // Clients that ask first (curl does for larger bodies) would otherwise stall.
    auto interim = std::make_shared<http::response<http::empty_body>>(http::status::continue_,
                                                                      parser_->version());
    pending_ = interim;
    stream_.expires_after(kWriteTimeout);
    http::async_write(stream_, *interim,
                      [self = shared_from_this()](beast::error_code writeEc, std::size_t) {
                          self->pending_.reset();
                          if (writeEc) return self->close();
                          self->readBody();
                      });
}

void HttpSession::readBody() {
    if (parser_->is_done()) return respond();
    stream_.expires_after(kIdleTimeout);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onBody(ec); });
}

void HttpSession::onBody(beast::error_code ec) {
    if (ec) return failRead(ec);
    respond();
}

void HttpSession::respond() {
    Answer answered = answer(*parser_, handler_);
    parser_.reset();
    Outcome& outcome = answered.outcome;
    if (outcome.kind == Outcome::Kind::close) return close();
    if (outcome.kind == Outcome::Kind::upgrade) {
        if (!answered.upgrade) return close();
        // The stream leaves this session, which ends once this handler returns.
        std::make_shared<WebSocketSession>(std::move(stream_), sockets_,
                                           std::move(outcome.deviceId))
            ->accept(std::move(*answered.upgrade), std::move(outcome.subprotocol));
        return;
    }
    if (outcome.holdUntil > std::chrono::steady_clock::now()) {
        hold_.expires_at(outcome.holdUntil);
        hold_.async_wait([self = shared_from_this(), reply = std::move(outcome.reply),
                          keepAlive = answered.keepAlive,
                          version = answered.version](beast::error_code ec) mutable {
            if (ec) return self->close();
            self->write(std::move(reply), keepAlive, version);
        });
        return;
    }
    write(std::move(outcome.reply), answered.keepAlive, answered.version);
}

void HttpSession::write(Reply reply, bool keepAlive, int version) {
    auto response = responseOf(std::move(reply), keepAlive, version);
    if (!response) return close();
    pending_ = response;
    stream_.expires_after(kWriteTimeout);
    http::async_write(stream_, *response,
                      [self = shared_from_this(), keepAlive](beast::error_code ec, std::size_t) {
                          self->onWrite(keepAlive, ec);
                      });
}

void HttpSession::onWrite(bool keepAlive, beast::error_code ec) {
    pending_.reset();
    if (ec) return close();
    if (keepAlive) return readHeader();
    lingerAndClose();
}

void HttpSession::failRead(beast::error_code ec) {
    std::optional<Reply> reply = readFailureReply(ec);
    if (!reply) return close();
    write(std::move(*reply), false, 11);
}

void HttpSession::lingerAndClose() {
    // Closing while the peer's bytes are still unread makes the kernel send a reset, which can
    // destroy the reply we just wrote before the client reads it. Stop sending and drain first.
    beast::error_code ignored;
    stream_.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
    stream_.expires_after(kLingerTimeout);
    drain();
}

void HttpSession::drain() {
    auto scratch = std::make_shared<std::array<char, 4096>>();
    stream_.async_read_some(boost::asio::buffer(*scratch), [self = shared_from_this(), scratch](
                                                               beast::error_code ec, std::size_t) {
        if (ec) return self->close();
        self->drain();
    });
}

void HttpSession::close() {
    beast::error_code ignored;
    stream_.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
    stream_.close();
}

}  // namespace virela::devserver
