#pragma once

// UIKit's button menus, read and run for remote input, and its context menus closed. Main
// thread only.

#import <UIKit/UIKit.h>

#include <memory>

#include "core/ports/host_actions.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

class ObjectHandles;

// Shares `handles` with the other roles: what one hands out, the others act on.
std::shared_ptr<MenuActions> makeUIKitMenuActions(std::shared_ptr<ObjectHandles> handles);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
