#pragma once

// The keyboard focus and typing on the headless views. Text fields tell their targets about
// editing, as UIKit's do.

#include <string>

#include "core/ports/host_actions.hpp"

namespace virela::headless {

class HeadlessResponderActions final : public ResponderActions {
  public:
    bool becomeFirstResponder(HostHandle responder) override;
    bool resignFirstResponder(HostHandle responder) override;
    bool insertText(HostHandle responder, const std::string& text) override;
    bool deleteBackward(HostHandle responder) override;
};

}  // namespace virela::headless
