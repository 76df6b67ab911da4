#include "core/client/client.hpp"

#include "core/base/errors.hpp"
#include "core/base/uuid.hpp"
#include "core/control/windows.hpp"
#include "core/health/device_health.hpp"
#include "core/ports/fatal.hpp"

namespace virela {

namespace {
constexpr const char* kDevicesPath = "/v1/sdk/devices";
constexpr const char* kIdentifyPath = "/v1/sdk/devices/identify";
constexpr const char* kResetPath = "/v1/sdk/devices/reset";

// The client's own router: each push to the flow that owns it.
class FlowRouter final : public PushRouter {
  public:
    FlowRouter(std::weak_ptr<CaptureConsentFlow> captureConsent,
               std::weak_ptr<LiveSessionFlow> live, std::weak_ptr<ControlLease> lease,
               std::weak_ptr<ControlIntake> intake)
        : captureConsent_(std::move(captureConsent)),
          live_(std::move(live)),
          lease_(std::move(lease)),
          intake_(std::move(intake)) {}
    void consent(const ConsentPush& push) override {
        if (auto flow = captureConsent_.lock()) flow->handleConsent(push);
    }
    void capture(const CapturePush& push) override {
        if (auto flow = captureConsent_.lock()) flow->handleCapture(push);
    }
    void live(const LivePush& push) override {
        if (auto flow = live_.lock()) flow->handleLive(push);
    }
    void liveNote(const LiveNotePush& push) override {
        if (auto flow = live_.lock()) flow->handleNote(push);
    }
    void guide(const GuidePush& push) override {
        if (auto flow = live_.lock()) flow->handleGuide(push);
    }
    void control(const ControlPush& push) override {
        if (auto flow = lease_.lock()) flow->handleControl(push);
    }
    void controlInput(const ControlInputPush& push) override {
        if (auto flow = intake_.lock()) flow->handleInput(push);
    }

  private:
    std::weak_ptr<CaptureConsentFlow> captureConsent_;
    std::weak_ptr<LiveSessionFlow> live_;
    std::weak_ptr<ControlLease> lease_;
    std::weak_ptr<ControlIntake> intake_;
};
}  // namespace

// One configure on its way: its number, its transport and its caller.
struct VirelaClient::Attempt {
    std::uint64_t number;
    std::shared_ptr<Transport> transport;
    Completion done;
};

std::shared_ptr<VirelaClient> VirelaClient::create(std::shared_ptr<const Platform> platform,
                                                   Options options) {
    auto client =
        std::shared_ptr<VirelaClient>(new VirelaClient(std::move(platform), std::move(options)));
    std::weak_ptr<VirelaClient> weak = client;
    client->channel_->setPushHandler([weak](Push push) {
        if (auto self = weak.lock()) self->route(std::move(push));
    });
    return client;
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
    prompt_ = ConsentPrompt::create(platform_->prompts, platform_->http, platform_->main);
    sessionBanner_ = SessionBanner::create(platform_->banner, clock_);
    channel_ = RealtimeChannel::create(platform_, clock_);
    captureConsent_ = CaptureConsentFlow::create(
        {.platform = platform_,
         .clock = clock_,
         .prompt = prompt_,
         .showSessionBanner = [banner = sessionBanner_](
                                  HostHandle window,
                                  double expiresAt) { banner->show(window, expiresAt); },
         .callAllowed = [banner = sessionBanner_] { return banner->countingDown(); }},
        *this);
    if (platform_->overlay && platform_->host) {
        overlay_ = LiveOverlay::create(
            {platform_->overlay, platform_->host, platform_->actions.reader, clock_});
    }
    live_ = LiveSessionFlow::create(
        {.platform = platform_,
         .clock = clock_,
         .prompt = prompt_,
         .overlay = overlay_,
         .sendText =
             [channel = std::weak_ptr<RealtimeChannel>(channel_)](const std::string& text) {
                 if (auto live = channel.lock()) live->send(text);
             },
         // The lease is made below; both live and die with this client.
         .onStopped =
             [this] {
                 if (lease_) lease_->endLocally();
             },
         .onVisibleStateCheck =
             [this](const std::string& sessionId) {
                 if (lease_) lease_->visibleStateCheck(sessionId);
             }},
        *this);
    lease_ = ControlLease::create(
        {.platform = platform_, .prompt = prompt_, .overlay = overlay_, .live = live_}, *this);
    intake_ = ControlIntake::create({.platform = platform_,
                                     .prompt = prompt_,
                                     .live = live_,
                                     .lease = lease_,
                                     .route = std::move(options.applyInput)},
                                    *this);
    health_ = HealthReporter::create(platform_, *this);
    router_ = std::make_shared<FlowRouter>(captureConsent_, live_, lease_, intake_);
}

VirelaClient::~VirelaClient() {
    removeObservers();
}

WindowRegistry& VirelaClient::windows() {
    VIRELA_ASSERT_MAIN(*platform_->main, "VirelaClient::windows");
    if (!windows_) {
        if (!platform_->host) fatalPrecondition("the platform has no host interface");
        windows_ = std::make_unique<WindowRegistry>(platform_->host);
    }
    return *windows_;
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
    VIRELA_ASSERT_MAIN(*platform_->main, "VirelaClient::configure");
    stopped_ = false;
    ++epoch_;
    // The transport is replaced at once, so that identify and reset work while the
    // registration is on its way. A base URL it cannot send to fails the registration below.
    auto attempt = std::make_shared<Attempt>(
        Attempt{++configuresStarted_, transportFactory_(baseUrl, key), std::move(done)});
    transport_ = attempt->transport;

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
    DeviceHealth(platform_).collect(
        [weak, attempt, user, facts = std::move(facts)](DeviceHealthSnapshot health) mutable {
            if (!weak.lock()) return;
            facts.health = std::move(health);
            attempt->transport->postJson(kDevicesPath, registrationBody(user, facts), true,
                                         [weak, attempt](const SendResult& result) {
                                             if (auto client = weak.lock()) {
                                                 client->finishRegistration(attempt, result);
                                             }
                                         });
        });
}

void VirelaClient::finishRegistration(const std::shared_ptr<Attempt>& attempt,
                                      const SendResult& result) {
    std::exception_ptr failure = result.error;
    std::optional<RegisterResult> registration;
    if (!failure) {
        try {
            registration = RegisterResult::decode(result.body);
        } catch (const DecodingError&) {
            failure = std::current_exception();
        }
    }
    if (failure) {
        attempt->done(failure);
        return;
    }
    // A reply older than the one applied would only take the client back.
    if (attempt->number > configureApplied_) {
        configureApplied_ = attempt->number;
        // The transport stays the newest configure's: a configure still on its way replaced it.
        attempt->transport->setDeviceToken(registration->deviceToken);
        const std::string deviceToken = registration->deviceToken;
        setRegistration(std::move(registration));
        // After stop() the registration is kept, but nothing is brought up until the next
        // configure.
        if (!stopped_) {
            installObservers();
            health_->start();
            channel_->start(attempt->transport->baseUrl(), deviceToken);
        }
    }
    attempt->done(nullptr);
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
    // The device starts over for a new customer: nothing the last one allowed carries on.
    const std::uint64_t epoch = ++epoch_;
    endCallsSoon();
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    transport_->postJson(kResetPath, {}, false,
                         [weak, epoch, done = std::move(done)](const SendResult& result) {
                             auto self = weak.lock();
                             // A newer configure, reset or stop has the last word on the code.
                             if (self && self->epoch_ == epoch && result && self->registration_) {
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
    VIRELA_ASSERT_MAIN(*platform_->main, "VirelaClient::stop");
    stopped_ = true;
    ++epoch_;
    removeObservers();
    health_->stop();
    channel_->stop();
    endCallsSoon();
}

void VirelaClient::endCallsSoon() {
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    platform_->main->post([weak] {
        auto self = weak.lock();
        if (!self) return;
        self->captureConsent_->close();
        self->live_->endLocally();
        self->sessionBanner_->hide();
    });
}

void VirelaClient::showSupportCode() {
    captureConsent_->showSupportCode();
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
}

void VirelaClient::removeObservers() {
    backgroundObserver_.reset();
    foregroundObserver_.reset();
}

void VirelaClient::onEnterBackground() {
    channel_->onEnterBackground();
}

void VirelaClient::onEnterForeground() {
    if (stopped_) return;
    if (std::optional<ControlPush> held = lease_->takePending()) {
        std::weak_ptr<VirelaClient> weak = weak_from_this();
        platform_->main->post([weak, held = std::move(*held)] {
            if (auto self = weak.lock()) self->router_->control(held);
        });
    }
    channel_->onEnterForeground();
}

void VirelaClient::setRouter(std::shared_ptr<PushRouter> router) {
    router_ = router ? std::move(router)
                     : std::make_shared<FlowRouter>(captureConsent_, live_, lease_, intake_);
}

void VirelaClient::route(Push push) {
    struct Visitor {
        VirelaClient& client;
        PushRouter& router;
        void operator()(const ConsentPush& p) const { router.consent(p); }
        void operator()(const CapturePush& p) const { router.capture(p); }
        void operator()(const LivePush& p) const { router.live(p); }
        void operator()(const LiveNotePush& p) const { router.liveNote(p); }
        void operator()(const GuidePush& p) const { router.guide(p); }
        void operator()(const ControlPush& p) const { router.control(p); }
        void operator()(const ControlInputPush& p) const { router.controlInput(p); }
        void operator()(const SessionPush& p) const {
            if (p.state == "ended") client.sessionBanner_->hide();
        }
        void operator()(const ExpiredPush&) const { client.captureConsent_->handleExpired(); }
        void operator()(const DeniedPush&) const { client.captureConsent_->handleDenied(); }
    };
    auto router = router_;  // a handler may replace the router
    std::visit(Visitor{*this, *router}, push);
}

}  // namespace virela
