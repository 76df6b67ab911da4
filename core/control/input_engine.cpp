#include "core/control/input_engine.hpp"

#include "core/control/input_support.hpp"
#include "core/control/scroll_text.hpp"
#include "core/control/tap_ladder.hpp"
#include "core/control/windows.hpp"

namespace virela {

InputEngine::InputEngine(Parts parts, WindowRegistry& windows)
    : parts_(std::move(parts)), windows_(windows) {
    // Without a host there is nothing to act on: every input is then ignored.
    if (parts_.host && parts_.actions.complete()) {
        context_ = std::make_unique<input::Context>(*parts_.host, parts_.actions, parts_.log.get(),
                                                    windows_);
    }
}

InputEngine::~InputEngine() = default;

ControlOutcome InputEngine::route(const ControlInputPush& input, const WindowFacts& target) {
    if (!context_) return ControlOutcome::none;
    input::Context& ctx = *context_;
    ctx.beginInput();
    if (input.action == "scroll") {
        input::scroll(ctx, input.x, input.y, input.dx, input.dy, target);
        return ControlOutcome::none;
    }
    if (input.action == "tap") return input::tap(ctx, input.x, input.y, target);
    if (input.action == "type") {
        input::typeText(ctx, input.text, target);
        return ControlOutcome::none;
    }
    if (input.action == "key") {
        input::pressKey(ctx, input.key, target);
        return ControlOutcome::none;
    }
    return ControlOutcome::none;
}

}  // namespace virela
