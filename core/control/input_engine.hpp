#pragma once

// What a remote "scroll", "tap", "type" or "key" does to the host app. None of them is a
// synthesised touch or key event: the engine finds what lies under the point, or what holds the
// keyboard focus, and asks it to act through the host-action roles. It never acts on a redacted
// view or a secure field. Whether an input may be applied at all (the lease, the session, a
// prompt on screen) is decided before it gets here. Main thread only.

#include <memory>

#include "core/ports/host.hpp"
#include "core/ports/host_actions.hpp"
#include "core/ports/log.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class WindowRegistry;
namespace input {
struct Context;
}

// What the agent's console is told after an input: nothing, a menu opened, or a tap that met a
// menu item it could not run.
enum class ControlOutcome { none, menuOpened, menuItemInert };

class InputEngine {
  public:
    struct Parts {
        std::shared_ptr<HostInterface> host;
        HostActions actions;       // every role, or none
        std::shared_ptr<Log> log;  // may be empty
    };
    // `windows` must outlive the engine.
    InputEngine(Parts parts, WindowRegistry& windows);
    ~InputEngine();
    InputEngine(const InputEngine&) = delete;
    InputEngine& operator=(const InputEngine&) = delete;

    // The action router: "scroll", "tap", "type" and "key", matched exactly; any other action
    // does nothing. `target` is the active window the input's fractions refer to.
    ControlOutcome route(const ControlInputPush& input, const WindowFacts& target);

  private:
    Parts parts_;
    WindowRegistry& windows_;
    std::unique_ptr<input::Context> context_;  // buffers reused from input to input
};

}  // namespace virela
