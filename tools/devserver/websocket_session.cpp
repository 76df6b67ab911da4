#include "tools/devserver/websocket_session.hpp"

#include <atomic>
#include <cstdint>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/role.hpp>

namespace virela::devserver {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;

namespace {

// A larger message fails the socket with 1009; nothing a device sends comes near it.
constexpr std::uint64_t kMessageLimit = std::uint64_t{1024} * 1024;
// A peer that lets this much pile up unread is treated as gone rather than buffered for.
constexpr std::size_t kQueueLimit = std::size_t{32} * 1024 * 1024;

constexpr int kNoStatusCode = 1005;
constexpr int kAbnormalCode = 1006;

std::atomic<std::uint64_t> nextConnection{0};

}  // namespace

WebSocketSession::WebSocketSession(beast::tcp_stream stream, SocketHub& hub, std::string deviceId)
    : ws_(std::move(stream)),
      executor_(ws_.get_executor()),
      hub_(hub),
      deviceId_(std::move(deviceId)),
      connection_(nextConnection.fetch_add(1) + 1) {}

void WebSocketSession::accept(http::request<http::empty_body> request, std::string subprotocol) {
    request_ = std::move(request);
    // From here the WebSocket layer keeps time: handshake and close limits, and pings to a
    // peer that has gone quiet, dropping it when even those go unanswered.
    beast::get_lowest_layer(ws_).expires_never();
    ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    ws_.set_option(websocket::stream_base::decorator(
        [subprotocol = std::move(subprotocol)](websocket::response_type& response) {
            response.set(http::field::sec_websocket_protocol, subprotocol);
        }));
    ws_.read_message_max(kMessageLimit);
    // Each push goes out as one frame, whatever its size, so a capture shows it whole.
    ws_.auto_fragment(false);
    ws_.async_accept(request_,
                     [self = shared_from_this()](beast::error_code ec) { self->onAccept(ec); });
}

void WebSocketSession::post(Outgoing message) {
    asio::post(executor_, [self = shared_from_this(), message = std::move(message)]() mutable {
        self->enqueue(std::move(message));
    });
}

void WebSocketSession::postDrop() {
    asio::post(executor_, [self = shared_from_this()] { self->drop(); });
}

void WebSocketSession::onAccept(beast::error_code ec) {
    request_ = {};
    if (ec || !hub_.attach(shared_from_this())) return drop();
    read();
}

void WebSocketSession::read() {
    ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
        self->onRead(ec);
    });
}

void WebSocketSession::onRead(beast::error_code ec) {
    if (ec) {
        readEnded_ = true;
        // Our own close is still finishing its handshake; its completion ends the session.
        if (!closeInFlight_) finish(ec == websocket::error::closed);
        return;
    }
    const bool text = ws_.got_text();
    std::string frame = beast::buffers_to_string(buffer_.data());
    buffer_.consume(buffer_.size());
    hub_.received(*this, std::move(frame), text);
    read();
}

void WebSocketSession::enqueue(Outgoing message) {
    if (closing_) return;
    if (message.kind == Outgoing::Kind::close) {
        closing_ = true;
    } else {
        queuedBytes_ += message.data.size();
        if (queuedBytes_ > kQueueLimit) return drop();
    }
    queue_.push_back(std::move(message));
    if (!writing_) writeNext();
}

void WebSocketSession::writeNext() {
    if (queue_.empty()) {
        writing_ = false;
        return;
    }
    writing_ = true;
    const Outgoing& next = queue_.front();
    auto self = shared_from_this();
    if (next.kind == Outgoing::Kind::close) {
        websocket::close_reason reason(static_cast<std::uint16_t>(next.code));
        reason.reason = next.data.substr(0, reason.reason.max_size());
        closeInFlight_ = true;
        ws_.async_close(reason, [self](beast::error_code ec) { self->onWritten(ec); });
        return;
    }
    ws_.text(next.kind == Outgoing::Kind::text);
    ws_.async_write(asio::buffer(next.data),
                    [self](beast::error_code ec, std::size_t) { self->onWritten(ec); });
}

void WebSocketSession::onWritten(beast::error_code ec) {
    const bool wasClose = queue_.front().kind == Outgoing::Kind::close;
    if (!wasClose) queuedBytes_ -= queue_.front().data.size();
    queue_.pop_front();
    if (wasClose) {
        closeInFlight_ = false;
        closeCompleted_ = !ec;
        if (readEnded_) finish(closeCompleted_);
    }
    if (ec || dropped_) {
        queue_.clear();
        queuedBytes_ = 0;
        writing_ = false;
        return drop();
    }
    writeNext();
}

void WebSocketSession::finish(bool closeFrameReceived) {
    if (finished_) return;
    finished_ = true;
    const std::uint16_t received = ws_.reason().code;
    int code = kAbnormalCode;
    if (received != websocket::close_code::none) {
        code = received;
    } else if (closeFrameReceived || closeCompleted_) {
        code = kNoStatusCode;
    }
    drop();
    hub_.detach(*this, code);
}

void WebSocketSession::drop() {
    if (dropped_) return;
    dropped_ = true;
    closing_ = true;
    // A write in flight fails now; its completion empties the queue.
    beast::error_code ignored;
    beast::tcp_stream& tcp = beast::get_lowest_layer(ws_);
    tcp.socket().shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    tcp.close();
}

}  // namespace virela::devserver
