#include "core/control/input_support.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "core/control/windows.hpp"

namespace virela::input {
namespace {

// Views with less opacity than this are not searched, as the platform does not hit-test them.
constexpr double minimumViewAlpha = 0.01;
// Element lists that point back at their own containers must not recurse forever.
constexpr int maximumElementNesting = 32;
// Nor may element lists that name each other many times over.
constexpr std::size_t maximumElementVisits = 100000;
// An element count outside this range is the platform's "not found" or garbage.
constexpr long maximumElementCount = 999;

void consider(Context& ctx, const WindowFacts& window, Point point, const NodeFacts& node,
              std::vector<Candidate>& out) {
    if (!node.isAccessibilityElement) return;
    const Rect frame = frameIn(ctx, node, window);
    if (!frame.contains(point)) return;
    out.push_back({node.handle, frame, frame.width * frame.height, node.isView,
                   node.accessibilityTraits, node.accessibilityLabel, node.accessibilityIdentifier,
                   node.accessibilityContainer});
}

void collectNode(Context& ctx, const WindowFacts& window, Point point, HostHandle handle,
                 int nesting, std::vector<Candidate>& out);

void collectElements(Context& ctx, const WindowFacts& window, Point point, const NodeFacts& node,
                     int nesting, std::vector<Candidate>& out) {
    if (nesting >= maximumElementNesting) return;
    if (node.accessibilityElements && !node.accessibilityElements->empty()) {
        const std::vector<HostHandle> elements = *node.accessibilityElements;
        for (HostHandle e : elements) collectNode(ctx, window, point, e, nesting + 1, out);
    } else if (node.accessibilityElementCount >= 1 &&
               node.accessibilityElementCount <= maximumElementCount) {
        for (long i = 0; i < node.accessibilityElementCount; ++i) {
            const HostHandle e = ctx.reader.elementAt(node.handle, i);
            if (e != noHandle) collectNode(ctx, window, point, e, nesting + 1, out);
        }
    }
}

// The same collection for a node outside the tree read in bulk: an element, or a view that an
// element list names.
void collectNode(Context& ctx, const WindowFacts& window, Point point, HostHandle handle,
                 int nesting, std::vector<Candidate>& out) {
    if (++ctx.elementVisits > maximumElementVisits) return;
    const auto node = ctx.reader.readNode(handle);
    if (!node) return;
    if (node->isView && (node->hidden || node->alpha < minimumViewAlpha)) return;
    consider(ctx, window, point, *node, out);
    collectElements(ctx, window, point, *node, nesting, out);
    if (!node->isView || nesting >= maximumElementNesting) return;
    std::vector<HostHandle> children;
    ctx.reader.subviews(handle, children);
    for (HostHandle child : children) collectNode(ctx, window, point, child, nesting + 1, out);
}

}  // namespace

bool lockedItself(const NodeFacts& node) noexcept {
    // Any mark will do: only whether there is a style matters here, not which.
    static const RedactionMark anyMark{};
    static const VirelaRedaction anyStyle{};
    return redactionStyleFor(node.hasMark ? &anyMark : nullptr, node.accessibilityIdentifier,
                             node.isView && node.secureTextField, anyStyle) != nullptr;
}

bool isLocked(NodeReader& reader, HostHandle view) {
    HostHandle h = view;
    for (int hops = 0; h != noHandle; ++hops) {
        if (hops == maximumChainLength) return true;
        const auto node = reader.readNode(h);
        if (!node) return true;
        if (lockedItself(*node)) return true;
        h = node->isView ? node->superview : noHandle;
    }
    return false;
}

namespace {

const WindowRedactions& redactionsOf(Context& ctx, HostHandle window) {
    for (const WindowRedactions& known : ctx.redactions) {
        if (known.window == window) return known;
    }
    WindowRedactions& entry = ctx.redactions.emplace_back();
    entry.window = window;
    const auto facts = window == noHandle ? std::nullopt : ctx.host.readWindow(window);
    if (!facts) {
        entry.readable = false;
        return entry;
    }
    try {
        for (const Redaction& r : ctx.finder.find(ctx.host, *facts)) entry.rects.push_back(r.rect);
    } catch (const HostReadError&) {
        entry.readable = false;
    }
    return entry;
}

}  // namespace

bool touchesRedaction(Context& ctx, HostHandle window, const Rect& rect) {
    if (rect.isNull() || !rect.isFinite()) return true;
    const WindowRedactions& covered = redactionsOf(ctx, window);
    if (!covered.readable) return true;
    return std::any_of(covered.rects.begin(), covered.rects.end(),
                       [&](const Rect& r) { return r.intersects(rect); });
}

bool pointInRedaction(Context& ctx, HostHandle window, Point point) {
    if (!std::isfinite(point.x) || !std::isfinite(point.y)) return true;
    const WindowRedactions& covered = redactionsOf(ctx, window);
    if (!covered.readable) return true;
    return std::any_of(covered.rects.begin(), covered.rects.end(),
                       [&](const Rect& r) { return r.contains(point); });
}

bool isProtected(Context& ctx, const NodeFacts& node) {
    if (node.isView) {
        return isLocked(ctx.reader, node.handle) || touchesRedaction(ctx, node.window, node.frame);
    }
    if (node.accessibilityIdentifier.find("virela-redact") != std::string::npos) return true;
    if (node.accessibilityContainer == noHandle) {
        // An element without a container has no window to be checked against.
        return true;
    }
    if (isLocked(ctx.reader, node.accessibilityContainer)) return true;
    const auto container = ctx.reader.readNode(node.accessibilityContainer);
    return !container || touchesRedaction(ctx, container->window, node.frame);
}

HostHandle focusedResponder(Context& ctx, const WindowFacts& target) {
    for (const WindowFacts& window : inputWindowList(ctx.windows, target)) {
        ctx.reader.readViews(window.handle, ctx.other);
        for (const NodeFacts& n : ctx.other) {
            if (n.firstResponder) return n.handle;
        }
    }
    return noHandle;
}

std::string fixed(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return buffer;
}

Rect frameIn(Context& ctx, const NodeFacts& node, const WindowFacts& window) {
    HostHandle own = node.window;
    if (!node.isView && node.accessibilityContainer != noHandle) {
        const auto container = ctx.reader.readNode(node.accessibilityContainer);
        own = container ? container->window : noHandle;
    }
    if (own == noHandle || own == window.handle) return node.frame;
    const auto from = ctx.host.readWindow(own);
    return from ? convertRect(node.frame, *from, window) : Rect::null();
}

void collectCandidates(Context& ctx, const WindowFacts& hitWindow, Point point,
                       const std::vector<NodeFacts>& tree, std::vector<Candidate>& out) {
    out.clear();
    ctx.elementVisits = 0;
    for (std::size_t i = 0; i < tree.size(); ++i) {
        const NodeFacts& node = tree[i];
        if (node.hidden || node.alpha < minimumViewAlpha) {
            while (i + 1 < tree.size() && tree[i + 1].depth > node.depth) ++i;
            continue;
        }
        consider(ctx, hitWindow, point, node, out);
        collectElements(ctx, hitWindow, point, node, 0, out);
    }
}

void sortByArea(std::vector<Candidate>& candidates) {
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.area < b.area; });
}

}  // namespace virela::input
