#include "core/transport/realtime_channel.hpp"

#include "core/base/errors.hpp"
#include "core/ports/log.hpp"
#include "core/transport/socket_url.hpp"

namespace virela {

namespace {
constexpr double kHeartbeatSeconds = 25;
constexpr int kNormalClosure = 1000;
constexpr const char* kBackgroundState = R"({"type":"state","state":"background"})";
constexpr const char* kForegroundState = R"({"type":"state","state":"foreground"})";
}  // namespace

std::shared_ptr<RealtimeChannel> RealtimeChannel::create(std::shared_ptr<const Platform> platform,
                                                         std::shared_ptr<VirelaClock> clock) {
    return std::shared_ptr<RealtimeChannel>(
        new RealtimeChannel(std::move(platform), std::move(clock)));
}

RealtimeChannel::RealtimeChannel(std::shared_ptr<const Platform> platform,
                                 std::shared_ptr<VirelaClock> clock)
    : platform_(std::move(platform)), clock_(std::move(clock)) {}

RealtimeChannel::~RealtimeChannel() {
    cancelHeartbeat();
    cancelReconnect();
}

void RealtimeChannel::start(const Url& baseUrl, const std::string& deviceToken) {
    VIRELA_ASSERT_MAIN(*platform_->main, "RealtimeChannel::start");
    stopped_ = false;
    endpoint_.reset();
    if (auto url = socketUrl(baseUrl)) endpoint_ = Endpoint{*url, socketProtocol(deviceToken)};
    // A retry left over from the previous registration would only replace the fresh socket.
    cancelReconnect();
    connect();
}

void RealtimeChannel::stop() {
    VIRELA_ASSERT_MAIN(*platform_->main, "RealtimeChannel::stop");
    stopped_ = true;
    cancelHeartbeat();
    cancelReconnect();
    if (socket_) {
        socket_->cancel(kNormalClosure, std::nullopt);
        socket_.reset();
    }
}

void RealtimeChannel::connect() {
    VIRELA_ASSERT_MAIN(*platform_->main, "RealtimeChannel::connect");
    if (stopped_ || !endpoint_ || !platform_->makeSocket) return;
    if (events_.onConnecting) events_.onConnecting(endpoint_->url);

    // A socket being replaced is already dead or dying; closing it makes sure it never lingers
    // as a second connection. Its late results are ignored by the receive loop.
    if (socket_) socket_->cancel(kNormalClosure, std::nullopt);
    auto connection = platform_->makeSocket(endpoint_->url, socketSession_, {endpoint_->protocol},
                                            std::weak_ptr<SocketDelegate>(weak_from_this()));
    socket_ = connection.socket;
    socketSession_ = connection.session;
    if (!socket_) return;
    socket_->resume();
    armReceive(socket_);

    std::weak_ptr<RealtimeChannel> weak = weak_from_this();
    platform_->main->post([weak] {
        if (auto self = weak.lock()) self->startHeartbeat();
    });
}

void RealtimeChannel::armReceive(const std::shared_ptr<VirelaSocket>& socket) {
    std::weak_ptr<RealtimeChannel> weak = weak_from_this();
    std::weak_ptr<VirelaSocket> weakSocket = socket;
    auto main = platform_->main;
    socket->receive([weak, weakSocket, main](SocketReceiveResult result) {
        // Decoding happens on the delivering thread; everything else on the main executor.
        std::optional<Push> push;
        std::exception_ptr error;
        if (auto* message = std::get_if<SocketMessage>(&result)) {
            if (message->kind == SocketMessage::Kind::text) push = decodePush(message->data);
        } else {
            error = std::get<std::exception_ptr>(result);
            if (!error)
                error = std::make_exception_ptr(
                    NetworkError(NetworkError::Kind::other, "socket failed"));
        }
        main->post([weak, weakSocket, push = std::move(push), error]() mutable {
            auto self = weak.lock();
            auto completed = weakSocket.lock();
            if (self && completed) self->handleReceived(completed, std::move(push), error);
        });
    });
}

void RealtimeChannel::handleReceived(const std::shared_ptr<VirelaSocket>& socket,
                                     std::optional<Push> push, const std::exception_ptr& error) {
    // A replaced socket dies quietly: no routing, no re-arming, no reconnection.
    if (socket != socket_) return;
    if (error) {
        if (events_.onLost) events_.onLost(error);
        scheduleReconnect();
        return;
    }
    // Re-armed before the push is handled, so that nothing a handler does (or throws) can leave
    // the socket without a receive: later pushes and the server's close still arrive.
    armReceive(socket);
    if (push) route(std::move(*push));
}

void RealtimeChannel::dispatch(std::string_view text) {
    auto push = decodePush(text);
    if (!push) return;
    std::weak_ptr<RealtimeChannel> weak = weak_from_this();
    platform_->main->post([weak, push = std::move(*push)]() mutable {
        if (auto self = weak.lock()) self->route(std::move(push));
    });
}

void RealtimeChannel::route(Push push) {
    const char* type = pushType(push);
    try {
        if (events_.onPush) events_.onPush(push);
        if (onPush_) onPush_(std::move(push));
    } catch (...) {
        // A host callback that throws must not take the channel down with it.
        if (platform_->log) {
            platform_->log->write(LogLevel::error, std::string("push handling failed: ") + type +
                                                       " — " + describe(std::current_exception()));
        }
    }
}

void RealtimeChannel::scheduleReconnect() {
    if (stopped_ || reconnectWork_) return;
    cancelHeartbeat();
    const double delay = backoff_.next();
    if (events_.onReconnectScheduled) events_.onReconnectScheduled(delay, backoff_.attempts());
    std::weak_ptr<RealtimeChannel> weak = weak_from_this();
    reconnectWork_ = clock_->after(TimerId::reconnect, delay, [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->reconnectWork_.reset();
        self->connect();
    });
}

void RealtimeChannel::startHeartbeat() {
    cancelHeartbeat();
    if (stopped_) return;
    std::weak_ptr<RealtimeChannel> weak = weak_from_this();
    heartbeat_ = clock_->every(TimerId::heartbeat, kHeartbeatSeconds, [weak] {
        if (auto self = weak.lock()) self->send("ping");
    });
}

void RealtimeChannel::send(std::string text) {
    if (socket_)
        socket_->send(SocketMessage::text(std::move(text)), [](const std::exception_ptr&) {});
}

void RealtimeChannel::socketDidOpen(const VirelaSocket& socket, const std::optional<std::string>&) {
    std::weak_ptr<RealtimeChannel> weak = weak_from_this();
    const VirelaSocket* opened = &socket;
    platform_->main->post([weak, opened] {
        auto self = weak.lock();
        if (!self || self->socket_.get() != opened) return;
        self->backoff_.reset();
        if (self->events_.onOpen) self->events_.onOpen();
    });
}

void RealtimeChannel::onEnterBackground() {
    // Keeps the process alive until the backend has been told; without a socket nothing is
    // sent and the task is left to its expiration handler.
    auto lifecycle = platform_->lifecycle;
    auto box =
        std::make_shared<AppLifecycle::BackgroundTaskId>(AppLifecycle::invalidBackgroundTask);
    auto endOnce = [lifecycle, box] {
        if (*box == AppLifecycle::invalidBackgroundTask) return;
        lifecycle->endBackgroundTask(*box);
        *box = AppLifecycle::invalidBackgroundTask;
    };
    *box = lifecycle->beginBackgroundTask(endOnce);
    if (!socket_) return;
    auto main = platform_->main;
    socket_->send(SocketMessage::text(kBackgroundState),
                  [main, endOnce](const std::exception_ptr&) { main->post(endOnce); });
}

void RealtimeChannel::onEnterForeground() {
    if (stopped_) return;
    backoff_.reset();
    if (socket_ && socket_->state() == SocketState::running) {
        send(kForegroundState);
        return;
    }
    cancelReconnect();
    connect();
}

void RealtimeChannel::cancelReconnect() {
    if (reconnectWork_) reconnectWork_->cancel();
    reconnectWork_.reset();
}

void RealtimeChannel::cancelHeartbeat() {
    if (heartbeat_) heartbeat_->cancel();
    heartbeat_.reset();
}

}  // namespace virela
