#pragma once

// Remote control of the host app within a live session, under a lease that the backend grants
// and numbers by generation. It fails closed: control is armed only with a generation and the
// control banner really on screen, only then confirmed to the backend, and re-confirmed every
// 10 seconds while the banner stays. Whatever is missing leaves control unarmed and says so in
// the log; the backend, lacking a confirmation, drops every input. The live session that owns
// the lease hands it only the control pushes of its own session. Main executor only.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/ports/executor.hpp"
#include "core/ports/log.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class FlowContext;
class HostInterface;
class IndicatorConfirmations;

// The control sheet's copy when the push carries none.
inline constexpr std::string_view controlDefaultConsentCopy =
    "Support wants to tap, scroll, and type in {company} to help fix your issue. You’ll watch "
    "it happen and can take back control at any time. Fields with sensitive data stay locked.";

// The banner that tells the customer an agent is in control, with its "Take back control".
class ControlBanner {
  public:
    virtual ~ControlBanner() = default;
    // True only once the banner is really on screen.
    virtual bool showControlBanner(std::function<void()> onTakeBack) = 0;
    virtual void hideControlBanner() = 0;
    virtual bool isShowingControlBanner() const = 0;
};

class ControlLease : public std::enable_shared_from_this<ControlLease> {
  public:
    struct Parts {
        std::shared_ptr<MainExecutor> main;
        std::shared_ptr<Log> log;
        std::shared_ptr<HostInterface> host;
        // Empty on a platform without an overlay: control then never arms, for want of a
        // banner.
        std::shared_ptr<ControlBanner> banner;
        // The session's confirmations; control confirms its own kind through them.
        std::shared_ptr<IndicatorConfirmations> indicators;
    };
    // `context` outlives the lease.
    static std::shared_ptr<ControlLease> create(Parts parts, FlowContext& context);
    ControlLease(const ControlLease&) = delete;
    ControlLease& operator=(const ControlLease&) = delete;

    // A control push for the live session running now.
    void handleControl(const ControlPush& push);
    // The one teardown: the generation and any held request are dropped, the control sheet and
    // the banner come down, and onRemoteControl(false) is called when control was active.
    void endLocally();
    // The banner's "Take back control".
    void takeBack();
    // The control part of the 10-second check, run while `sessionId` is still shared.
    void visibleStateCheck(const std::string& sessionId);

    // A request that arrived while the app had no window, handed over once to be asked again
    // on the next foreground.
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
    std::optional<std::string> sessionId_;  // the session whose control was last asked or armed
    std::optional<std::string> generation_;
    std::optional<ControlPush> pending_;
};

}  // namespace virela
