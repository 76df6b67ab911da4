#include "core/client/client.hpp"

#include "core/consent/capture_consent_flow.hpp"
#include "core/control/windows.hpp"
#include "core/flow/consent_prompt.hpp"
#include "core/health/health_reporter.hpp"
#include "core/live/live_overlay.hpp"
#include "core/live/live_session.hpp"
#include "core/ports/fatal.hpp"

namespace virela {

std::shared_ptr<VirelaClient> VirelaClient::create(std::shared_ptr<const Platform> platform,
                                                   Options options) {
    auto client =
        std::shared_ptr<VirelaClient>(new VirelaClient(std::move(platform), std::move(options)));
    std::weak_ptr<VirelaClient> weak = client;
    client->channel_->setPushHandler([weak](const Push& push) {
        if (auto self = weak.lock()) self->route(push);
    });
    return client;
}

VirelaClient::VirelaClient(std::shared_ptr<const Platform> platform, Options options)
    : platform_(std::move(platform)), clock_(std::move(options.clock)) {
    const Platform& p = *platform_;
    if (!clock_) clock_ = std::make_shared<SystemClock>(p.main);
    prompt_ = ConsentPrompt::create(p.prompts, p.http, p.main);
    // The flows hold this client by reference; they live and die with it.
    registration_ = RegistrationFlow::create(
        {p.main, p.defaults, p.device, p.http, DeviceHealth(HealthPorts::of(p)),
         std::move(options.transportFactory),
         [this](const Transport& transport, const RegisterResult& registration) {
             bringUp(transport, registration);
         }});
    channel_ = RealtimeChannel::create(platform_, clock_);
    consent_ =
        CaptureConsentFlow::create({p.main, p.log, p.host, p.renderer, clock_, p.banner}, *this);
    std::shared_ptr<LiveOverlay> overlay;  // none without an overlay presenter: no sharing
    if (p.overlay && p.host) overlay = LiveOverlay::create({p.overlay, p.host, p.actions.reader, clock_});
    auto sendText = [weak = std::weak_ptr(channel_)](const std::string& text) {
        if (auto channel = weak.lock()) channel->send(text);
    };
    live_ = LiveSessionFlow::create(
        {p.main, p.log, p.host, p.actions, p.renderer, p.lifecycle, clock_, std::move(overlay),
         std::move(sendText), std::move(options.applyInput)},
        *this);
    health_ = HealthReporter::create(HealthPorts::of(p), *this);
}

VirelaClient::~VirelaClient() = default;

namespace {
template <class... Handler>
struct RoutingTable : Handler... {
    using Handler::operator()...;
};
// Older compilers deduce no aggregate's arguments on their own.
template <class... Handler>
RoutingTable(Handler...) -> RoutingTable<Handler...>;
}  // namespace

// Each push to the flow that owns it. Every push type has its line: a new type that is missing
// here does not compile.
void VirelaClient::route(const Push& push) {
    std::visit(RoutingTable{
                   [this](const ConsentPush& p) { consent_->handleConsent(p); },
                   [this](const CapturePush& p) { consent_->handleCapture(p); },
                   [this](const ExpiredPush&) { consent_->handleExpired(); },
                   [this](const DeniedPush&) { consent_->handleDenied(); },
                   [this](const SessionPush& p) { consent_->handleSession(p); },
                   [this](const LivePush& p) { live_->handleLive(p); },
                   [this](const LiveNotePush& p) { live_->handleNote(p); },
                   [this](const GuidePush& p) { live_->handleGuide(p); },
                   [this](const ControlPush& p) { live_->handleControl(p); },
                   [this](const ControlInputPush& p) { live_->handleInput(p); },
               },
               push);
}

WindowRegistry& VirelaClient::windows() {
    VIRELA_ASSERT_MAIN(*platform_->main, "VirelaClient::windows");
    if (!windows_) {
        if (!platform_->host) fatalPrecondition("the platform has no host interface");
        windows_ = std::make_unique<WindowRegistry>(platform_->host);
    }
    return *windows_;
}

void VirelaClient::configure(const Url& baseUrl, const std::string& key,
                             const std::optional<VirelaUser>& user, bool collectVendorId,
                             RegistrationFlow::Completion done) {
    registration_->configure(baseUrl, key, user, collectVendorId, std::move(done));
}

void VirelaClient::bringUp(const Transport& transport, const RegisterResult& registration) {
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    observers_.clear();
    observers_.push_back(platform_->lifecycle->observe(AppEvent::didEnterBackground, [weak] {
        if (auto self = weak.lock()) self->channel_->onEnterBackground();
    }));
    observers_.push_back(platform_->lifecycle->observe(AppEvent::willEnterForeground, [weak] {
        if (auto self = weak.lock(); self && !self->registration_->stopped()) {
            self->live_->onEnterForeground();  // a control request held in the background
            self->channel_->onEnterForeground();
        }
    }));
    health_->start();
    channel_->start(transport.baseUrl(), registration.deviceToken);
}

void VirelaClient::identify(const std::string& id, const std::optional<std::string>& name,
                            const std::optional<std::string>& phone, std::function<void()> done) {
    registration_->identify(id, name, phone, std::move(done));
}

void VirelaClient::reset(std::function<void()> done) {
    registration_->reset(std::move(done));
    endCallsSoon();
}

void VirelaClient::stop() {
    VIRELA_ASSERT_MAIN(*platform_->main, "VirelaClient::stop");
    registration_->stop();
    observers_.clear();
    health_->stop();
    channel_->stop();
    endCallsSoon();
}

void VirelaClient::endCallsSoon() {
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    platform_->main->post([weak] {
        auto self = weak.lock();
        if (!self) return;
        self->consent_->close();
        self->live_->endLocally();
        self->consent_->endCall();
    });
}

void VirelaClient::showSupportCode() {
    consent_->showSupportCode();
}

}  // namespace virela
