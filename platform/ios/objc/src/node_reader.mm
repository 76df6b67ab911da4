// Reads views, accessibility elements, responders and view controllers for remote input and
// screen tracking. Every read is fenced (see object_handles.hpp): one that throws reads nothing.

#include "platform/ios/objc/src/node_reader.hpp"

#import <UIKit/UIKit.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/ios/objc/src/object_handles.hpp"
#include "platform/ios/objc/src/redaction.hpp"
#include "platform/ios/objc/src/strings.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {
namespace {

Rect toRect(CGRect rect) {
    if (CGRectIsNull(rect)) return Rect::null();
    return Rect::make(rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
}

// Subclasses before their superclasses: a table view is also a scroll view, a switch a control.
ViewKind kindOf(UIView* view) {
    if ([view isKindOfClass:[UIWindow class]]) return ViewKind::window;
    if ([view isKindOfClass:[UITableViewCell class]]) return ViewKind::tableCell;
    if ([view isKindOfClass:[UICollectionViewCell class]]) return ViewKind::collectionCell;
    if ([view isKindOfClass:[UITableView class]]) return ViewKind::tableView;
    if ([view isKindOfClass:[UICollectionView class]]) return ViewKind::collectionView;
    if ([view isKindOfClass:[UITextView class]]) return ViewKind::textView;
    if ([view isKindOfClass:[UIScrollView class]]) return ViewKind::scrollView;
    if ([view isKindOfClass:[UILabel class]]) return ViewKind::label;
    if ([view isKindOfClass:[UIImageView class]]) return ViewKind::imageView;
    if ([view isKindOfClass:[UIButton class]]) return ViewKind::button;
    if ([view isKindOfClass:[UITextField class]]) return ViewKind::textField;
    if ([view isKindOfClass:[UISwitch class]]) return ViewKind::switchControl;
    if ([view isKindOfClass:[UISlider class]]) return ViewKind::slider;
    if ([view isKindOfClass:[UIStepper class]]) return ViewKind::stepper;
    if ([view isKindOfClass:[UISegmentedControl class]]) return ViewKind::segmentedControl;
    if ([view isKindOfClass:[UIControl class]]) return ViewKind::otherControl;
    return ViewKind::view;
}

// `accessibilityContainer` is declared only on UIAccessibilityElement, but UIKit's own elements
// and many apps' custom ones answer it too.
id _Nullable containerOf(id object) {
    if ([object isKindOfClass:[UIAccessibilityElement class]]) {
        return static_cast<UIAccessibilityElement*>(object).accessibilityContainer;
    }
    const SEL selector = @selector(accessibilityContainer);
    if (![object respondsToSelector:selector]) return nil;
    IMP method = [object methodForSelector:selector];
    return reinterpret_cast<id (*)(id, SEL)>(method)(object, selector);
}

// The window an element is drawn in: the one of the nearest view among its containers.
UIWindow* _Nullable windowOfElement(id element) {
    id current = element;
    for (int depth = 0; current && depth < kMaxDepth; ++depth) {
        if ([current isKindOfClass:[UIWindow class]]) return current;
        if ([current isKindOfClass:[UIView class]]) return static_cast<UIView*>(current).window;
        current = containerOf(current);
    }
    return nil;
}

class UIKitNodeReader final : public NodeReader {
  public:
    explicit UIKitNodeReader(std::shared_ptr<ObjectHandles> handles)
        : handles_(std::move(handles)) {}

    std::optional<NodeFacts> readNode(HostHandle handle) override {
        return guarded<std::optional<NodeFacts>>(std::nullopt, [&]() -> std::optional<NodeFacts> {
            id object = handles_->anyObject(handle);
            if (!object) return std::nullopt;
            return describe(object, handle);
        });
    }

    // One walk instead of a read and a subviews call per node: a tap reads whole trees.
    void readViews(HostHandle handle, std::vector<NodeFacts>& out) override {
        out.clear();
        guardedVoid([&] {
            UIView* root = handles_->view(handle);
            if (!root) return;
            NSMutableArray<UIView*>* pending = [NSMutableArray arrayWithObject:root];
            std::vector<std::uint32_t> depths{0};
            while (UIView* current = pending.lastObject) {
                [pending removeLastObject];
                const std::uint32_t depth = depths.back();
                depths.pop_back();
                // A view that cannot be read is left out with everything beneath it.
                std::optional<NodeFacts> node = guarded<std::optional<NodeFacts>>(
                    std::nullopt,
                    [&] { return std::optional(describe(current, handles_->give(current))); });
                if (!node) continue;
                node->depth = depth;
                out.push_back(std::move(*node));
                NSArray<UIView*>* children = current.subviews;
                for (UIView* child in children.reverseObjectEnumerator) {
                    [pending addObject:child];
                    depths.push_back(depth + 1);
                }
            }
        });
    }

    void subviews(HostHandle handle, std::vector<HostHandle>& out) override {
        out.clear();
        const bool read = guarded(false, [&] {
            UIView* view = handles_->view(handle);
            if (!view) return true;
            NSArray<UIView*>* children = [view.subviews copy];
            out.reserve(children.count);
            for (UIView* child in children) out.push_back(handles_->give(child));
            return true;
        });
        if (!read) out.clear();
    }

    HostHandle elementAt(HostHandle node, long index) override {
        return guarded(noHandle, [&] {
            id object = handles_->anyObject(node);
            if (!object || index < 0) return noHandle;
            return handles_->give([object accessibilityElementAtIndex:index]);
        });
    }

    HostHandle hitTest(HostHandle handle, Point point) override {
        return guarded(noHandle, [&] {
            UIWindow* window = handles_->window(handle);
            if (!window) return noHandle;
            // No event: UIKit's own answer for "what would take a touch here".
            return handles_->give([window hitTest:CGPointMake(point.x, point.y) withEvent:nil]);
        });
    }

    HostHandle nextResponder(HostHandle responder) override {
        return guarded(noHandle, [&] {
            id object = handles_->anyObject(responder);
            if (![object isKindOfClass:[UIResponder class]]) return noHandle;
            return handles_->give(static_cast<UIResponder*>(object).nextResponder);
        });
    }

    bool platformVersionAtLeast(int major) override {
        const NSOperatingSystemVersion version{major, 0, 0};
        return [NSProcessInfo.processInfo isOperatingSystemAtLeastVersion:version];
    }

    std::optional<ControllerFacts> readController(HostHandle handle) override {
        return guarded<std::optional<ControllerFacts>>(
            std::nullopt, [&]() -> std::optional<ControllerFacts> {
                UIViewController* controller = as<UIViewController>(handles_->controller(handle));
                if (!controller) return std::nullopt;
                ControllerFacts facts;
                facts.handle = handle;
                facts.typeName = toStdString(NSStringFromClass([controller class]));
                facts.presented = handles_->give(controller.presentedViewController);
                if (UINavigationController* navigation = as<UINavigationController>(controller)) {
                    facts.kind = ControllerKind::navigation;
                    facts.top = handles_->give(navigation.topViewController);
                } else if (UITabBarController* tabBar = as<UITabBarController>(controller)) {
                    facts.kind = ControllerKind::tabBar;
                    facts.top = handles_->give(tabBar.selectedViewController);
                }
                return facts;
            });
    }

  private:
    NodeFacts describe(id object, HostHandle handle) {
        NodeFacts n;
        n.handle = handle;
        n.typeName = toStdString(NSStringFromClass([object class]));
        readAccessibility(object, n);
        n.keyInput = [object conformsToProtocol:@protocol(UIKeyInput)];
        if ([object isKindOfClass:[UIResponder class]]) {
            n.firstResponder = static_cast<UIResponder*>(object).isFirstResponder;
        }
        if ([object isKindOfClass:[UIView class]]) {
            readView(object, n);
        } else {
            n.isView = false;
            if (UIWindow* window = windowOfElement(object)) {
                // Accessibility frames are in screen coordinates.
                n.frame = toRect([window convertRect:[object accessibilityFrame] fromWindow:nil]);
            }
        }
        return n;
    }

    void readAccessibility(id object, NodeFacts& n) {
        n.isAccessibilityElement = [object isAccessibilityElement];
        n.accessibilityTraits = [object accessibilityTraits];
        if ([object conformsToProtocol:@protocol(UIAccessibilityIdentification)]) {
            id<UIAccessibilityIdentification> identified = object;
            n.accessibilityIdentifier = toStdString(identified.accessibilityIdentifier);
        }
        n.accessibilityLabel = toOptionalString([object accessibilityLabel]);
        n.accessibilityContainer = handles_->give(containerOf(object));
        if (NSArray* elements = [object accessibilityElements]) {
            std::vector<HostHandle> handles;
            handles.reserve(elements.count);
            for (id element in elements) handles.push_back(handles_->give(element));
            n.accessibilityElements = std::move(handles);
        } else {
            const NSInteger count = [object accessibilityElementCount];
            n.accessibilityElementCount = count == NSNotFound ? -1 : static_cast<long>(count);
        }
    }

    void readView(UIView* view, NodeFacts& n) {
        n.isView = true;
        n.kind = kindOf(view);
        n.superview = handles_->give(view.superview);
        UIWindow* window = n.kind == ViewKind::window ? static_cast<UIWindow*>(view) : view.window;
        n.window = handles_->give(window);
        if (window) n.frame = toRect([view convertRect:view.bounds toView:window]);
        n.bounds = toRect(view.bounds);
        n.hidden = view.hidden;
        n.alpha = view.alpha;
        n.hasMark = redactionMarkBoxOf(view) != nil;

        if (UIControl* control = as<UIControl>(view)) {
            n.enabled = control.enabled;
            n.showsMenuAsPrimaryAction = control.showsMenuAsPrimaryAction;
        }
        n.secureTextField = isSecureTextInput(view);
        if (UITextView* textView = as<UITextView>(view)) n.editable = textView.editable;
        if (UISwitch* toggle = as<UISwitch>(view)) n.isOn = toggle.on;
        if (UISlider* slider = as<UISlider>(view)) {
            n.value = slider.value;
            n.minimumValue = slider.minimumValue;
            n.maximumValue = slider.maximumValue;
            n.trackRect = toRect([slider trackRectForBounds:slider.bounds]);
        }
        if (UIStepper* stepper = as<UIStepper>(view)) {
            n.value = stepper.value;
            n.minimumValue = stepper.minimumValue;
            n.maximumValue = stepper.maximumValue;
            n.stepValue = stepper.stepValue;
            n.wraps = stepper.wraps;
        }
        if (UISegmentedControl* segments = as<UISegmentedControl>(view)) {
            n.numberOfSegments = static_cast<long>(segments.numberOfSegments);
            n.selectedSegment = static_cast<long>(segments.selectedSegmentIndex);
        }
        if (UIButton* button = as<UIButton>(view)) n.hasMenu = button.menu != nil;
        if (UILabel* label = as<UILabel>(view)) n.text = toOptionalString(label.text);
        if (UIScrollView* scrollView = as<UIScrollView>(view)) {
            n.scrollEnabled = scrollView.scrollEnabled;
            n.contentOffset = {scrollView.contentOffset.x, scrollView.contentOffset.y};
            n.contentSize = {scrollView.contentSize.width, scrollView.contentSize.height};
            const UIEdgeInsets inset = scrollView.adjustedContentInset;
            n.adjustedContentInset = {inset.top, inset.left, inset.bottom, inset.right};
        }
    }

    std::shared_ptr<ObjectHandles> handles_;
};

}  // namespace

std::shared_ptr<NodeReader> makeUIKitNodeReader(std::shared_ptr<ObjectHandles> handles) {
    return std::make_shared<UIKitNodeReader>(std::move(handles));
}

}  // namespace virela::ios
