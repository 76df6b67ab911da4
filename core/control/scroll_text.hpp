#pragma once

// Remote scrolling, typing and the two keys. A scroll moves a scroll view's content offset
// directly; text and keys go to whatever holds the keyboard focus. Each refuses quietly to act
// on a redacted view or a secure field, and none of them logs.

#include <optional>
#include <string>

#include "core/control/input_support.hpp"

namespace virela::input {

// Fractions of the target window: the point (missing: the centre) and the distance (missing: 0).
void scroll(Context& ctx, std::optional<double> x, std::optional<double> y,
            std::optional<double> dx, std::optional<double> dy, const WindowFacts& target);

void typeText(Context& ctx, const std::optional<std::string>& text, const WindowFacts& target);

// "backspace" deletes one character; "enter" ends editing. Anything else is ignored.
void pressKey(Context& ctx, const std::optional<std::string>& key, const WindowFacts& target);

}  // namespace virela::input
