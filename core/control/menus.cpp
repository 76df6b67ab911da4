#include "core/control/menus.hpp"

#include <algorithm>

namespace virela::input {
namespace {

std::string describe(Point p) {
    return "(" + fixed(p.x, 1) + ", " + fixed(p.y, 1) + ")";
}

std::string describe(const Rect& r) {
    return "{" + fixed(r.x, 1) + ", " + fixed(r.y, 1) + ", " + fixed(r.width, 1) + ", " +
           fixed(r.height, 1) + "}";
}

struct Found {
    std::string identifier;
    HostHandle action;
};

void flatten(const MenuElement& element, const std::string& title, std::vector<Found>& out) {
    for (const MenuElement& child : element.children) {
        if (child.isMenu) {
            flatten(child, title, out);
        } else if (child.title == title) {
            out.push_back({child.identifier, child.action});
        }
    }
}

// Each connected scene's own window list, read; the hit window's tree is reused.
template <class Visit>
void forEachSceneWindow(Context& ctx, Visit&& visit) {
    ctx.host.readScenes(ctx.scenes);
    for (const SceneFacts& scene : ctx.scenes) {
        for (HostHandle h : scene.windows) {
            const auto window = ctx.host.readWindow(h);
            if (!window) continue;
            visit(*window);
        }
    }
}

}  // namespace

bool isMenuCell(std::string_view typeName) noexcept {
    return typeName.find("ContextMenuCell") != std::string_view::npos ||
           typeName.find("MenuActionCell") != std::string_view::npos ||
           typeName.find("MenuLeaf") != std::string_view::npos;
}

bool pointInMenuCell(Context& ctx, const WindowFacts& hitWindow, Point point) {
    std::vector<Rect> seen;
    bool inside = false;
    forEachSceneWindow(ctx, [&](const WindowFacts& window) {
        if (inside) return;
        const bool isHit = window.handle == hitWindow.handle;
        if (!isHit) ctx.actions.readViews(window.handle, ctx.other);
        for (const NodeFacts& node : isHit ? ctx.tree : ctx.other) {
            if (!isMenuCell(node.typeName) || node.window == noHandle) continue;
            const Rect rect = convertRect(node.frame, window, hitWindow);
            if (rect.contains(point)) {
                inside = true;
                return;
            }
            if (ctx.logs()) seen.push_back(rect);
        }
    });
    if (inside) return true;
    if (!ctx.logs()) return false;
    if (seen.empty()) {
        ctx.write(LogLevel::debug,
                  "no menu cells found in any window for point " + describe(point));
        return false;
    }
    std::string rects;
    for (const Rect& r : seen) {
        if (!rects.empty()) rects += ", ";
        rects += describe(r);
    }
    ctx.write(LogLevel::debug,
              "menu cells present but point " + describe(point) + " is in none: " + rects);
    return false;
}

std::optional<std::string> titleUnderPoint(Context& ctx, const WindowFacts& hitWindow,
                                           Point point) {
    for (const Candidate& c : ctx.found) {
        if (c.label && !c.label->empty()) return c.label;
    }
    const auto& tree = ctx.tree;
    for (std::size_t i = 0; i < tree.size(); ++i) {
        if (!isMenuCell(tree[i].typeName)) continue;
        if (!frameIn(ctx, tree[i], hitWindow).contains(point)) continue;
        for (std::size_t j = i + 1; j < tree.size() && tree[j].depth > tree[i].depth; ++j) {
            if (tree[j].kind == ViewKind::label) return tree[j].text;
        }
        return std::nullopt;
    }
    return std::nullopt;
}

bool runMenuItemByTitle(Context& ctx, const std::string& title) {
    std::vector<Found> found;
    std::vector<HostHandle> windows;
    forEachSceneWindow(ctx, [&](const WindowFacts& window) {
        windows.push_back(window.handle);
        ctx.actions.readViews(window.handle, ctx.other);
        for (const NodeFacts& node : ctx.other) {
            if (node.kind != ViewKind::button || !node.hasMenu) continue;
            if (const auto menu = ctx.actions.buttonMenu(node.handle)) flatten(*menu, title, found);
        }
    });
    // The same action reachable from several buttons is one action.
    std::vector<std::string_view> distinct;
    for (const Found& f : found) {
        if (std::find(distinct.begin(), distinct.end(), f.identifier) == distinct.end()) {
            distinct.push_back(f.identifier);
        }
    }
    if (distinct.empty()) return false;
    if (distinct.size() > 1) {
        ctx.write(LogLevel::error, "menu item '" + title + "' is ambiguous (" +
                                       std::to_string(distinct.size()) +
                                       " distinct actions) — refusing to guess");
        return false;
    }
    if (!ctx.actions.runMenuAction(found.front().action)) return false;  // freed meanwhile
    for (HostHandle w : windows) ctx.actions.dismissContextMenus(w);
    return true;
}

}  // namespace virela::input
