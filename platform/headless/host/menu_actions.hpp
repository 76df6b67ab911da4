#pragma once

// The headless buttons' menus: describing them, running their actions, and counting the context
// menus closed.

#include <optional>

#include "core/ports/host_actions.hpp"

namespace virela::headless {

class HeadlessMenuActions final : public MenuActions {
  public:
    std::optional<MenuElement> buttonMenu(HostHandle button) override;
    bool runMenuAction(HostHandle action) override;
    void dismissContextMenus(HostHandle view) override;
};

}  // namespace virela::headless
