#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <boost/asio/any_io_executor.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "tools/devserver/socket_hub.hpp"

namespace virela::devserver {

// One device's socket, taken over from the HTTP session that read its upgrade request. Lives on
// the server thread; post() and postDrop() are the only members other threads may call.
class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
  public:
    WebSocketSession(boost::beast::tcp_stream stream, SocketHub& hub, std::string deviceId);

    // Answers the upgrade request with a 101 that selects `subprotocol`, then serves the socket.
    void accept(boost::beast::http::request<boost::beast::http::empty_body> request,
                std::string subprotocol);

    const std::string& deviceId() const { return deviceId_; }
    // Unique among the sessions of this process, for telling connections apart in a log.
    std::uint64_t connection() const { return connection_; }

    // Queue a message on the server thread. Only while the io_context lives.
    void post(Outgoing message);
    // Close the connection on the server thread without a close frame.
    void postDrop();

  private:
    void onAccept(boost::beast::error_code ec);
    void read();
    void onRead(boost::beast::error_code ec);
    void enqueue(Outgoing message);
    void writeNext();
    void onWritten(boost::beast::error_code ec);
    // Reports the end once reading has stopped and no close handshake of ours is under way.
    void finish(bool closeFrameReceived);
    void drop();

    boost::beast::websocket::stream<boost::beast::tcp_stream> ws_;
    const boost::asio::any_io_executor executor_;
    boost::beast::flat_buffer buffer_;
    boost::beast::http::request<boost::beast::http::empty_body> request_;  // until accepted
    // Beast allows one write at a time, so everything outgoing waits here for its turn.
    std::deque<Outgoing> queue_;
    std::size_t queuedBytes_ = 0;
    bool writing_ = false;
    bool closing_ = false;  // a close is queued or the socket dropped: nothing may follow
    bool closeInFlight_ = false;
    bool closeCompleted_ = false;
    bool readEnded_ = false;
    bool finished_ = false;
    bool dropped_ = false;
    SocketHub& hub_;
    const std::string deviceId_;
    const std::uint64_t connection_;
};

}  // namespace virela::devserver
