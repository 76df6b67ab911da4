#include "core/client/client.hpp"

#include "core/api/errors.hpp"
#include "core/capture/capture.hpp"
#include "core/client/fatal.hpp"
#include "core/client/flow_router.hpp"
#include "core/client/uuid.hpp"
#include "core/health/device_health.hpp"
#include "core/transport/socket_url.hpp"

namespace virela {

namespace {
constexpr const char* kDevicesPath = "/v1/sdk/devices";
constexpr const char* kIdentifyPath = "/v1/sdk/devices/identify";
constexpr const char* kResetPath = "/v1/sdk/devices/reset";
constexpr const char* kHealthPath = "/v1/sdk/devices/health";
constexpr double kHeartbeatSeconds = 25;
constexpr double kMaxReconnectDelay = 30;
constexpr int kNormalClosure = 1000;
constexpr const char* kBackgroundState = R"({"type":"state","state":"background"})";
constexpr const char* kForegroundState = R"({"type":"state","state":"foreground"})";

std::exception_ptr supersededError() {
    return std::make_exception_ptr(NetworkError(
        NetworkError::Kind::cancelled, "configure was superseded by a later configure or stop"));
}
}  // namespace

std::shared_ptr<VirelaClient> VirelaClient::create(std::shared_ptr<const Platform> platform,
                                                   Options options) {
    return std::shared_ptr<VirelaClient>(new VirelaClient(std::move(platform), std::move(options)));
}

VirelaClient::VirelaClient(std::shared_ptr<const Platform> platform, Options options)
    : platform_(std::move(platform)),
      clock_(std::move(options.clock)),
      transportFactory_(std::move(options.transportFactory)) {
    if (!clock_) clock_ = std::make_shared<SystemClock>(platform_->main);
    router_ = std::make_shared<FlowRouter>();
    prompt_ = ConsentPrompt::create(platform_->prompts, platform_->http, platform_->main);
    sessionBanner_ = SessionBanner::create(platform_->banner, clock_);
    if (!transportFactory_) {
        transportFactory_ = [http = platform_->http, main = platform_->main](
                                const Url& baseUrl, const std::string& key) {
            return std::make_shared<Transport>(baseUrl, key, http, main);
        };
    }
}

VirelaClient::~VirelaClient() {
    if (promptExpiryTask_) promptExpiryTask_->cancel();
    removeObservers();
    if (pathMonitor_) pathMonitor_->cancel();
}

std::string VirelaClient::installId(const std::string& key) {
    const std::string storageKey = kInstallIdKeyPrefix + key;
    if (auto stored = platform_->defaults->string(storageKey); stored && !stored->empty()) {
        return *stored;
    }
    std::string fresh = makeUuid();
    platform_->defaults->setString(storageKey, fresh);
    return fresh;
}

void VirelaClient::configure(const Url& baseUrl, const std::string& key,
                             const std::optional<VirelaUser>& user, bool collectVendorId,
                             Completion done) {
    if (!baseUrl.isAbsolute() || !baseUrl.hasAuthority()) {
        // Nothing could be sent to it; fail the way the HTTP client would, changing nothing.
        auto error = std::make_exception_ptr(NetworkError(
            NetworkError::Kind::other, "base URL is not an absolute URL: " + baseUrl.str()));
        platform_->main->post([error, done = std::move(done)] { done(error); });
        return;
    }
    stopped_ = false;
    transport_ = transportFactory_(baseUrl, key);
    const std::uint64_t attempt = ++configureAttempt_;

    const DeviceFacts& device = *platform_->device;
    const MainThreadFacts screen = device.readMainThreadFacts();
    RegistrationFacts facts;
    facts.model = device.model();
    facts.os = osText(device.systemName(), device.systemVersion());
    facts.language = device.localeIdentifier();
    facts.appVersion = device.appVersion().value_or("unknown");
    facts.screenSize = screenSizeText(screen.screenWidthPixels, screen.screenHeightPixels);
    if (collectVendorId) facts.vendorId = device.vendorId();
    facts.appId = device.appId();
    facts.installId = installId(key);

    std::weak_ptr<VirelaClient> weak = weak_from_this();
    DeviceHealth(platform_).collect([weak, attempt, user, facts = std::move(facts),
                                     done = std::move(done)](DeviceHealthSnapshot health) mutable {
        auto self = weak.lock();
        if (!self) return;
        if (attempt != self->configureAttempt_) {
            done(supersededError());
            return;
        }
        facts.health = std::move(health);
        self->transport_->postJson(
            kDevicesPath, registrationBody(user, facts), true,
            [weak, attempt, done = std::move(done)](const SendResult& result) {
                if (auto client = weak.lock()) {
                    client->finishRegistration(attempt, result, done);
                }
            });
    });
}

void VirelaClient::finishRegistration(std::uint64_t attempt, const SendResult& result,
                                      const Completion& done) {
    if (attempt != configureAttempt_) {
        done(supersededError());
        return;
    }
    if (!result) {
        done(result.error);
        return;
    }
    RegisterResult registration;
    try {
        registration = RegisterResult::decode(result.body);
    } catch (const DecodingError&) {
        done(std::current_exception());
        return;
    }
    transport_->setDeviceToken(registration.deviceToken);
    setRegistration(std::move(registration));
    installObservers();
    // A retry left over from the previous registration would only replace the fresh socket.
    if (reconnectWork_) reconnectWork_->cancel();
    reconnectWork_.reset();
    connect();
    done(nullptr);
}

void VirelaClient::setRegistration(std::optional<RegisterResult> registration) {
    registration_ = std::move(registration);
    std::lock_guard lock(supportCodeMutex_);
    supportCodeMirror_ = registration_ ? registration_->supportCode : std::nullopt;
}

std::optional<std::string> VirelaClient::supportCode() const {
    std::lock_guard lock(supportCodeMutex_);
    return supportCodeMirror_;
}

void VirelaClient::identify(const std::string& id, const std::optional<std::string>& name,
                            const std::optional<std::string>& phone, std::function<void()> done) {
    if (!transport_) fatalPrecondition("identify() called before configure()");
    using nlohmann::json;
    JsonFields body{
        {"id", json(id)},
        {"name", name ? std::optional<json>(*name) : std::nullopt},
        {"phone", phone ? std::optional<json>(*phone) : std::nullopt},
    };
    // The reply carries nothing the client keeps, and failures are deliberately silent.
    transport_->postJson(kIdentifyPath, body, false, [done = std::move(done)](const SendResult&) {
        if (done) done();
    });
}

void VirelaClient::reset(std::function<void()> done) {
    if (!transport_) fatalPrecondition("reset() called before configure()");
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    transport_->postJson(kResetPath, {}, false,
                         [weak, done = std::move(done)](const SendResult& result) {
                             auto self = weak.lock();
                             if (self && result && self->registration_) {
                                 try {
                                     auto reply = ResetResult::decode(result.body);
                                     auto updated = *self->registration_;
                                     updated.supportCode = std::move(reply.supportCode);
                                     self->setRegistration(std::move(updated));
                                 } catch (const DecodingError&) {
                                     // An unreadable reply changes nothing.
                                 }
                             }
                             if (done) done();
                         });
}

void VirelaClient::stop() {
    stopped_ = true;
    // A registration still in flight must not bring the client back up.
    ++configureAttempt_;
    removeObservers();
    if (pathMonitor_) {
        pathMonitor_->cancel();
        pathMonitor_.reset();
    }
    if (heartbeat_) heartbeat_->cancel();
    heartbeat_.reset();
    if (reconnectWork_) reconnectWork_->cancel();
    reconnectWork_.reset();
    if (socket_) {
        socket_->cancel(kNormalClosure, std::nullopt);
        socket_.reset();
    }
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    platform_->main->post([weak] {
        auto self = weak.lock();
        if (!self) return;
        self->closePrompt();
        self->hideSessionBanner();
    });
}

void VirelaClient::installObservers() {
    removeObservers();
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    backgroundObserver_ = platform_->lifecycle->observe(AppEvent::didEnterBackground, [weak] {
        if (auto self = weak.lock()) self->onEnterBackground();
    });
    foregroundObserver_ = platform_->lifecycle->observe(AppEvent::willEnterForeground, [weak] {
        if (auto self = weak.lock()) self->onEnterForeground();
    });
    startNetworkWatch();
}

void VirelaClient::removeObservers() {
    backgroundObserver_.reset();
    foregroundObserver_.reset();
}

void VirelaClient::startNetworkWatch() {
    if (pathMonitor_) pathMonitor_->cancel();
    auto queue = platform_->makeSerialQueue("virela.network");
    pathMonitor_ = platform_->makePathMonitor();
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    auto main = platform_->main;
    pathMonitor_->start(queue, [weak, main](const NetworkPath&) {
        main->post([weak] {
            if (auto self = weak.lock()) self->reportHealth();
        });
    });
}

void VirelaClient::reportHealth(std::function<void()> done) {
    if (!transport_) {
        if (done) done();
        return;
    }
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    DeviceHealth(platform_).collect([weak,
                                     done = std::move(done)](const DeviceHealthSnapshot& snapshot) {
        auto self = weak.lock();
        if (!self || !self->transport_) {
            if (done) done();
            return;
        }
        const auto& network = snapshot.network;
        // Only the network decides: a report for the same network as the last one (or the one
        // on its way) would tell the agent nothing new.
        if (network && (network == self->lastNetworkSent_ || network == self->networkInFlight_)) {
            if (done) done();
            return;
        }
        self->networkInFlight_ = network;
        self->transport_->postJson(kHealthPath, health::reportBody(snapshot), false,
                                   [weak, network, done](const SendResult& result) {
                                       if (auto client = weak.lock()) {
                                           if (client->networkInFlight_ == network)
                                               client->networkInFlight_.reset();
                                           if (result) client->lastNetworkSent_ = network;
                                       }
                                       if (done) done();
                                   });
    });
}

void VirelaClient::connect() {
    if (!transport_ || !registration_ || stopped_ || !platform_->makeSocket) return;
    auto url = socketUrl(transport_->baseUrl());
    if (!url) return;
    if (events_.onConnecting) events_.onConnecting(*url);

    // A socket being replaced is already dead or dying; closing it makes sure it never lingers
    // as a second connection. Its late results are ignored by the receive loop.
    if (socket_) socket_->cancel(kNormalClosure, std::nullopt);
    auto connection =
        platform_->makeSocket(*url, socketSession_, {socketProtocol(registration_->deviceToken)},
                              std::weak_ptr<SocketDelegate>(weak_from_this()));
    socket_ = connection.socket;
    socketSession_ = connection.session;
    if (!socket_) return;
    socket_->resume();
    armReceive(socket_);

    std::weak_ptr<VirelaClient> weak = weak_from_this();
    platform_->main->post([weak] {
        if (auto self = weak.lock()) self->startHeartbeat();
    });
}

void VirelaClient::armReceive(const std::shared_ptr<VirelaSocket>& socket) {
    std::weak_ptr<VirelaClient> weak = weak_from_this();
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

void VirelaClient::handleReceived(const std::shared_ptr<VirelaSocket>& socket,
                                  std::optional<Push> push, const std::exception_ptr& error) {
    // A replaced socket dies quietly: no routing, no re-arming, no reconnection.
    if (socket != socket_) return;
    if (error) {
        if (events_.onLost) events_.onLost(error);
        scheduleReconnect();
        return;
    }
    if (push) route(std::move(*push));
    if (socket == socket_) armReceive(socket);
}

void VirelaClient::dispatch(std::string_view text) {
    auto push = decodePush(text);
    if (!push) return;
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    platform_->main->post([weak, push = std::move(*push)]() mutable {
        if (auto self = weak.lock()) self->route(std::move(push));
    });
}

void VirelaClient::route(Push push) {
    if (events_.onPush) events_.onPush(push);
    auto router = router_;
    struct Visitor {
        VirelaClient& client;
        const std::shared_ptr<PushRouter>& router;
        void operator()(const ConsentPush& p) const { router->consent(client, p); }
        void operator()(const CapturePush& p) const {
            auto self = client.shared_from_this();
            client.platform_->main->postBackground(
                [self, router = router, p] { router->capture(self, p); });
        }
        void operator()(const LivePush& p) const { router->live(client, p); }
        void operator()(const LiveNotePush& p) const { router->liveNote(client, p); }
        void operator()(const GuidePush& p) const { router->guide(client, p); }
        void operator()(const ControlPush& p) const { router->control(client, p); }
        void operator()(const ControlInputPush& p) const { router->controlInput(client, p); }
        void operator()(const SessionPush& p) const {
            if (p.state == "ended") client.hideSessionBanner();
        }
        void operator()(const ExpiredPush&) const {
            client.closePrompt();
            if (client.callbacks_.onExpired) client.callbacks_.onExpired();
        }
        void operator()(const DeniedPush&) const {
            client.closePrompt();
            if (client.callbacks_.onDenied) client.callbacks_.onDenied();
        }
    };
    std::visit(Visitor{*this, router}, push);
}

void VirelaClient::setRouter(std::shared_ptr<PushRouter> router) {
    router_ = router ? std::move(router) : std::make_shared<FlowRouter>();
}

void VirelaClient::setPromptExpiryTask(std::shared_ptr<VirelaCancellable> task) {
    if (promptExpiryTask_) promptExpiryTask_->cancel();
    promptExpiryTask_ = std::move(task);
}

void VirelaClient::closePrompt() {
    setPromptExpiryTask(nullptr);
    dismissPrompt();
}

void VirelaClient::dismissPrompt() {
    prompt_->dismiss();
}

void VirelaClient::hideSessionBanner() {
    sessionBanner_->hide();
}

void VirelaClient::scheduleReconnect() {
    if (stopped_ || reconnectWork_) return;
    if (heartbeat_) heartbeat_->cancel();
    heartbeat_.reset();
    // 1, 2, 4, 8, 16, then 30 seconds, for as long as it takes.
    const double delay = reconnectAttempts_ >= 5
                             ? kMaxReconnectDelay
                             : std::min(kMaxReconnectDelay, double(1 << reconnectAttempts_));
    ++reconnectAttempts_;
    if (events_.onReconnectScheduled) events_.onReconnectScheduled(delay, reconnectAttempts_);
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    reconnectWork_ = clock_->after(delay, [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->reconnectWork_.reset();
        self->connect();
    });
}

void VirelaClient::startHeartbeat() {
    if (heartbeat_) heartbeat_->cancel();
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    heartbeat_ = clock_->every(kHeartbeatSeconds, [weak] {
        if (auto self = weak.lock()) self->sendText("ping");
    });
}

void VirelaClient::sendText(std::string text) {
    if (socket_)
        socket_->send(SocketMessage::text(std::move(text)), [](const std::exception_ptr&) {});
}

void VirelaClient::socketDidOpen(const VirelaSocket& socket, const std::optional<std::string>&) {
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    const VirelaSocket* opened = &socket;
    platform_->main->post([weak, opened] {
        auto self = weak.lock();
        if (!self || self->socket_.get() != opened) return;
        self->reconnectAttempts_ = 0;
        if (self->events_.onOpen) self->events_.onOpen();
    });
}

void VirelaClient::onEnterBackground() {
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

void VirelaClient::onEnterForeground() {
    if (stopped_) return;
    if (pendingControl_) {
        ControlPush held = std::move(*pendingControl_);
        pendingControl_.reset();
        std::weak_ptr<VirelaClient> weak = weak_from_this();
        platform_->main->post([weak, held = std::move(held)] {
            if (auto self = weak.lock()) self->router_->control(*self, held);
        });
    }
    reconnectAttempts_ = 0;
    if (socket_ && socket_->state() == SocketState::running) {
        sendText(kForegroundState);
        return;
    }
    if (reconnectWork_) reconnectWork_->cancel();
    reconnectWork_.reset();
    connect();
}

}  // namespace virela
