#pragma once

// UIKit's controls and scroll views, operated for remote input, and accessibility activation.
// Main thread only.

#import <UIKit/UIKit.h>

#include <memory>

#include "core/ports/host_actions.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

class ObjectHandles;

// Shares `handles` with the other roles: what one hands out, the others act on.
std::shared_ptr<ControlActions> makeUIKitControlActions(std::shared_ptr<ObjectHandles> handles);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
