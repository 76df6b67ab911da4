#pragma once

// A FlowContext of a test's own, so that one flow can be built and driven without the client:
// a registered device on https://backend.test over the fake platform's HTTP client, the host's
// callbacks as a plain member, and stop() to end the epoch the way the client's stop() does.

#include <memory>
#include <optional>

#include "core/base/records.hpp"
#include "core/control/windows.hpp"
#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/device_records.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela::testing {

class TestFlowContext final : public FlowContext {
  public:
    explicit TestFlowContext(const FakePlatform& fake)
        : host_(fake.platform->host),
          transport_(std::make_shared<Transport>(*Url::parse("https://backend.test"), "key",
                                                 fake.platform->http, fake.platform->main)),
          prompt_(ConsentPrompt::create(fake.platform->prompts, fake.platform->http,
                                        fake.platform->main)) {
        registration_ = RegisterResult::decode(kRegisteredReply);
        transport_->setDeviceToken(registration_->deviceToken);
    }

    std::shared_ptr<Transport> transport() const override { return transport_; }
    ConsentPrompt& prompt() override { return *prompt_; }
    const VirelaCallbacks& callbacks() const override { return hostCallbacks; }
    const RegisterResult* registration() const override {
        return registration_ ? &*registration_ : nullptr;
    }
    WindowRegistry& windows() override {
        if (!windows_) windows_ = std::make_unique<WindowRegistry>(host_);
        return *windows_;
    }
    std::uint64_t epoch() const override { return epoch_; }
    bool isCurrent(std::uint64_t epoch) const override { return !stopped_ && epoch == epoch_; }

    void stop() {
        stopped_ = true;
        ++epoch_;
    }

    VirelaCallbacks hostCallbacks;

  private:
    std::shared_ptr<HostInterface> host_;
    std::shared_ptr<Transport> transport_;
    std::shared_ptr<ConsentPrompt> prompt_;
    std::optional<RegisterResult> registration_;
    std::unique_ptr<WindowRegistry> windows_;
    std::uint64_t epoch_ = 1;
    bool stopped_ = false;
};

}  // namespace virela::testing
