#include "core/lease/control_lease.hpp"

#include "core/base/json.hpp"
#include "core/base/records.hpp"
#include "core/control/windows.hpp"
#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/flow/indicator_confirmations.hpp"
#include "core/flow/sheets.hpp"
#include "core/ports/fatal.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

std::shared_ptr<ControlLease> ControlLease::create(Parts parts, FlowContext& context) {
    return std::shared_ptr<ControlLease>(new ControlLease(std::move(parts), context));
}

ControlLease::ControlLease(Parts parts, FlowContext& context)
    : parts_(std::move(parts)), context_(context) {}

void ControlLease::handleControl(const ControlPush& push) {
    VIRELA_ASSERT_MAIN(*parts_.main, "ControlLease::handleControl");
    sessionId_ = push.sessionId;
    switch (push.state) {
        case LiveState::requested:
            ask(push);
            return;
        case LiveState::active:
            // Replaced on every grant, also by none: the next check confirms what is held now.
            generation_ = push.generation;
            arm(push.sessionId);
            return;
        case LiveState::ended:
            endLocally();
            return;
    }
}

void ControlLease::ask(const ControlPush& push) {
    if (!context_.registration()) return;
    const auto& host = parts_.host;
    const std::optional<WindowFacts> window = host ? findCaptureWindow(*host) : std::nullopt;
    if (!window) {
        // Shown when the app comes back to the foreground.
        pending_ = push;
        return;
    }
    pending_.reset();
    context_.prompt().dismiss();
    // Unlike screenshot and live requests, a control request calls no onRequestShown, arms no
    // expiry and reports no prompt shown; the asymmetry is intended.
    const ConsentSheet sheet =
        makeControlSheet(push.consentCopy.value_or(std::string(controlDefaultConsentCopy)),
                         push.agentName, push.workspaceName, push.logoUrl);
    std::weak_ptr<ControlLease> weak = weak_from_this();
    context_.prompt().showConsent(window->handle, sheet, ConsentPrompt::Showing::control,
                                  [weak, push](ConsentPrompt::Choice choice) {
                                      if (auto self = weak.lock()) {
                                          self->answer(push,
                                                       choice == ConsentPrompt::Choice::allow);
                                      }
                                  });
}

void ControlLease::answer(const ControlPush& push, bool allow) {
    auto transport = context_.transport();
    if (!transport) fatalPrecondition("a control answer needs the transport that configure made");
    std::optional<nlohmann::json> requestId;
    if (push.requestId) requestId = *push.requestId;
    std::weak_ptr<ControlLease> weak = weak_from_this();
    // An allowed answer needs nothing further: the backend grants with an "active" push.
    transport->postJson(paths::live(push.sessionId, "/control/respond"),
                        {{"allow", allow}, {"requestId", requestId}}, false,
                        [weak, epoch = context_.epoch()](const SendResult& result) {
                            auto self = weak.lock();
                            if (!self || result || !self->context_.isCurrent(epoch)) return;
                            if (const auto& onError = self->context_.callbacks().onError)
                                onError(result.error);
                        });
}

void ControlLease::arm(const std::string& sessionId) {
    if (active_) return;  // a renewed grant is confirmed by the next check, not re-armed
    if (!generation_) {
        log(LogLevel::error,
            "control 'active' arrived without a generation — the grant cannot be confirmed; the "
            "banner stays down and the backend will refuse every tap");
        return;
    }
    std::weak_ptr<ControlLease> weak = weak_from_this();
    const bool attached = parts_.banner && parts_.banner->showControlBanner([weak] {
        if (auto self = weak.lock()) self->takeBack();
    });
    if (!attached) {
        log(LogLevel::error,
            "control banner FAILED to attach — control not armed, no confirmation sent; the "
            "backend will drop every tap (this is the fail-closed door)");
        if (parts_.banner) parts_.banner->hideControlBanner();  // whatever half got up
        return;
    }
    active_ = true;
    log(LogLevel::info,
        "control armed (generation " + *generation_ + ") — banner attached, confirming the lease");
    parts_.indicators->confirm(sessionId, "control", *generation_);
    if (const auto& onRemoteControl = context_.callbacks().onRemoteControl) onRemoteControl(true);
}

void ControlLease::endLocally() {
    sessionId_.reset();
    generation_.reset();
    pending_.reset();
    if (context_.prompt().showing() == ConsentPrompt::Showing::control) context_.prompt().dismiss();
    if (parts_.banner) parts_.banner->hideControlBanner();
    if (!active_) return;  // ending control that never armed is silent
    active_ = false;
    if (const auto& onRemoteControl = context_.callbacks().onRemoteControl) onRemoteControl(false);
}

void ControlLease::takeBack() {
    const std::optional<std::string> sessionId = sessionId_;
    endLocally();
    auto transport = context_.transport();
    if (!sessionId || !transport) return;
    // Control has already ended here, so the outcome does not matter.
    transport->postJson(paths::live(*sessionId, "/control/respond"), {{"allow", false}}, false,
                        [](const SendResult&) {});
}

void ControlLease::visibleStateCheck(const std::string& sessionId) {
    if (!active_ || !generation_) return;
    if (parts_.banner && parts_.banner->isShowingControlBanner()) {
        parts_.indicators->confirm(sessionId, "control", *generation_);
        return;
    }
    log(LogLevel::error,
        "control banner no longer attached — ending control locally; the backend lease lapses "
        "and taps stop landing");
    endLocally();
}

std::optional<ControlPush> ControlLease::takePending() {
    std::optional<ControlPush> held = std::move(pending_);
    pending_.reset();
    return held;
}

bool ControlLease::mayApplyInput() const {
    return active_ && generation_ && parts_.banner && parts_.banner->isShowingControlBanner();
}

void ControlLease::log(LogLevel level, const std::string& line) const {
    if (parts_.log) parts_.log->write(level, line);
}

}  // namespace virela
