#include "platform/headless/host/control_actions.hpp"

#include <algorithm>

#include "platform/headless/host/screen.hpp"

namespace virela::headless {

bool HeadlessControlActions::accessibilityActivate(HostHandle element) {
    if (auto* e = resolve<AccessibilityElement>(element)) return e->onActivate && e->onActivate();
    if (View* v = resolve<View>(element)) return v->onActivate && v->onActivate();
    return false;
}

bool HeadlessControlActions::sendActions(HostHandle control, std::uint64_t events) {
    View* v = resolve<View>(control);
    if (!v) return false;
    if (v->onActions) v->onActions(events);
    return true;
}

bool HeadlessControlActions::setOn(HostHandle control, bool on, bool /*animated*/) {
    View* v = resolve<View>(control);
    if (!v) return false;
    v->isOn = on;
    return true;
}

bool HeadlessControlActions::setValue(HostHandle control, double value, bool /*animated*/) {
    View* v = resolve<View>(control);
    if (!v) return false;
    v->value = std::clamp(value, v->minimumValue, v->maximumValue);
    return true;
}

bool HeadlessControlActions::setSelectedSegment(HostHandle control, long index) {
    View* v = resolve<View>(control);
    if (!v || index < 0 || index >= v->numberOfSegments) return false;
    v->selectedSegment = index;
    return true;
}

bool HeadlessControlActions::performPrimaryAction(HostHandle button) {
    View* v = resolve<View>(button);
    if (!v || !v->menu) return false;
    if (v->onActions) v->onActions(controlEventPrimaryActionTriggered);
    return true;
}

bool HeadlessControlActions::setContentOffset(HostHandle scrollView, Point offset) {
    View* v = resolve<View>(scrollView);
    if (!v || !isScrollView(v->kind())) return false;
    v->boundsOrigin = offset;
    if (v->onContentOffsetChange) v->onContentOffsetChange(offset);
    return true;
}

}  // namespace virela::headless
