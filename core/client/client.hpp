#pragma once

// The client composes the flows and owns what they share: the transport of the latest
// configure, the stored registration, the host's callbacks and the window registry. It runs
// the lifecycle (configure, identify, reset, stop) and hands each push to the flow that owns it.
//
// Flows: the realtime channel, the capture consent flow, the live session, the control lease
// with its input intake, and the health reporter. Each is a class of its own in its subsystem,
// made in the constructor with the parts it needs and this client as its FlowContext.
//
// Confined to the main executor: every member function except supportCode() runs there.

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/base/records.hpp"
#include "core/client/push_router.hpp"
#include "core/registration/registration_body.hpp"
#include "core/consent/capture_consent_flow.hpp"
#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/health/health_reporter.hpp"
#include "core/lease/control_intake.hpp"
#include "core/lease/control_lease.hpp"
#include "core/live/live_overlay.hpp"
#include "core/live/live_session.hpp"
#include "core/consent/session_banner.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/platform.hpp"
#include "core/transport/realtime_channel.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class WindowRegistry;

class VirelaClient final : public std::enable_shared_from_this<VirelaClient>, public FlowContext {
  public:
    using TransportFactory =
        std::function<std::shared_ptr<Transport>(const Url& baseUrl, const std::string& apiKey)>;
    using Completion = std::function<void(std::exception_ptr)>;

    struct Options {
        std::shared_ptr<VirelaClock> clock;  // SystemClock over the platform's main executor
        TransportFactory transportFactory;   // a Transport over the platform's HTTP client
        ControlIntake::Route applyInput;     // the input engine; tests watch input land here
    };

    static std::shared_ptr<VirelaClient> create(std::shared_ptr<const Platform> platform,
                                                Options options = {});
    ~VirelaClient() override;
    VirelaClient(const VirelaClient&) = delete;
    VirelaClient& operator=(const VirelaClient&) = delete;

    // Registers the device and brings the client up. `done` receives nullptr on success or the
    // failure (VirelaError, NetworkError, DecodingError, SerializationError); it runs on the
    // main executor. The transport is replaced at once; a failure changes nothing else: the
    // last good registration and its socket stay. Configures may overlap: each reports its own
    // outcome, and a registration is applied unless a later configure's was applied first.
    void configure(const Url& baseUrl, const std::string& key,
                   const std::optional<VirelaUser>& user, bool collectVendorId, Completion done);
    // Fire and forget; failures are swallowed. `done`, if given, runs on the main executor once
    // the exchange is over. Stops the process when configure never created a transport.
    void identify(const std::string& id, const std::optional<std::string>& name,
                  const std::optional<std::string>& phone, std::function<void()> done = {});
    void reset(std::function<void()> done = {});
    void stop();

    // Safe from any thread.
    std::optional<std::string> supportCode() const;

    void setCallbacks(VirelaCallbacks callbacks) { callbacks_ = std::move(callbacks); }
    // Puts the support-code sheet over the app's window.
    void showSupportCode();

    // The application-state handlers the lifecycle observers run.
    void onEnterBackground();
    void onEnterForeground();
    // A control request held back while in the background; replayed on the next foreground.
    void holdControlRequest(ControlPush push) { lease_->hold(std::move(push)); }

    // Replaces the router (null restores the client's own, which feeds the flows).
    void setRouter(std::shared_ptr<PushRouter> router);

    // FlowContext
    std::shared_ptr<Transport> transport() const override { return transport_; }
    const RegisterResult* registration() const override {
        return registration_ ? &*registration_ : nullptr;
    }
    const VirelaCallbacks& callbacks() const override { return callbacks_; }
    WindowRegistry& windows() override;
    std::uint64_t epoch() const override { return epoch_; }
    bool isCurrent(std::uint64_t epoch) const override { return !stopped_ && epoch == epoch_; }

    RealtimeChannel& channel() const noexcept { return *channel_; }
    ConsentPrompt& prompt() const noexcept { return *prompt_; }
    SessionBanner& sessionBanner() const noexcept { return *sessionBanner_; }
    LiveSessionFlow& liveSession() const noexcept { return *live_; }
    ControlLease& controlLease() const noexcept { return *lease_; }
    const Platform& platform() const noexcept { return *platform_; }

    // The install identifier for `key`, created and stored on first use.
    std::string installId(const std::string& key);

  private:
    VirelaClient(std::shared_ptr<const Platform> platform, Options options);

    struct Attempt;
    void finishRegistration(const std::shared_ptr<Attempt>& attempt, const SendResult& result);
    void setRegistration(std::optional<RegisterResult> registration);
    void installObservers();
    void removeObservers();
    // Takes down, in a later turn of the main executor, what the customer was shown for the
    // calls so far: the sheet, the session banner and a live session.
    void endCallsSoon();
    void route(Push push);

    std::shared_ptr<const Platform> platform_;
    std::shared_ptr<VirelaClock> clock_;
    TransportFactory transportFactory_;

    // Session state.
    std::shared_ptr<Transport> transport_;
    std::optional<RegisterResult> registration_;
    bool stopped_ = false;
    std::uint64_t epoch_ = 0;
    VirelaCallbacks callbacks_;
    std::unique_ptr<Subscription> backgroundObserver_;
    std::unique_ptr<Subscription> foregroundObserver_;

    // Configures are numbered; a reply older than the one applied is not applied.
    std::uint64_t configuresStarted_ = 0;
    std::uint64_t configureApplied_ = 0;

    // What the flows share, and the flows.
    std::shared_ptr<ConsentPrompt> prompt_;
    std::shared_ptr<SessionBanner> sessionBanner_;
    std::unique_ptr<WindowRegistry> windows_;
    std::shared_ptr<RealtimeChannel> channel_;
    std::shared_ptr<CaptureConsentFlow> captureConsent_;
    std::shared_ptr<LiveOverlay> overlay_;  // null without an overlay presenter
    std::shared_ptr<LiveSessionFlow> live_;
    std::shared_ptr<ControlLease> lease_;
    std::shared_ptr<ControlIntake> intake_;
    std::shared_ptr<HealthReporter> health_;
    std::shared_ptr<PushRouter> router_;

    // supportCode() may be asked from any thread, so the code is mirrored under a lock.
    mutable std::mutex supportCodeMutex_;
    std::optional<std::string> supportCodeMirror_;
};

}  // namespace virela
