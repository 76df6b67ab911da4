#include "core/control/tap_ladder.hpp"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "core/control/menus.hpp"
#include "core/control/windows.hpp"

namespace virela::input {
namespace {

// Accessibility trait bit 40: the element opens a menu, so activating it opens one.
constexpr std::uint64_t menuTrait = 0x10000000000ULL;
// Platform versions: button menus arrived in 14, primary actions of list items in 16.
constexpr int buttonMenuVersion = 14;
constexpr int listPrimaryActionVersion = 16;

bool contains(std::string_view text, std::string_view part) noexcept {
    return text.find(part) != std::string_view::npos;
}

enum class Pass { virtualElements, views };

// Activates the candidates of one kind, smallest first, until one accepts. Locked ones, and
// ones lying over a redaction, are never asked.
bool activationPass(Context& ctx, const WindowFacts& window, Pass pass) {
    for (const Candidate& c : ctx.found) {
        if (c.isView != (pass == Pass::views)) continue;
        const bool locked =
            c.isView ? isLocked(ctx.reader, c.handle)
                     : contains(c.identifier, "virela-redact") ||
                           (c.container != noHandle && isLocked(ctx.reader, c.container));
        if (locked || touchesRedaction(ctx, window.handle, c.frame)) continue;
        if (ctx.controls.accessibilityActivate(c.handle)) return true;
    }
    return false;
}

// The hit view and its superviews, nearest first. False when one of them cannot be read, or
// the chain does not end: it cannot then be checked for locks.
bool readChain(Context& ctx, HostHandle view, std::vector<NodeFacts>& chain) {
    chain.clear();
    for (HostHandle h = view; h != noHandle;) {
        if (chain.size() == static_cast<std::size_t>(maximumChainLength)) return false;
        auto node = ctx.reader.readNode(h);
        if (!node) return false;
        h = node->superview;
        chain.push_back(std::move(*node));
    }
    return !chain.empty();
}

const NodeFacts* firstInChain(const std::vector<NodeFacts>& chain,
                              bool (*accept)(const NodeFacts&)) {
    for (const NodeFacts& n : chain) {
        if (accept(n)) return &n;
    }
    return nullptr;
}

enum class Step { passed, handled, locked };

Step listCell(Context& ctx, const std::vector<NodeFacts>& chain, const WindowFacts& window,
              bool& inertMenu) {
    const NodeFacts* cell = firstInChain(chain, [](const NodeFacts& n) {
        return n.kind == ViewKind::tableCell || n.kind == ViewKind::collectionCell;
    });
    if (!cell) return Step::passed;
    if (touchesRedaction(ctx, window.handle, cell->frame)) return Step::locked;
    const auto found = ctx.lists.listOfCell(cell->handle);
    if (!found) return Step::passed;
    const auto& [list, path] = *found;

    if (list.isTable) {
        IndexPath row = path;
        if (list.answersWillSelect) {
            const auto answer = ctx.lists.willSelectRow(list.list, path);
            if (!answer) return Step::handled;  // the delegate vetoed the row
            row = *answer;
        }
        ctx.lists.selectRow(list.list, row);
        if (list.answersDidSelect) ctx.lists.didSelectRow(list.list, row);
        return Step::handled;
    }

    const std::string description = list.typeName + list.delegateTypeName;
    if (contains(description, "ContextMenu") || contains(description, "MenuList")) {
        // The system's own menu list: selecting its rows does not run their actions.
        inertMenu = true;
        if (ctx.reader.platformVersionAtLeast(listPrimaryActionVersion) &&
            list.answersPerformPrimaryAction) {
            ctx.write(LogLevel::debug, "menu machinery (" + description +
                                           ") — running performPrimaryActionForItemAt");
            ctx.lists.performPrimaryActionForItem(list.list, path);
            return Step::handled;
        }
        ctx.write(LogLevel::debug,
                  "menu machinery (" + description +
                      ") without primary-action support — deferring to accessibility activation");
        return Step::passed;
    }
    if (ctx.logs()) {
        ctx.write(LogLevel::debug, "list-cell candidate: cell " + cell->typeName + " in " +
                                       list.typeName + " delegate " + list.delegateTypeName);
    }
    if (list.answersShouldSelect && !ctx.lists.shouldSelectItem(list.list, path))
        return Step::handled;
    ctx.lists.selectRow(list.list, path);
    if (list.answersDidSelect) ctx.lists.didSelectRow(list.list, path);
    return Step::handled;
}

double clampTo(double value, double low, double high) {
    return std::min(high, std::max(value, low));
}

enum class Actuation { done, ranMenu, menuNotRun };

// Operates a control as a finger would; `inWindow` is the tap in the control's window.
Actuation actuate(Context& ctx, const NodeFacts& control, Point inWindow) {
    const Point p{inWindow.x - control.frame.x + control.bounds.x,
                  inWindow.y - control.frame.y + control.bounds.y};
    switch (control.kind) {
        case ViewKind::switchControl:
            ctx.controls.setOn(control.handle, !control.isOn, true);
            ctx.controls.sendActions(control.handle, controlEventValueChanged);
            return Actuation::done;
        case ViewKind::slider: {
            const Rect& track = control.trackRect;
            if (track.isEmpty()) return Actuation::done;
            const double value =
                clampTo(control.minimumValue + (p.x - track.minX()) / track.width *
                                                   (control.maximumValue - control.minimumValue),
                        control.minimumValue, control.maximumValue);
            if (value == control.value || !std::isfinite(value)) return Actuation::done;
            ctx.controls.setValue(control.handle, value, true);
            ctx.controls.sendActions(control.handle, controlEventValueChanged);
            return Actuation::done;
        }
        case ViewKind::stepper: {
            double value = p.x < control.bounds.midX() ? control.value - control.stepValue
                                                       : control.value + control.stepValue;
            if (control.wraps && value > control.maximumValue) {
                value = control.minimumValue;
            } else if (control.wraps && value < control.minimumValue) {
                value = control.maximumValue;
            } else {
                value = clampTo(value, control.minimumValue, control.maximumValue);
            }
            if (value == control.value || !std::isfinite(value)) return Actuation::done;
            ctx.controls.setValue(control.handle, value, false);
            ctx.controls.sendActions(control.handle, controlEventValueChanged);
            return Actuation::done;
        }
        case ViewKind::segmentedControl: {
            if (control.numberOfSegments < 1) break;
            const double width =
                control.bounds.width / static_cast<double>(control.numberOfSegments);
            if (!(width > 0)) return Actuation::done;
            const double index = clampTo(std::trunc(p.x / width), 0,
                                         static_cast<double>(control.numberOfSegments - 1));
            ctx.controls.setSelectedSegment(control.handle, static_cast<long>(index));
            ctx.controls.sendActions(control.handle, controlEventValueChanged);
            return Actuation::done;
        }
        case ViewKind::button:
            if (control.hasMenu && control.showsMenuAsPrimaryAction) {
                // Only a menu that really opened counts; where the platform cannot open it from
                // code, accessibility activation may still.
                return ctx.reader.platformVersionAtLeast(buttonMenuVersion) &&
                               ctx.controls.performPrimaryAction(control.handle)
                           ? Actuation::ranMenu
                           : Actuation::menuNotRun;
            }
            // A finger's tap also triggers the primary action, which buttons built around one
            // listen for.
            ctx.controls.sendActions(
                control.handle, controlEventTouchUpInside | controlEventPrimaryActionTriggered);
            return Actuation::done;
        default:
            break;
    }
    ctx.controls.sendActions(control.handle, controlEventTouchUpInside);
    return Actuation::done;
}

ControlOutcome activated(bool menuHint) {
    return menuHint ? ControlOutcome::menuOpened : ControlOutcome::none;
}

bool isChrome(Context& ctx, const WindowFacts& window) {
    if (window.scene == noHandle) return true;
    ctx.host.readScenes(ctx.scenes);
    for (const SceneFacts& scene : ctx.scenes) {
        if (scene.handle != window.scene) continue;
        return std::find(scene.windows.begin(), scene.windows.end(), window.handle) ==
               scene.windows.end();
    }
    return true;
}

std::string describeHit(Context& ctx, const NodeFacts& view, const WindowFacts& window) {
    std::string root = "nil";
    if (window.rootViewController != noHandle) {
        if (const auto controller = ctx.reader.readController(window.rootViewController)) {
            root = "Optional(" + controller->typeName + ")";
        }
    }
    return view.typeName + " in " + window.typeName + " (root VC " + root + ")";
}

// Refuses a tap on a locked target, in one line, and ends the keyboard focus: the text the agent
// types next was meant for the locked field and must reach nothing, not the field focused
// before.
ControlOutcome refuseLocked(Context& ctx, const WindowFacts& target) {
    ctx.write(LogLevel::info, "tap ignored: locked target (redacted or secure field) — by design");
    const HostHandle focused = focusedResponder(ctx, target);
    if (focused != noHandle) ctx.responders.resignFirstResponder(focused);
    return ControlOutcome::none;
}

// Whether a menu row of the hit window's tree lies under `point`.
bool menuCellUnder(const std::vector<NodeFacts>& tree, Point point) {
    return std::any_of(tree.begin(), tree.end(), [&](const NodeFacts& n) {
        return isMenuCell(n.typeName) && n.frame.contains(point);
    });
}

}  // namespace

std::optional<Hit> hitTest(Context& ctx, Point point, const WindowFacts& target) {
    if (!std::isfinite(point.x) || !std::isfinite(point.y)) return std::nullopt;
    for (WindowFacts& window : inputWindowList(ctx.windows, target)) {
        const Point inWindow = convertPoint(point, target, window);
        const HostHandle view = ctx.reader.hitTest(window.handle, inWindow);
        if (view != noHandle) return Hit{std::move(window), view, inWindow};
    }
    return std::nullopt;
}

ControlOutcome tap(Context& ctx, std::optional<double> x, std::optional<double> y,
                   const WindowFacts& target) {
    const double fx = x.value_or(0);
    const double fy = y.value_or(0);
    const Point point{fx * target.bounds.width, fy * target.bounds.height};

    // 1. What lies under the point, front window first.
    const auto hit = hitTest(ctx, point, target);
    if (!hit) {
        ctx.write(LogLevel::error, "tap at (" + fixed(fx, 2) + ", " + fixed(fy, 2) +
                                       ") fired nothing: no window claimed the hit-test");
        return ControlOutcome::none;
    }
    const WindowFacts& window = hit->window;
    const Point p = hit->point;

    // 2. A redacted view or a secure field is never operated, by any mechanism: not the view
    // hit or one around it, and nothing under a redaction the customer sees.
    std::vector<NodeFacts> chain;
    if (!readChain(ctx, hit->view, chain) ||
        std::any_of(chain.begin(), chain.end(),
                    [](const NodeFacts& n) { return lockedItself(n); }) ||
        pointInRedaction(ctx, window.handle, p)) {
        return refuseLocked(ctx, target);
    }
    const NodeFacts& view = chain.front();

    // 3. The accessibility elements under the point. Read once: the steps below that fail act
    // on nothing, so the tree they would read again is the same.
    ctx.reader.readViews(window.handle, ctx.tree);
    collectCandidates(ctx, window, p, ctx.tree, ctx.found);
    sortByArea(ctx.found);
    const bool menuHint = std::any_of(ctx.found.begin(), ctx.found.end(), [](const Candidate& c) {
        return (c.traits & menuTrait) != 0;
    });
    if (ctx.logs()) ctx.write(LogLevel::debug, "tap hit " + describeHit(ctx, view, window));

    // An open menu's row runs its button's action, whichever rung reaches it: a locked button's
    // menu, opened by the customer, stays theirs.
    const bool chrome = isChrome(ctx, window);
    if ((chrome || menuCellUnder(ctx.tree, p)) &&
        menuRowMayBeLocked(ctx, titleUnderPoint(ctx, window, p))) {
        return refuseLocked(ctx, target);
    }

    // 4. A window its scene does not list is the system's (an open menu): activation only.
    if (chrome) {
        if (activationPass(ctx, window, Pass::virtualElements) ||
            activationPass(ctx, window, Pass::views)) {
            ctx.write(LogLevel::debug, "tap handled by accessibility activation in chrome window");
            return activated(menuHint);
        }
        ctx.write(LogLevel::error,
                  "tap on OS chrome (" + window.typeName + ") fired nothing — no activation");
        return ControlOutcome::menuItemInert;
    }

    // 5. A text input takes the focus.
    if (const NodeFacts* input = firstInChain(chain, [](const NodeFacts& n) {
            return (n.kind == ViewKind::textField && n.enabled) ||
                   (n.kind == ViewKind::textView && n.editable);
        })) {
        if (touchesRedaction(ctx, window.handle, input->frame)) return refuseLocked(ctx, target);
        if (ctx.logs()) {
            ctx.write(LogLevel::debug, "tap handled by text-input focus " + input->typeName);
        }
        ctx.responders.becomeFirstResponder(input->handle);
        return ControlOutcome::none;
    }

    // 6. An element the app draws itself and exposes only to accessibility.
    if (activationPass(ctx, window, Pass::virtualElements)) {
        ctx.write(LogLevel::debug, "tap handled by virtual accessibility element");
        return activated(menuHint);
    }

    // 7. A row of an open button menu: run its action by title.
    if (pointInMenuCell(ctx, window, p)) {
        const auto title = titleUnderPoint(ctx, window, p);
        const MenuRun run = title ? runMenuItemByTitle(ctx, *title) : MenuRun::notRun;
        if (run == MenuRun::locked) return refuseLocked(ctx, target);
        if (run == MenuRun::ran) {
            ctx.write(LogLevel::debug, "menu item '" + *title + "' run via its own UIAction");
            return ControlOutcome::none;
        }
    }

    // 8. A table or collection row, through its delegate.
    bool inertMenu = false;
    switch (listCell(ctx, chain, window, inertMenu)) {
        case Step::handled:
            ctx.write(LogLevel::debug, "tap handled by list-cell selection");
            return ControlOutcome::none;
        case Step::locked:
            return refuseLocked(ctx, target);
        case Step::passed:
            break;
    }

    // 9. A control, operated as the finger would.
    if (const NodeFacts* control = firstInChain(
            chain, [](const NodeFacts& n) { return isControl(n.kind) && n.enabled; })) {
        if (touchesRedaction(ctx, window.handle, control->frame)) {
            return refuseLocked(ctx, target);
        }
        const bool menuButton = control->kind == ViewKind::button && control->hasMenu &&
                                control->showsMenuAsPrimaryAction;
        if (ctx.logs() && !menuButton) {
            ctx.write(LogLevel::debug, "tap handled by UIControl actuate " + control->typeName);
        }
        switch (actuate(ctx, *control, p)) {
            case Actuation::ranMenu:
                if (ctx.logs()) {
                    ctx.write(LogLevel::debug,
                              "tap handled by UIControl actuate " + control->typeName);
                }
                return ControlOutcome::menuOpened;
            case Actuation::done:
                return ControlOutcome::none;
            case Actuation::menuNotRun:
                // Nothing opened: the button may still answer activation, and if nothing does,
                // the agent hears that the menu could not be run.
                inertMenu = true;
                break;
        }
    }

    // 10. Any view that accepts accessibility activation.
    if (activationPass(ctx, window, Pass::views)) {
        ctx.write(LogLevel::debug, "tap handled by accessibility activation");
        return activated(menuHint);
    }

    // 11. A responder that takes key input.
    HostHandle responder = hit->view;
    for (int hops = 0; responder != noHandle; ++hops) {
        if (hops == maximumChainLength) return refuseLocked(ctx, target);
        const auto node = ctx.reader.readNode(responder);
        if (node && node->keyInput) {
            if (node->isView && isProtected(ctx, *node)) return refuseLocked(ctx, target);
            ctx.write(LogLevel::debug, "tap handled by responder focus");
            if (node->isView) ctx.responders.becomeFirstResponder(responder);
            return ControlOutcome::none;
        }
        responder = ctx.reader.nextResponder(responder);
    }

    // 12. Nothing acted: say why, so the host app's developers know what to add.
    if (ctx.logs()) {
        const std::string reason =
            ctx.found.empty()
                ? "no accessibility element under the point — a .onTapGesture-only view or an "
                  "accessibility-hidden control; the host app adds .accessibilityAction { } (see "
                  "/docs), or this is an out-of-process menu item only the customer can tap"
                : std::to_string(ctx.found.size()) +
                      " element(s) under the point but every accessibilityActivate() was refused";
        ctx.write(LogLevel::error, "tap fired nothing: " + view.typeName + " in " +
                                       window.typeName + " — " + reason);
    }
    return inertMenu ? ControlOutcome::menuItemInert : ControlOutcome::none;
}

}  // namespace virela::input
