#pragma once

// UIKit's side of the host actions: reading views, accessibility elements, responders and view
// controllers on demand for remote input and screen tracking, and performing the effects core
// decides on them. Main thread only.

#import <UIKit/UIKit.h>

#include <memory>

#include "core/ports/host_actions.hpp"
#include "platform/ios/objc/src/uikit_host.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

// Windows it hands out join `windows`, so the host interface reads them like any other.
HostActions makeUIKitActions(std::shared_ptr<WindowHandles> windows);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
