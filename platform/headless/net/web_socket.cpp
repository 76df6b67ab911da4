#include "platform/headless/web_socket.hpp"

#include <algorithm>
#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <deque>
#include <sstream>
#include <utility>

#include "core/base/errors.hpp"
#include "platform/headless/detail/timer_set.hpp"
#include "platform/headless/net/network.hpp"
#include "platform/headless/stderr_log.hpp"

namespace virela::headless {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Kind = NetworkError::Kind;
using detail::ConnectStep;
using detail::networkError;

namespace {

using PlainStream = websocket::stream<beast::tcp_stream>;
using SecureStream = websocket::stream<beast::ssl_stream<beast::tcp_stream>>;

constexpr std::uint16_t kGoingAway = 1001;

std::string secondsText(double seconds) {
    std::ostringstream text;
    text << seconds;
    return text.str();
}

// A completion that throws must not keep the others from running.
void invokeAll(std::vector<std::function<void()>>& calls) {
    for (auto& call : calls) {
        try {
            call();
        } catch (const std::exception& e) {
            writeStderrLine(LogLevel::error, std::string("socket completion threw: ") + e.what());
        } catch (...) {
            writeStderrLine(LogLevel::error, "socket completion threw");
        }
    }
    calls.clear();
}

}  // namespace

// The connection behind one BeastWebSocket, in the Beast idiom: every operation is posted to
// the network thread, which alone touches the connection's state; one write is in flight and the
// rest wait in `outgoing`. Callers on other threads read only `state`, and after the network has
// gone, `gone` and the error it ended with. Handlers hold the Impl, which must not hold the
// Network: a handler left in a stopped loop would otherwise keep the loop alive forever.
struct BeastWebSocket::Impl final : detail::NetworkJob, std::enable_shared_from_this<Impl> {
    enum class Stage { idle, connecting, open, finished };

    Impl(detail::Network& network, Url address, std::vector<std::string> offered,
         std::weak_ptr<SocketDelegate> observer, WebSocketOptions settings)
        : io(network.context()),
          tlsContext(network.tls()),
          jobs(network.jobs()),
          verifyPeer(network.options()->verifyPeer),
          userAgent(network.userAgent()),
          url(std::move(address)),
          protocols(std::move(offered)),
          delegate(std::move(observer)),
          options(settings),
          resolver(io),
          openTimer(io),
          closeTimer(io) {}

    ~Impl() override { jobs->remove(this); }

    // Any thread: each posts its step.
    void resume();
    void cancel(int closeCode, std::optional<std::string> reason);
    void send(SocketMessage message, std::function<void(std::exception_ptr)> completion);
    void receive(std::function<void(SocketReceiveResult)> completion);
    // Once the network thread has stopped (or from it, as it stops).
    void abandon() override;

    // The network thread.
    template <class Step>
    void post(Step step) {
        asio::post(io,
                   [self = shared_from_this(), step = std::move(step)]() mutable { step(*self); });
    }
    void start();
    void onConnected(ConnectStep step, const error_code& ec);
    template <class Stream>
    void handshake(Stream& ws);
    void onHandshake(error_code ec);
    void opened();
    template <class Stream>
    void read(Stream& ws);
    template <class Stream>
    void onRead(Stream& ws, const error_code& ec);
    void pump();
    template <class Stream>
    void write(Stream& ws, bool text);
    void onWritten(const error_code& ec);
    void onCancel(const websocket::close_reason& frame);
    void startClose();
    void abortConnect();
    // Ends an opening that failed (an open that timed out says so instead).
    void failOpening(std::exception_ptr error);
    void finish();

    bool stopping() const { return timedOut || end != nullptr; }
    void endWith(std::exception_ptr error) {
        if (!end) end = std::move(error);
    }
    std::string where() const { return endpoint.host + ":" + std::to_string(endpoint.port); }
    beast::tcp_stream* tcp() {
        if (plain) return &beast::get_lowest_layer(*plain);
        if (secure) return &beast::get_lowest_layer(*secure);
        return nullptr;
    }
    template <class F>
    void withStream(F&& f) {
        if (plain) f(*plain);
        if (secure) f(*secure);
    }

    // Fixed at creation.
    asio::io_context& io;
    std::shared_ptr<ssl::context> tlsContext;
    std::shared_ptr<detail::NetworkJobs> jobs;
    bool verifyPeer;
    std::string userAgent;
    Url url;
    std::vector<std::string> protocols;
    std::weak_ptr<SocketDelegate> delegate;
    WebSocketOptions options;
    std::weak_ptr<BeastWebSocket> owner;

    // Read from any thread.
    std::atomic<SocketState> state{SocketState::suspended};
    // Set once the network has gone; `goneError` is written before and never after.
    std::atomic<bool> gone{false};
    std::exception_ptr goneError;

    // The network thread only.
    Stage stage = Stage::idle;
    bool timedOut = false;
    std::optional<websocket::close_reason> closeRequest;
    std::exception_ptr end;  // why the connection ended, or is ending
    std::deque<SocketMessage> incoming;
    std::deque<std::function<void(SocketReceiveResult)>> receivers;
    std::deque<std::pair<SocketMessage, std::function<void(std::exception_ptr)>>> outgoing;
    std::function<void(std::exception_ptr)> writeDone;  // the write in flight
    tcp::resolver resolver;
    asio::steady_timer openTimer;
    asio::steady_timer closeTimer;
    std::optional<PlainStream> plain;
    std::optional<SecureStream> secure;
    detail::Endpoint endpoint;
    websocket::response_type response;
    beast::flat_buffer readBuffer;
    std::string writing;
    bool reading = false;
    bool writeActive = false;
    bool closeAfterWrite = false;
    bool closing = false;
    bool finished = false;
};

namespace {

// A completion handed to the network thread. Should the loop stop before the step runs (its
// handler is then destroyed unrun), the completion still runs once, as cancelled.
template <class Result>
class Pending {
  public:
    explicit Pending(std::function<void(Result)> completion) : completion_(std::move(completion)) {}
    ~Pending() {
        if (!completion_) return;
        std::vector<std::function<void()>> call{
            [&] { completion_(Result(networkError(Kind::cancelled, "network is shut down", 0))); }};
        invokeAll(call);
    }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
    std::function<void(Result)> take() { return std::exchange(completion_, nullptr); }

  private:
    std::function<void(Result)> completion_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Calls from any thread

void BeastWebSocket::Impl::resume() {
    SocketState expected = SocketState::suspended;
    if (!state.compare_exchange_strong(expected, SocketState::running)) return;
    post([](Impl& self) { self.start(); });
}

void BeastWebSocket::Impl::cancel(int closeCode, std::optional<std::string> reason) {
    websocket::close_reason frame;
    frame.code = static_cast<std::uint16_t>(closeCodeToSend(closeCode));
    auto text = closeReasonToSend(std::move(reason).value_or(""));
    frame.reason.assign(text.data(), text.size());
    // Running or suspended becomes canceling; a finished socket stays completed.
    SocketState now = state.load();
    while ((now == SocketState::running || now == SocketState::suspended) &&
           !state.compare_exchange_weak(now, SocketState::canceling)) {
    }
    if (gone.load(std::memory_order_acquire)) return;
    post([frame](Impl& self) { self.onCancel(frame); });
}

void BeastWebSocket::Impl::send(SocketMessage message,
                                std::function<void(std::exception_ptr)> completion) {
    if (!completion) completion = [](const std::exception_ptr&) {};
    if (gone.load(std::memory_order_acquire)) return completion(goneError);
    auto pending = std::make_shared<Pending<std::exception_ptr>>(std::move(completion));
    post([message = std::move(message), pending](Impl& self) mutable {
        self.outgoing.emplace_back(std::move(message), pending->take());
        self.pump();
    });
}

void BeastWebSocket::Impl::receive(std::function<void(SocketReceiveResult)> completion) {
    if (!completion) completion = [](const SocketReceiveResult&) {};
    if (gone.load(std::memory_order_acquire)) return completion(goneError);
    auto pending = std::make_shared<Pending<SocketReceiveResult>>(std::move(completion));
    post([pending](Impl& self) {
        self.receivers.push_back(pending->take());
        self.pump();
    });
}

void BeastWebSocket::Impl::abandon() {
    // The network thread has stopped, or is this thread and stops once the current handler
    // returns; either way nothing else touches the connection now.
    endWith(networkError(Kind::cancelled, "network is shut down", 0));
    goneError = end;
    gone.store(true, std::memory_order_release);
    stage = Stage::finished;
    state = SocketState::completed;
    incoming.clear();
    finished = true;
    error_code ignored;
    if (auto* stream = tcp()) stream->socket().close(ignored);
    pump();
}

// ---------------------------------------------------------------------------------------------
// Opening, on the network thread

void BeastWebSocket::Impl::start() {
    if (stopping() || finished) return finish();
    stage = Stage::connecting;
    auto target = detail::endpointOf(url, "ws", "wss");
    if (auto* problem = std::get_if<std::string>(&target)) {
        endWith(networkError(Kind::other, *problem, 0));
        return finish();
    }
    endpoint = std::get<detail::Endpoint>(target);
    std::string offered;
    for (const auto& protocol : protocols) {
        // The credential goes as it stands ("/", "=", ":" and spaces included); only what
        // would end the header line or the list element is refused.
        if (protocol.empty() || protocol.find_first_of(",\r\n", 0) != std::string::npos ||
            protocol.find('\0') != std::string::npos) {
            endWith(networkError(Kind::other, "invalid subprotocol \"" + protocol + "\"", 0));
            return finish();
        }
        offered += (offered.empty() ? "" : ", ") + protocol;
    }

    auto configure = [&](auto& ws) {
        ws.read_message_max(options.maxMessageBytes);
        ws.set_option(websocket::stream_base::decorator(
            [offered, agent = userAgent](websocket::request_type& request) {
                if (!offered.empty()) request.set(http::field::sec_websocket_protocol, offered);
                if (!agent.empty()) request.set(http::field::user_agent, agent);
            }));
    };
    if (endpoint.secure) {
        secure.emplace(io, *tlsContext);
        configure(*secure);
    } else {
        plain.emplace(io);
        configure(*plain);
    }

    openTimer.expires_after(detail::toDuration(options.openTimeoutSeconds, 0.0));
    openTimer.async_wait([self = shared_from_this()](const error_code& ec) {
        if (ec || self->finished || self->stage != Stage::connecting) return;
        self->timedOut = true;
        self->abortConnect();
    });
    detail::connectStream(
        resolver, endpoint, *tcp(), secure ? &secure->next_layer() : nullptr, verifyPeer,
        [self = shared_from_this()] { return !self->finished && !self->stopping(); },
        [self = shared_from_this()](ConnectStep step, const error_code& ec) {
            self->onConnected(step, ec);
        });
}

void BeastWebSocket::Impl::onConnected(ConnectStep step, const error_code& ec) {
    if (finished) return;
    if (ec) return failOpening(detail::connectFailure(step, ec, where()));
    if (plain) return handshake(*plain);
    handshake(*secure);
}

template <class Stream>
void BeastWebSocket::Impl::handshake(Stream& ws) {
    ws.async_handshake(
        response, endpoint.hostHeader, url.target(),
        [self = shared_from_this()](const error_code& ec) { self->onHandshake(ec); });
}

void BeastWebSocket::Impl::onHandshake(error_code ec) {
    if (finished) return;
    if (!ec && stopping()) ec = asio::error::operation_aborted;
    if (ec == websocket::error::upgrade_declined) {
        // The server answered, just not with a WebSocket: its status is what matters (401 for a
        // bad credential, 503 while it cannot take us).
        int status = static_cast<int>(response.result_int());
        endWith(networkError(
            Kind::other,
            "WebSocket handshake with " + where() + " rejected with HTTP " + std::to_string(status),
            status));
        return finish();
    }
    if (ec) {
        const Kind kind = ec == asio::error::timed_out ? Kind::timedOut : Kind::other;
        return failOpening(networkError(
            kind, "WebSocket handshake failed with " + where() + ": " + ec.message(), ec.value()));
    }
    std::string chosen(response[http::field::sec_websocket_protocol]);
    if (!chosen.empty() &&
        std::find(protocols.begin(), protocols.end(), chosen) == protocols.end()) {
        endWith(networkError(
            Kind::other,
            "server at " + where() + " chose subprotocol \"" + chosen + "\", which was not offered",
            0));
        return finish();
    }
    openTimer.cancel();
    stage = Stage::open;
    // Reading starts only after the delegate has heard of the opening, so no message can
    // overtake it.
    auto socket = owner.lock();
    auto observer = delegate.lock();
    if (socket && observer) {
        try {
            observer->socketDidOpen(*socket, chosen.empty() ? std::nullopt : std::optional(chosen));
        } catch (const std::exception& e) {
            writeStderrLine(LogLevel::error, std::string("socket delegate threw: ") + e.what());
        } catch (...) {
            writeStderrLine(LogLevel::error, "socket delegate threw");
        }
    }
    observer.reset();
    socket.reset();  // may be the last reference: that only queues a cancel
    opened();
}

void BeastWebSocket::Impl::opened() {
    if (finished) return;
    withStream([this](auto& ws) { read(ws); });
    pump();
}

void BeastWebSocket::Impl::abortConnect() {
    error_code ignored;
    resolver.cancel();
    if (auto* stream = tcp()) stream->socket().close(ignored);
}

void BeastWebSocket::Impl::failOpening(std::exception_ptr error) {
    if (timedOut) {
        error = networkError(Kind::timedOut,
                             "opening the WebSocket to " + where() + " timed out after " +
                                 secondsText(options.openTimeoutSeconds) + " s",
                             asio::error::timed_out);
    }
    endWith(std::move(error));
    finish();
}

// ---------------------------------------------------------------------------------------------
// Open, on the network thread

template <class Stream>
void BeastWebSocket::Impl::read(Stream& ws) {
    reading = true;
    ws.async_read(readBuffer, [self = shared_from_this(), &ws](const error_code& ec, std::size_t) {
        self->onRead(ws, ec);
    });
}

template <class Stream>
void BeastWebSocket::Impl::onRead(Stream& ws, const error_code& ec) {
    reading = false;
    if (finished) return;
    if (ec) {
        if (ec == websocket::error::closed) {
            const auto& reason = ws.reason();
            std::string detail =
                "WebSocket closed by " + where() + " with code " + std::to_string(reason.code);
            if (!reason.reason.empty()) {
                detail += ": " + std::string(reason.reason.data(), reason.reason.size());
            }
            endWith(networkError(Kind::other, detail, reason.code));
        } else {
            Kind kind = ec == asio::error::timed_out ? Kind::timedOut : Kind::other;
            endWith(networkError(kind, "WebSocket to " + where() + " lost: " + ec.message(),
                                 ec.value()));
        }
        // A close under way finishes once its own handshake is done (or its time is up).
        if (!closing) finish();
        return;
    }
    auto message = ws.got_text()
                       ? SocketMessage::text(beast::buffers_to_string(readBuffer.data()))
                       : SocketMessage::binary(beast::buffers_to_string(readBuffer.data()));
    readBuffer.consume(readBuffer.size());
    if (closeRequest) {
        // Cancelled: nobody takes messages any more, but reading goes on until the close.
    } else if (incoming.size() >= options.maxQueuedMessages) {
        // A reader this far behind is stuck; dropping beats growing without bound.
        endWith(networkError(Kind::other,
                             "more than " + std::to_string(options.maxQueuedMessages) +
                                 " unread messages from " + where(),
                             0));
        return finish();
    } else {
        incoming.push_back(std::move(message));
    }
    pump();
    if (!finished) read(ws);
}

void BeastWebSocket::Impl::pump() {
    std::vector<std::function<void()>> calls;
    while (!receivers.empty()) {
        // Messages that arrived before the end are still delivered, in order.
        if (!incoming.empty()) {
            calls.push_back([receiver = std::move(receivers.front()),
                             message = std::move(incoming.front())]() mutable {
                receiver(std::move(message));
            });
            incoming.pop_front();
        } else if (end) {
            calls.push_back(
                [receiver = std::move(receivers.front()), error = end] { receiver(error); });
        } else {
            break;
        }
        receivers.pop_front();
    }
    if (end) {
        if (writeDone && finished) {
            calls.push_back([done = std::move(writeDone), error = end] { done(error); });
            writeDone = nullptr;
        }
        for (auto& [message, done] : outgoing) {
            calls.push_back([done = std::move(done), error = end] { done(error); });
        }
        outgoing.clear();
    } else if (stage == Stage::open && !writeActive && !outgoing.empty()) {
        auto& [message, done] = outgoing.front();
        writing = std::move(message.data);
        const bool text = message.kind == SocketMessage::Kind::text;
        writeDone = std::move(done);
        outgoing.pop_front();
        withStream([this, text](auto& ws) { write(ws, text); });
    }
    invokeAll(calls);
}

template <class Stream>
void BeastWebSocket::Impl::write(Stream& ws, bool text) {
    // Beast allows one write at a time; the rest wait in `outgoing`.
    writeActive = true;
    ws.text(text);
    ws.async_write(
        asio::buffer(writing),
        [self = shared_from_this()](const error_code& ec, std::size_t) { self->onWritten(ec); });
}

void BeastWebSocket::Impl::onWritten(const error_code& ec) {
    writeActive = false;
    writing.clear();
    if (auto done = std::exchange(writeDone, nullptr)) {
        std::exception_ptr result;
        if (ec) {
            Kind kind = ec == asio::error::timed_out ? Kind::timedOut : Kind::other;
            result = networkError(kind, "sending to " + where() + " failed: " + ec.message(),
                                  ec.value());
        }
        std::vector<std::function<void()>> call{[&] { done(result); }};
        invokeAll(call);
    }
    if (finished) return;
    if (closeAfterWrite) return startClose();
    pump();
}

// ---------------------------------------------------------------------------------------------
// Closing, on the network thread

void BeastWebSocket::Impl::onCancel(const websocket::close_reason& frame) {
    if (stage == Stage::finished || finished || closeRequest) return;
    closeRequest = frame;
    endWith(networkError(Kind::cancelled, "socket cancelled", 0));
    incoming.clear();
    pump();  // pending receives and queued sends fail as cancelled
    switch (stage) {
        case Stage::idle:
            return finish();
        case Stage::connecting:
            return abortConnect();  // the step under way fails and finishes
        case Stage::open:
            if (writeActive) {
                closeAfterWrite = true;
                return;
            }
            return startClose();
        case Stage::finished:
            return;
    }
}

void BeastWebSocket::Impl::startClose() {
    if (closing || finished) return;
    closing = true;
    const websocket::close_reason frame = closeRequest.value_or(websocket::close_reason{});
    closeTimer.expires_after(detail::toDuration(options.closeTimeoutSeconds, 0.0));
    closeTimer.async_wait([self = shared_from_this()](const error_code& ec) {
        if (!ec) self->finish();  // the peer is too slow to answer: drop the connection
    });
    withStream([&](auto& ws) {
        ws.async_close(frame, [self = shared_from_this()](const error_code&) {
            self->closing = false;
            // Beast reads the peer's answer through the pending read, which then ends too.
            if (!self->reading) self->finish();
        });
    });
}

void BeastWebSocket::Impl::finish() {
    if (finished) return;
    finished = true;
    error_code ignored;
    openTimer.cancel();
    closeTimer.cancel();
    resolver.cancel();
    if (auto* stream = tcp()) stream->socket().close(ignored);
    stage = Stage::finished;
    state = SocketState::completed;
    endWith(networkError(Kind::other, "WebSocket closed", 0));
    pump();
}

// ---------------------------------------------------------------------------------------------
// The public object

std::shared_ptr<BeastWebSocket> BeastWebSocket::create(BeastHttpClient& network, Url url,
                                                       std::vector<std::string> protocols,
                                                       std::weak_ptr<SocketDelegate> delegate,
                                                       WebSocketOptions options) {
    std::shared_ptr<BeastWebSocket> socket(new BeastWebSocket());
    socket->network_ = network.network_;
    socket->impl_ = std::make_shared<Impl>(*socket->network_, std::move(url), std::move(protocols),
                                           std::move(delegate), options);
    socket->impl_->owner = socket;
    if (!socket->network_->jobs()->add(socket->impl_)) socket->impl_->abandon();
    return socket;
}

BeastWebSocket::~BeastWebSocket() {
    if (impl_) impl_->cancel(kGoingAway, std::nullopt);
}

SocketState BeastWebSocket::state() const {
    return impl_->state.load();
}

void BeastWebSocket::resume() {
    impl_->resume();
}

void BeastWebSocket::cancel(int closeCode, std::optional<std::string> reason) {
    impl_->cancel(closeCode, std::move(reason));
}

void BeastWebSocket::send(SocketMessage message,
                          std::function<void(std::exception_ptr)> completion) {
    impl_->send(std::move(message), std::move(completion));
}

void BeastWebSocket::receive(std::function<void(SocketReceiveResult)> completion) {
    impl_->receive(std::move(completion));
}

SocketFactory beastSocketFactory(std::shared_ptr<BeastHttpClient> network,
                                 WebSocketOptions options) {
    return [network = std::move(network), options](
               const Url& url, const std::shared_ptr<SocketSession>&,
               const std::vector<std::string>& protocols, std::weak_ptr<SocketDelegate> delegate) {
        return SocketConnection{
            BeastWebSocket::create(*network, url, protocols, std::move(delegate), options),
            nullptr};
    };
}

}  // namespace virela::headless
