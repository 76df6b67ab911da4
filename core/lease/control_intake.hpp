#pragma once

// The one way a remote input reaches the host app. Each input is judged against the state at
// the moment it arrives (the lease, the live session, a window to act on, a prompt of ours on
// screen) and, when nothing stops it, handed to the input engine; a menu that opened or a menu
// item that could not run is reported to the agent's console. Drops are only logged, never
// answered. Holds no state of its own. Main executor only.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/flow/consent_prompt.hpp"
#include "core/control/input_engine.hpp"
#include "core/flow/flow_context.hpp"
#include "core/lease/control_lease.hpp"
#include "core/live/live_session.hpp"
#include "core/ports/platform.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class ControlIntake : public std::enable_shared_from_this<ControlIntake> {
  public:
    // Applies one input that passed every rule to `target`, the active window.
    using Route = std::function<ControlOutcome(const ControlInputPush&, const WindowFacts& target)>;

    struct Parts {
        std::shared_ptr<const Platform> platform;
        std::shared_ptr<ConsentPrompt> prompt;
        std::shared_ptr<LiveSessionFlow> live;
        std::shared_ptr<ControlLease> lease;
        // Empty: the input engine over the platform's host, actions and log. Tests put their
        // own here to see which inputs would land.
        Route route;
    };
    // `context` is the client that owns the intake and outlives it.
    static std::shared_ptr<ControlIntake> create(Parts parts, FlowContext& context);
    ~ControlIntake();
    ControlIntake(const ControlIntake&) = delete;
    ControlIntake& operator=(const ControlIntake&) = delete;

    void handleInput(const ControlInputPush& input);

  private:
    ControlIntake(Parts parts, FlowContext& context);

    ControlOutcome apply(const ControlInputPush& input, const WindowFacts& target);
    void sendFeedback(const std::string& sessionId, std::string_view kind);
    void log(LogLevel level, const std::string& line) const;

    Parts parts_;
    FlowContext& context_;
    std::unique_ptr<InputEngine> engine_;  // made on the first input that lands
};

}  // namespace virela
