#include "platform/headless/host/responder_actions.hpp"

#include "platform/headless/host/screen.hpp"

namespace virela::headless {
namespace {

// A text field tells its targets about editing, as UIKit's does; other views send nothing.
void sendEditing(View& v, std::uint64_t event) {
    if (v.kind() == ViewKind::textField && v.onActions) v.onActions(event);
}

void resignAll(View& v) {
    v.firstResponder = false;
    for (const auto& child : v.subviews()) resignAll(*child);
}

}  // namespace

bool HeadlessResponderActions::becomeFirstResponder(HostHandle responder) {
    View* v = resolve<View>(responder);
    // A disabled text field cannot take the focus, as on the device.
    if (!v || !v->keyInput || !v->window()) return false;
    if (v->kind() == ViewKind::textField && !v->enabled) return false;
    resignAll(*v->window());
    v->firstResponder = true;
    sendEditing(*v, controlEventEditingDidBegin);
    return true;
}

bool HeadlessResponderActions::resignFirstResponder(HostHandle responder) {
    View* v = resolve<View>(responder);
    if (!v || !v->firstResponder) return false;
    v->firstResponder = false;
    sendEditing(*v, controlEventEditingDidEnd);
    return true;
}

bool HeadlessResponderActions::insertText(HostHandle responder, const std::string& text) {
    View* v = resolve<View>(responder);
    if (!v || !v->keyInput) return false;
    v->text += text;
    sendEditing(*v, controlEventEditingChanged);
    return true;
}

bool HeadlessResponderActions::deleteBackward(HostHandle responder) {
    View* v = resolve<View>(responder);
    if (!v || !v->keyInput) return false;
    // One character, not one byte.
    while (!v->text.empty()) {
        const auto last = static_cast<unsigned char>(v->text.back());
        v->text.pop_back();
        if ((last & 0xC0) != 0x80) break;
    }
    sendEditing(*v, controlEventEditingChanged);
    return true;
}

}  // namespace virela::headless
