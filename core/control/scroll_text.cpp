#include "core/control/scroll_text.hpp"

#include <algorithm>
#include <cmath>

#include "core/control/windows.hpp"

namespace virela::input {
namespace {

bool scrollable(const NodeFacts& n) noexcept {
    return n.isView && isScrollView(n.kind) && n.scrollEnabled;
}

// The first scroll view that lets itself be scrolled, from the view hit up its superviews.
// `endless` is set when the superviews do not come to an end.
std::optional<NodeFacts> scrollViewAbove(Context& ctx, HostHandle view, bool& endless) {
    HostHandle h = view;
    for (int hops = 0; h != noHandle; ++hops) {
        if (hops == maximumChainLength) {
            endless = true;
            return std::nullopt;
        }
        auto node = ctx.reader.readNode(h);
        if (!node) return std::nullopt;
        if (scrollable(*node)) return node;
        h = node->superview;
    }
    return std::nullopt;
}

// With nothing scrollable under the point: the largest scroll view of the target window whose
// content overflows it. The first found wins a tie.
std::optional<NodeFacts> largestOverflowing(Context& ctx, const WindowFacts& target) {
    ctx.reader.readViews(target.handle, ctx.other);
    const NodeFacts* best = nullptr;
    for (const NodeFacts& n : ctx.other) {
        if (!scrollable(n) || n.hidden) continue;
        if (!(n.contentSize.height > n.bounds.height || n.contentSize.width > n.bounds.width)) {
            continue;
        }
        if (!best || n.bounds.area() > best->bounds.area()) best = &n;
    }
    if (!best) return std::nullopt;
    return *best;
}

}  // namespace

void scroll(Context& ctx, std::optional<double> x, std::optional<double> y,
            std::optional<double> dx, std::optional<double> dy, const WindowFacts& target) {
    const double width = target.bounds.width;
    const double height = target.bounds.height;
    const Point point{x.value_or(0.5) * width, y.value_or(0.5) * height};
    const double moveX = dx.value_or(0) * width;
    const double moveY = dy.value_or(0) * height;
    // A distance that is not a number moves nothing anywhere.
    if (!std::isfinite(moveX) || !std::isfinite(moveY)) return;

    // The first window, front to back, that has a scroll view under the point gives it. A scroll
    // moves content and acts on no view, but it never starts on a redaction.
    std::optional<NodeFacts> view;
    bool claimed = false;
    if (!std::isfinite(point.x) || !std::isfinite(point.y)) return;
    for (const WindowFacts& window : inputWindowList(ctx.windows, target)) {
        const Point inWindow = convertPoint(point, target, window);
        const HostHandle hit = ctx.reader.hitTest(window.handle, inWindow);
        if (hit == noHandle) continue;
        claimed = true;
        if (pointInRedaction(ctx, window.handle, inWindow)) return;
        bool endless = false;
        view = scrollViewAbove(ctx, hit, endless);
        if (endless) return;
        if (view) break;
    }
    if (!view) {
        if (!claimed && pointInRedaction(ctx, target.handle, point)) return;
        view = largestOverflowing(ctx, target);
    }
    if (!view || isLocked(ctx.reader, view->handle)) return;

    const EdgeInsets& inset = view->adjustedContentInset;
    const double minX = -inset.left;
    const double maxX = std::max(minX, view->contentSize.width - view->bounds.width + inset.right);
    const double minY = -inset.top;
    const double maxY =
        std::max(minY, view->contentSize.height - view->bounds.height + inset.bottom);
    const Point offset{std::min(maxX, std::max(view->contentOffset.x + moveX, minX)),
                       std::min(maxY, std::max(view->contentOffset.y + moveY, minY))};
    if (!std::isfinite(offset.x) || !std::isfinite(offset.y)) return;
    ctx.controls.setContentOffset(view->handle, offset);
}

void typeText(Context& ctx, const std::optional<std::string>& text, const WindowFacts& target) {
    if (!text) return;
    const HostHandle responder = focusedResponder(ctx, target);
    if (responder == noHandle) return;
    const auto node = ctx.reader.readNode(responder);
    if (!node || (node->isView && isProtected(ctx, *node))) return;
    if (node->keyInput) ctx.responders.insertText(responder, *text);
}

void pressKey(Context& ctx, const std::optional<std::string>& key, const WindowFacts& target) {
    const HostHandle responder = focusedResponder(ctx, target);
    if (responder == noHandle) return;
    const auto node = ctx.reader.readNode(responder);
    if (!node || (node->isView && isProtected(ctx, *node))) return;
    if (!key) return;
    if (*key == "backspace") {
        if (node->keyInput) ctx.responders.deleteBackward(responder);
    } else if (*key == "enter") {
        // Enter ends editing; it never inserts a line break or fires a return-key action.
        if (node->isView) ctx.responders.resignFirstResponder(responder);
    }
}

}  // namespace virela::input
