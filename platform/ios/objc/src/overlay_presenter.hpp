#pragma once

// UIKit's side of the live overlay: a passthrough window above every host window with the
// screen frame, the pill and its "Stop", toasts, the control banner, the laser dot and the
// agent's marks, and the pan watch that tells core the screen under the marks moved. Main
// thread only.

#include <memory>

#include "core/ports/overlay.hpp"
#include "platform/ios/objc/src/uikit_host.hpp"

namespace virela::ios {

// Anchors resolve through `windows`, the host's table: the overlay never follows a freed window.
std::shared_ptr<OverlayPresenter> makeOverlayPresenter(std::shared_ptr<WindowHandles> windows);

}  // namespace virela::ios
