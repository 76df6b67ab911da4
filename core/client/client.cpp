#include "core/client/client.hpp"

#include "core/api/errors.hpp"
#include "core/client/fatal.hpp"
#include "core/client/uuid.hpp"
#include "core/health/device_health.hpp"

namespace virela {

namespace {
constexpr const char* kDevicesPath = "/v1/sdk/devices";
constexpr const char* kIdentifyPath = "/v1/sdk/devices/identify";
constexpr const char* kResetPath = "/v1/sdk/devices/reset";
constexpr const char* kHealthPath = "/v1/sdk/devices/health";

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
    if (!transportFactory_) {
        transportFactory_ = [http = platform_->http, main = platform_->main](
                                const Url& baseUrl, const std::string& key) {
            return std::make_shared<Transport>(baseUrl, key, http, main);
        };
    }
}

VirelaClient::~VirelaClient() {
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
    if (!transport_ || !registration_ || stopped_) return;
    // The realtime channel attaches here.
}

void VirelaClient::onEnterBackground() {
    // Keeps the process alive long enough for the realtime channel to say it went to the
    // background; without a socket the task is left to its expiration handler.
    auto lifecycle = platform_->lifecycle;
    auto box =
        std::make_shared<AppLifecycle::BackgroundTaskId>(AppLifecycle::invalidBackgroundTask);
    *box = lifecycle->beginBackgroundTask([lifecycle, box] {
        if (*box == AppLifecycle::invalidBackgroundTask) return;
        lifecycle->endBackgroundTask(*box);
        *box = AppLifecycle::invalidBackgroundTask;
    });
}

void VirelaClient::onEnterForeground() {
    if (stopped_) return;
    reconnectAttempts_ = 0;
    if (reconnectWork_) reconnectWork_->cancel();
    reconnectWork_.reset();
    connect();
}

}  // namespace virela
