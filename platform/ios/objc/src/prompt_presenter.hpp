#pragma once

// UIKit's side of the bottom sheets: a dimming overlay in the host's window with a card at the
// bottom. Main thread only.

#include <memory>

#include "core/ports/presenters.hpp"
#include "platform/ios/objc/src/uikit_host.hpp"

namespace virela::ios {

// Windows resolve through `windows`, the host's table: a sheet is never put on a freed window.
std::shared_ptr<PromptPresenter> makePromptPresenter(std::shared_ptr<WindowHandles> windows);

}  // namespace virela::ios
