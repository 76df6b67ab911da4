// Operates controls and scroll views as a finger would, and asks elements to activate, fenced as
// every call into UIKit is (see object_handles.hpp).

#include "platform/ios/objc/src/control_actions.hpp"

#import <UIKit/UIKit.h>

#include <cstdint>
#include <utility>

#include "platform/ios/objc/src/object_handles.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

// Core names the control events by UIKit's values and they pass through unchanged.
static_assert(virela::controlEventTouchUpInside == UIControlEventTouchUpInside);
static_assert(virela::controlEventValueChanged == UIControlEventValueChanged);
static_assert(virela::controlEventPrimaryActionTriggered == UIControlEventPrimaryActionTriggered);
static_assert(virela::controlEventEditingDidBegin == UIControlEventEditingDidBegin);
static_assert(virela::controlEventEditingChanged == UIControlEventEditingChanged);
static_assert(virela::controlEventEditingDidEnd == UIControlEventEditingDidEnd);
static_assert(sizeof(UIControlEvents) >= sizeof(std::uint64_t));

namespace virela::ios {
namespace {

class UIKitControlActions final : public ControlActions {
  public:
    explicit UIKitControlActions(std::shared_ptr<ObjectHandles> handles)
        : handles_(std::move(handles)) {}

    bool accessibilityActivate(HostHandle element) override {
        return guarded(false, [&] {
            id object = handles_->anyObject(element);
            return object && [object accessibilityActivate];
        });
    }

    bool sendActions(HostHandle control, std::uint64_t events) override {
        return guarded(false, [&] {
            UIControl* c = as<UIControl>(handles_->view(control));
            if (!c) return false;
            // The whole mask, as given: UIKit sends the actions of every event set in it, so a
            // button hears both touch up inside and its primary action from one call.
            [c sendActionsForControlEvents:static_cast<UIControlEvents>(events)];
            return true;
        });
    }

    bool setOn(HostHandle control, bool on, bool animated) override {
        return guarded(false, [&] {
            UISwitch* s = as<UISwitch>(handles_->view(control));
            if (!s) return false;
            [s setOn:on animated:animated];
            return true;
        });
    }

    bool setValue(HostHandle control, double value, bool animated) override {
        return guarded(false, [&] {
            UIView* v = handles_->view(control);
            if (UISlider* slider = as<UISlider>(v)) {
                [slider setValue:static_cast<float>(value) animated:animated];
                return true;
            }
            // A stepper has no animated setter.
            if (UIStepper* stepper = as<UIStepper>(v)) {
                stepper.value = value;
                return true;
            }
            return false;
        });
    }

    bool setSelectedSegment(HostHandle control, long index) override {
        return guarded(false, [&] {
            UISegmentedControl* s = as<UISegmentedControl>(handles_->view(control));
            if (!s || index < 0 || index >= static_cast<long>(s.numberOfSegments)) return false;
            s.selectedSegmentIndex = index;
            return true;
        });
    }

    bool performPrimaryAction(HostHandle button) override {
        return guarded(false, [&] {
            UIControl* c = as<UIControl>(handles_->view(button));
            if (!c) return false;
            // UIKit offers the call from iOS 17.4, after the SDK we build against. Earlier
            // systems have no public call that opens a control's menu (whatever answers to the
            // selector there is not API): report that nothing ran, so the tap goes on to
            // accessibility activation instead of claiming a menu that never opened.
            if (@available(iOS 17.4, *)) {
                const SEL selector = NSSelectorFromString(@"performPrimaryAction");
                if (![c respondsToSelector:selector]) return false;
                IMP method = [c methodForSelector:selector];
                reinterpret_cast<void (*)(id, SEL)>(method)(c, selector);
                return true;
            }
            return false;
        });
    }

    bool setContentOffset(HostHandle handle, Point offset) override {
        return guarded(false, [&] {
            UIScrollView* scrollView = as<UIScrollView>(handles_->view(handle));
            if (!scrollView) return false;
            [scrollView setContentOffset:CGPointMake(offset.x, offset.y) animated:NO];
            return true;
        });
    }

    std::shared_ptr<ObjectHandles> handles_;
};

}  // namespace

std::shared_ptr<ControlActions> makeUIKitControlActions(std::shared_ptr<ObjectHandles> handles) {
    return std::make_shared<UIKitControlActions>(std::move(handles));
}

}  // namespace virela::ios
