#pragma once

// Operating the headless controls and scroll views, and accessibility activation.

#include <cstdint>

#include "core/ports/host_actions.hpp"

namespace virela::headless {

class HeadlessControlActions final : public ControlActions {
  public:
    bool accessibilityActivate(HostHandle element) override;
    bool sendActions(HostHandle control, std::uint64_t events) override;
    bool setOn(HostHandle control, bool on, bool animated) override;
    bool setValue(HostHandle control, double value, bool animated) override;
    bool setSelectedSegment(HostHandle control, long index) override;
    bool performPrimaryAction(HostHandle button) override;
    bool setContentOffset(HostHandle scrollView, Point offset) override;
};

}  // namespace virela::headless
