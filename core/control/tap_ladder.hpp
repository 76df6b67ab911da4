#pragma once

// A remote tap: find what lies under the point and ask it to act through public interfaces,
// one mechanism after another, until one reports that it acted. Never acts on a redacted view
// or a secure field; says in one log line why a tap did nothing.

#include <optional>

#include "core/control/input_engine.hpp"
#include "core/control/input_support.hpp"

namespace virela::input {

// `x` and `y` are fractions of the target window's bounds; missing ones count as 0.
ControlOutcome tap(Context& ctx, std::optional<double> x, std::optional<double> y,
                   const WindowFacts& target);

// The first window of the input window list whose hit-test claims `point` (target window
// coordinates): the window and the view hit. Shared with scrolling.
struct Hit {
    WindowFacts window;
    HostHandle view = noHandle;
    Point point;  // in the hit window's coordinates
};
std::optional<Hit> hitTest(Context& ctx, Point point, const WindowFacts& target);

}  // namespace virela::input
