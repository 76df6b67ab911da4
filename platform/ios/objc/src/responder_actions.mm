// Moves the keyboard focus and types into the focused responder, fenced as every call into UIKit
// is (see object_handles.hpp).

#include "platform/ios/objc/src/responder_actions.hpp"

#import <UIKit/UIKit.h>

#include <string>
#include <utility>

#include "platform/ios/objc/src/object_handles.hpp"
#include "platform/ios/objc/src/strings.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {
namespace {

class UIKitResponderActions final : public ResponderActions {
  public:
    explicit UIKitResponderActions(std::shared_ptr<ObjectHandles> handles)
        : handles_(std::move(handles)) {}

    bool becomeFirstResponder(HostHandle responder) override {
        return guarded(false, [&] {
            UIResponder* r = as<UIResponder>(handles_->anyObject(responder));
            return r && [r becomeFirstResponder];
        });
    }

    bool resignFirstResponder(HostHandle responder) override {
        return guarded(false, [&] {
            UIResponder* r = as<UIResponder>(handles_->anyObject(responder));
            return r && [r resignFirstResponder];
        });
    }

    bool insertText(HostHandle responder, const std::string& text) override {
        return guarded(false, [&] {
            id<UIKeyInput> input = keyInput(responder);
            if (!input) return false;
            [input insertText:toNSString(text)];
            return true;
        });
    }

    bool deleteBackward(HostHandle responder) override {
        return guarded(false, [&] {
            id<UIKeyInput> input = keyInput(responder);
            if (!input) return false;
            [input deleteBackward];
            return true;
        });
    }

  private:
    id<UIKeyInput> _Nullable keyInput(HostHandle handle) {
        id object = handles_->anyObject(handle);
        return [object conformsToProtocol:@protocol(UIKeyInput)] ? object : nil;
    }

    std::shared_ptr<ObjectHandles> handles_;
};

}  // namespace

std::shared_ptr<ResponderActions> makeUIKitResponderActions(
    std::shared_ptr<ObjectHandles> handles) {
    return std::make_shared<UIKitResponderActions>(std::move(handles));
}

}  // namespace virela::ios
