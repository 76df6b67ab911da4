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
    bool locked;  // it sits in a locked button's menu
};

// Menus nest; a menu that names itself (a broken platform read) must not recurse forever.
constexpr int maximumMenuNesting = 32;

void flatten(const MenuElement& element, const std::optional<std::string>& title, bool locked,
             std::vector<Found>& out, int nesting = 0) {
    if (nesting == maximumMenuNesting) return;
    for (const MenuElement& child : element.children) {
        if (child.isMenu) {
            flatten(child, title, locked, out, nesting + 1);
        } else if (!title || child.title == *title) {
            out.push_back({child.identifier, child.action, locked});
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
        if (!isHit) ctx.reader.readViews(window.handle, ctx.other);
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

namespace {

// Every button-menu action titled `title` (any action without one) in the scenes' windows, each
// marked with whether its button is locked. Fills `windows` with the windows read.
void findMenuActions(Context& ctx, const std::optional<std::string>& title,
                     std::vector<Found>& found, std::vector<HostHandle>& windows) {
    forEachSceneWindow(ctx, [&](const WindowFacts& window) {
        windows.push_back(window.handle);
        ctx.reader.readViews(window.handle, ctx.other);
        for (const NodeFacts& node : ctx.other) {
            if (node.kind != ViewKind::button || !node.hasMenu) continue;
            if (const auto menu = ctx.menus.buttonMenu(node.handle)) {
                flatten(*menu, title, isProtected(ctx, node), found);
            }
        }
    });
}

}  // namespace

MenuRun runMenuItemByTitle(Context& ctx, const std::string& title) {
    std::vector<Found> found;
    std::vector<HostHandle> windows;
    findMenuActions(ctx, title, found, windows);
    if (std::any_of(found.begin(), found.end(), [](const Found& f) { return f.locked; })) {
        return MenuRun::locked;
    }
    // The same action reachable from several buttons is one action.
    std::vector<std::string_view> distinct;
    for (const Found& f : found) {
        if (std::find(distinct.begin(), distinct.end(), f.identifier) == distinct.end()) {
            distinct.push_back(f.identifier);
        }
    }
    if (distinct.empty()) return MenuRun::notRun;
    if (distinct.size() > 1) {
        ctx.write(LogLevel::error, "menu item '" + title + "' is ambiguous (" +
                                       std::to_string(distinct.size()) +
                                       " distinct actions) — refusing to guess");
        return MenuRun::notRun;
    }
    if (!ctx.menus.runMenuAction(found.front().action)) return MenuRun::notRun;  // freed
    for (HostHandle w : windows) ctx.menus.dismissContextMenus(w);
    return MenuRun::ran;
}

bool menuRowMayBeLocked(Context& ctx, const std::optional<std::string>& title) {
    std::vector<Found> found;
    std::vector<HostHandle> windows;
    findMenuActions(ctx, title, found, windows);
    return std::any_of(found.begin(), found.end(), [](const Found& f) { return f.locked; });
}

}  // namespace virela::input
