#pragma once

// The client composes the flows and owns what they share: the consent prompt, the host's
// callbacks and the window registry. It hands each decoded push to the flow that owns it and
// runs the application-state observers; the flows do the rest.
//
// Confined to the main executor: every member function except supportCode() runs there.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/base/records.hpp"
#include "core/flow/flow_context.hpp"
#include "core/lease/control_intake.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/platform.hpp"
#include "core/registration/registration_flow.hpp"
#include "core/transport/realtime_channel.hpp"

namespace virela {

class CaptureConsentFlow;
class ConsentPrompt;
class HealthReporter;
class LiveSessionFlow;

class VirelaClient final : public std::enable_shared_from_this<VirelaClient>, public FlowContext {
  public:
    struct Options {
        std::shared_ptr<VirelaClock> clock;  // SystemClock over the platform's main executor
        RegistrationFlow::TransportFactory transportFactory;  // over the platform's HTTP client
        ControlIntake::Route applyInput;  // the input engine; tests watch input land here
    };

    static std::shared_ptr<VirelaClient> create(std::shared_ptr<const Platform> platform,
                                                Options options = {});
    ~VirelaClient() override;
    VirelaClient(const VirelaClient&) = delete;
    VirelaClient& operator=(const VirelaClient&) = delete;

    // Registers the device and brings the client up; `done` receives nullptr or the failure
    // (VirelaError, NetworkError, DecodingError, SerializationError) on the main executor.
    void configure(const Url& baseUrl, const std::string& key,
                   const std::optional<VirelaUser>& user, bool collectVendorId,
                   RegistrationFlow::Completion done);
    // Fire and forget; `done`, if given, runs on the main executor once the exchange is over.
    void identify(const std::string& id, const std::optional<std::string>& name,
                  const std::optional<std::string>& phone, std::function<void()> done = {});
    // The device starts over for a new customer: nothing the last one allowed carries on.
    void reset(std::function<void()> done = {});
    void stop();

    // Safe from any thread.
    std::optional<std::string> supportCode() const { return registration_->supportCode(); }
    // The install identifier for `key`, created and stored on first use.
    std::string installId(const std::string& key) { return registration_->installId(key); }

    void setCallbacks(VirelaCallbacks callbacks) { callbacks_ = std::move(callbacks); }
    // Puts the support-code sheet over the app's window.
    void showSupportCode();

    // FlowContext
    std::shared_ptr<Transport> transport() const override { return registration_->transport(); }
    const VirelaCallbacks& callbacks() const override { return callbacks_; }
    const RegisterResult* registration() const override { return registration_->registration(); }
    WindowRegistry& windows() override;
    std::uint64_t epoch() const override { return registration_->epoch(); }
    bool isCurrent(std::uint64_t epoch) const override { return registration_->isCurrent(epoch); }

    RealtimeChannel& channel() const noexcept { return *channel_; }
    const Platform& platform() const noexcept { return *platform_; }

  private:
    VirelaClient(std::shared_ptr<const Platform> platform, Options options);

    // The flows' own: nothing outside them answers or reads the customer's sheet.
    ConsentPrompt& prompt() override { return *prompt_; }

    void bringUp(const Transport& transport, const RegisterResult& registration);
    // Takes down, in a later turn of the main executor, what the customer was shown for the
    // calls so far: the sheet, a live session and the session banner.
    void endCallsSoon();
    void route(const Push& push);

    std::shared_ptr<const Platform> platform_;
    std::shared_ptr<VirelaClock> clock_;
    VirelaCallbacks callbacks_;
    std::vector<std::unique_ptr<Subscription>> observers_;  // of the app's state, while up

    // What the flows share, and the flows.
    std::shared_ptr<ConsentPrompt> prompt_;
    std::unique_ptr<WindowRegistry> windows_;
    std::shared_ptr<RegistrationFlow> registration_;
    std::shared_ptr<RealtimeChannel> channel_;
    std::shared_ptr<CaptureConsentFlow> consent_;
    std::shared_ptr<LiveSessionFlow> live_;
    std::shared_ptr<HealthReporter> health_;
};

}  // namespace virela
