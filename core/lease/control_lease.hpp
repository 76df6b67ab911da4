#pragma once

// Remote control of the host app within a live session, under a lease that the backend grants
// and numbers by generation. It fails closed: control is armed only with a generation and the
// control banner really on screen, only then confirmed to the backend, and re-confirmed every
// 10 seconds while the banner stays. Whatever is missing leaves control unarmed and says so in
// the log; the backend, lacking a confirmation, drops every input. Main executor only.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/live/live_overlay.hpp"
#include "core/live/live_session.hpp"
#include "core/ports/platform.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

// The control sheet's copy when the push carries none.
inline constexpr std::string_view controlDefaultConsentCopy =
    "Support wants to tap, scroll, and type in {company} to help fix your issue. You’ll watch "
    "it happen and can take back control at any time. Fields with sensitive data stay locked.";

class ControlLease : public std::enable_shared_from_this<ControlLease> {
  public:
    struct Parts {
        std::shared_ptr<const Platform> platform;
        std::shared_ptr<ConsentPrompt> prompt;
        // Empty on a platform without an overlay: control then never arms, for want of a
        // banner.
        std::shared_ptr<LiveOverlay> overlay;
        // The live session control belongs to; its confirmations carry the control kind too.
        std::shared_ptr<LiveSessionFlow> live;
    };
    // `context` is the client that owns the lease and outlives it.
    static std::shared_ptr<ControlLease> create(Parts parts, FlowContext& context);
    ControlLease(const ControlLease&) = delete;
    ControlLease& operator=(const ControlLease&) = delete;

    void handleControl(const ControlPush& push);
    // The one teardown: the generation and any held request are dropped, the control sheet and
    // the banner come down, and onRemoteControl(false) is called when control was active.
    void endLocally();
    // The banner's "Take back control".
    void takeBack();
    // The control part of the 10-second check, run while `sessionId` is still shared.
    void visibleStateCheck(const std::string& sessionId);

    // A request that arrived while the app had no window; replayed on the next foreground.
    void hold(ControlPush push) { pending_ = std::move(push); }
    std::optional<ControlPush> takePending();

    bool active() const noexcept { return active_; }
    const std::optional<std::string>& generation() const noexcept { return generation_; }
    const std::optional<ControlPush>& pending() const noexcept { return pending_; }
    // Whether remote input may land now: armed, a generation held, and the banner still on
    // screen. A banner lost between two checks already stops input, not only the next check.
    bool mayApplyInput() const;

  private:
    ControlLease(Parts parts, FlowContext& context);

    void ask(const ControlPush& push);
    void answer(const ControlPush& push, bool allow);
    void arm(const std::string& sessionId);
    void log(LogLevel level, const std::string& line) const;

    Parts parts_;
    FlowContext& context_;
    bool active_ = false;
    std::optional<std::string> generation_;
    std::optional<ControlPush> pending_;
};

}  // namespace virela
