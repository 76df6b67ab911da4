#include "core/control/input_engine.hpp"

#include "core/control/windows.hpp"

namespace virela {

InputEngine::InputEngine(Parts parts, WindowRegistry& windows)
    : parts_(std::move(parts)), windows_(windows) {}

ControlOutcome InputEngine::route(const ControlInputPush&, const WindowFacts&) {
    return ControlOutcome::none;
}

}  // namespace virela
