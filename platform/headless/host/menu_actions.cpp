#include "platform/headless/host/menu_actions.hpp"

#include "platform/headless/host/screen.hpp"

namespace virela::headless {
namespace {

MenuElement describeMenu(const MenuNode& node) {
    MenuElement e;
    e.isMenu = node.isMenu;
    e.title = node.title;
    e.identifier = node.identifier;
    e.action = node.isMenu ? noHandle : node.handle();
    for (const auto& child : node.children) {
        if (child) e.children.push_back(describeMenu(*child));
    }
    return e;
}

void dismissIn(View& v) {
    if (v.hasContextMenuInteraction) ++v.contextMenuDismissals;
    for (const auto& child : v.subviews()) dismissIn(*child);
}

}  // namespace

std::optional<MenuElement> HeadlessMenuActions::buttonMenu(HostHandle button) {
    View* v = resolve<View>(button);
    if (!v || !v->menu) return std::nullopt;
    return describeMenu(*v->menu);
}

bool HeadlessMenuActions::runMenuAction(HostHandle action) {
    MenuNode* node = resolve<MenuNode>(action);
    if (!node || node->isMenu) return false;
    if (node->handler) node->handler();
    return true;
}

void HeadlessMenuActions::dismissContextMenus(HostHandle view) {
    if (View* v = resolve<View>(view)) dismissIn(*v);
}

}  // namespace virela::headless
