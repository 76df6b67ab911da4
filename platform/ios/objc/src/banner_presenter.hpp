#pragma once

// UIKit's side of the session banner: a pill in a passthrough window of its own, above the
// app's windows. Main thread only.

#include <memory>

#include "core/ports/presenters.hpp"
#include "platform/ios/objc/src/uikit_host.hpp"

namespace virela::ios {

// Windows resolve through `windows`, the host's table.
std::shared_ptr<BannerPresenter> makeBannerPresenter(std::shared_ptr<WindowHandles> windows);

}  // namespace virela::ios
