#pragma once

// UIKit's table and collection rows, selected for remote input through their delegates. Main
// thread only.

#import <UIKit/UIKit.h>

#include <memory>

#include "core/ports/host_actions.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

class ObjectHandles;

// Shares `handles` with the other roles: what one hands out, the others act on.
std::shared_ptr<ListActions> makeUIKitListActions(std::shared_ptr<ObjectHandles> handles);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
