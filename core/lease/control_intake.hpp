#pragma once

// The one way a remote input reaches the host app. Each input is judged against the state at
// the moment it arrives (the lease, the live session, a window to act on, a prompt of ours on
// screen) and, when nothing stops it, handed to the input engine; a menu that opened or a menu
// item that could not run is reported to the agent's console. Drops are only logged, never
// answered. Main executor only.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/control/input_engine.hpp"
#include "core/lease/control_lease.hpp"
#include "core/ports/log.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class FlowContext;

class ControlIntake : public std::enable_shared_from_this<ControlIntake> {
  public:
    // Applies one input that passed every rule to `target`, the active window.
    using Route = std::function<ControlOutcome(const ControlInputPush&, const WindowFacts& target)>;

    struct Parts {
        std::shared_ptr<MainExecutor> main;
        std::shared_ptr<Log> log;
        std::shared_ptr<HostInterface> host;
        HostActions actions;
        std::shared_ptr<ControlLease> lease;
        // Empty: the input engine over the platform's host, actions and log. Tests put their
        // own here to see which inputs would land.
        Route route;
    };
    // `context` outlives the intake.
    static std::shared_ptr<ControlIntake> create(Parts parts, FlowContext& context);
    ~ControlIntake();
    ControlIntake(const ControlIntake&) = delete;
    ControlIntake& operator=(const ControlIntake&) = delete;

    // One input, judged against the live session running now (none: `liveSession` is empty).
    void handleInput(const ControlInputPush& input, const std::optional<std::string>& liveSession);

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
