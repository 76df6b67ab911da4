#pragma once

// UIKit's reader for remote input and screen tracking: views, accessibility elements,
// responders and view controllers, read on demand into core's facts. Main thread only.

#import <UIKit/UIKit.h>

#include <memory>

#include "core/ports/host_actions.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

class ObjectHandles;

// Shares `handles` with the other roles: what one hands out, the others act on.
std::shared_ptr<NodeReader> makeUIKitNodeReader(std::shared_ptr<ObjectHandles> handles);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
