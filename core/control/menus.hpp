#pragma once

// Menus drawn by the system: whether a tap lies on a menu row, the row's title, and running the
// one button-menu action with that title. The engine never guesses between two actions that
// share a title.

#include <optional>
#include <string>
#include <string_view>

#include "core/control/input_support.hpp"

namespace virela::input {

// The platform's menu rows go by these class names.
bool isMenuCell(std::string_view typeName) noexcept;

// Whether `point` (hit window coordinates) lies in a menu row of any window of any scene.
// Expects ctx.tree to hold the hit window's views.
bool pointInMenuCell(Context& ctx, const WindowFacts& hitWindow, Point point);

// The title of the menu row under `point`: the smallest labelled candidate (ctx.found, sorted),
// else the first label inside the menu cell there (ctx.tree).
std::optional<std::string> titleUnderPoint(Context& ctx, const WindowFacts& hitWindow, Point point);

enum class MenuRun {
    notRun,  // no such action, several, or it was freed
    ran,
    locked,  // the title names an action of a locked button's menu
};

// Runs the button-menu action titled exactly `title`, when exactly one such action exists, and
// closes the open menus. A title that a locked button's menu holds is never run: the customer
// may open that menu, but the agent may not choose from it.
MenuRun runMenuItemByTitle(Context& ctx, const std::string& title);

// Whether an open menu's row titled `title` may run an action of a locked button's menu. With
// no title, whether any locked button has a menu at all: a row that cannot be named cannot be
// cleared.
bool menuRowMayBeLocked(Context& ctx, const std::optional<std::string>& title);

}  // namespace virela::input
