#pragma once

// Navigation on the headless host's controller tree, as a UINavigationController does it: the
// stack is the controller's `children`, its last entry is the top, and the window shows the top
// controller's view. The app's screens go through these three calls only, so that they can give
// way to the host's own navigation calls.

#include <memory>

#include "platform/headless/host/screen.hpp"

namespace demo {

// Shows the top controller's view in `window` in place of any other view of the stack.
void showTop(virela::headless::Window& window, const virela::headless::ViewController& navigation);

// Pushes `controller` and shows it.
void push(virela::headless::Window& window, virela::headless::ViewController& navigation,
          std::shared_ptr<virela::headless::ViewController> controller);

// Pops the top controller and shows the one under it; false at the root, which stays.
bool pop(virela::headless::Window& window, virela::headless::ViewController& navigation);

}  // namespace demo
