// Reads views, accessibility elements, responders and view controllers for remote input, and
// performs on them the effects core decides. Every call into UIKit may run app code (overrides,
// delegates, action handlers), so each one is fenced: an exception means "nothing read" or "did
// not act", and never leaves this file.

#include "platform/ios/objc/src/uikit_actions.hpp"

#import <UIKit/UIKit.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "platform/ios/objc/src/redaction.hpp"
#include "platform/ios/objc/src/strings.hpp"

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

// A container chain or controller tree deeper than this is not one a host builds; stop there
// rather than loop on a cycle an app's accessibility code made.
constexpr int kMaxDepth = 64;

// Runs `body` in its own autorelease pool (the tap ladder reads many nodes in one turn of the
// run loop) and turns an Objective-C exception into `fallback`.
template <typename R, typename Body>
R guarded(R fallback, Body&& body) {
    @try {
        @autoreleasepool {
            return body();
        }
    } @catch (id) {
        return fallback;
    }
}

template <typename Body>
void guardedVoid(Body&& body) {
    @try {
        @autoreleasepool {
            body();
        }
    } @catch (id) {
    }
}

Rect toRect(CGRect rect) {
    if (CGRectIsNull(rect)) return Rect::null();
    return Rect::make(rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
}

NSIndexPath* toNSIndexPath(IndexPath path) {
    return [NSIndexPath indexPathForItem:path.item inSection:path.section];
}

std::optional<IndexPath> fromNSIndexPath(NSIndexPath* _Nullable path) {
    if (!path || path.length < 2) return std::nullopt;
    return IndexPath{static_cast<long>(path.section), static_cast<long>(path.item)};
}

std::vector<UIWindow*> sceneWindows() {
    std::vector<UIWindow*> out;
    for (UIScene* scene in UIApplication.sharedApplication.connectedScenes) {
        if (![scene isKindOfClass:[UIWindowScene class]]) continue;
        for (UIWindow* window in static_cast<UIWindowScene*>(scene).windows) {
            out.push_back(window);
        }
    }
    return out;
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

// Weakly held objects by handle, for everything but windows, which WindowHandles keeps so
// the host interface can read them too.
class ObjectHandles {
  public:
    HostHandle add(id _Nullable object) {
        if (!object) return noHandle;
        const HostHandle handle = handleOf(object);
        NSNumber* key = @(handle);
        if ([table_ objectForKey:key] == object) return handle;
        [table_ setObject:object forKey:key];
        // Views come and go by the thousand while someone taps around; the table keeps the
        // keys of freed ones. Sweep when it has doubled since the last sweep, so the cost stays
        // constant per object handed out.
        if (table_.count >= sweepAt_) {
            for (NSNumber* stale in table_.keyEnumerator.allObjects) {
                if (![table_ objectForKey:stale]) [table_ removeObjectForKey:stale];
            }
            sweepAt_ = std::max<NSUInteger>(kFirstSweep, table_.count * 2);
        }
        return handle;
    }

    id _Nullable resolve(HostHandle handle) const {
        if (handle == noHandle) return nil;
        return [table_ objectForKey:@(handle)];
    }

  private:
    static constexpr NSUInteger kFirstSweep = 512;
    NSMapTable<NSNumber*, id>* table_ = [NSMapTable strongToWeakObjectsMapTable];
    NSUInteger sweepAt_ = kFirstSweep;
};

class UIKitActions final : public NodeReader,
                           public ResponderActions,
                           public ControlActions,
                           public ListActions,
                           public MenuActions {
  public:
    explicit UIKitActions(std::shared_ptr<WindowHandles> windows) : windows_(std::move(windows)) {}

    std::optional<NodeFacts> readNode(HostHandle handle) override {
        return guarded<std::optional<NodeFacts>>(std::nullopt, [&]() -> std::optional<NodeFacts> {
            id object = anyObject(handle);
            if (!object) return std::nullopt;
            return describe(object, handle);
        });
    }

    // One walk instead of a read and a subviews call per node: a tap reads whole trees.
    void readViews(HostHandle handle, std::vector<NodeFacts>& out) override {
        out.clear();
        guardedVoid([&] {
            UIView* root = view(handle);
            if (!root) return;
            NSMutableArray<UIView*>* pending = [NSMutableArray arrayWithObject:root];
            std::vector<std::uint32_t> depths{0};
            while (UIView* current = pending.lastObject) {
                [pending removeLastObject];
                const std::uint32_t depth = depths.back();
                depths.pop_back();
                // A view that cannot be read is left out with everything beneath it.
                std::optional<NodeFacts> node = guarded<std::optional<NodeFacts>>(
                    std::nullopt, [&] { return std::optional(describe(current, give(current))); });
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
            UIView* view = this->view(handle);
            if (!view) return true;
            NSArray<UIView*>* children = [view.subviews copy];
            out.reserve(children.count);
            for (UIView* child in children) out.push_back(give(child));
            return true;
        });
        if (!read) out.clear();
    }

    HostHandle elementAt(HostHandle node, long index) override {
        return guarded(noHandle, [&] {
            id object = anyObject(node);
            if (!object || index < 0) return noHandle;
            return give([object accessibilityElementAtIndex:index]);
        });
    }

    HostHandle hitTest(HostHandle handle, Point point) override {
        return guarded(noHandle, [&] {
            UIWindow* window = this->window(handle);
            if (!window) return noHandle;
            // No event: UIKit's own answer for "what would take a touch here".
            return give([window hitTest:CGPointMake(point.x, point.y) withEvent:nil]);
        });
    }

    HostHandle nextResponder(HostHandle responder) override {
        return guarded(noHandle, [&] {
            id object = anyObject(responder);
            if (![object isKindOfClass:[UIResponder class]]) return noHandle;
            return give(static_cast<UIResponder*>(object).nextResponder);
        });
    }

    bool platformVersionAtLeast(int major) override {
        const NSOperatingSystemVersion version{major, 0, 0};
        return [NSProcessInfo.processInfo isOperatingSystemAtLeastVersion:version];
    }

    bool accessibilityActivate(HostHandle element) override {
        return guarded(false, [&] {
            id object = anyObject(element);
            return object && [object accessibilityActivate];
        });
    }

    bool becomeFirstResponder(HostHandle responder) override {
        return guarded(false, [&] {
            UIResponder* r = as<UIResponder>(anyObject(responder));
            return r && [r becomeFirstResponder];
        });
    }

    bool resignFirstResponder(HostHandle responder) override {
        return guarded(false, [&] {
            UIResponder* r = as<UIResponder>(anyObject(responder));
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

    bool sendActions(HostHandle control, std::uint64_t events) override {
        return guarded(false, [&] {
            UIControl* c = as<UIControl>(view(control));
            if (!c) return false;
            // The whole mask, as given: UIKit sends the actions of every event set in it, so a
            // button hears both touch up inside and its primary action from one call.
            [c sendActionsForControlEvents:static_cast<UIControlEvents>(events)];
            return true;
        });
    }

    bool setOn(HostHandle control, bool on, bool animated) override {
        return guarded(false, [&] {
            UISwitch* s = as<UISwitch>(view(control));
            if (!s) return false;
            [s setOn:on animated:animated];
            return true;
        });
    }

    bool setValue(HostHandle control, double value, bool animated) override {
        return guarded(false, [&] {
            UIView* v = view(control);
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
            UISegmentedControl* s = as<UISegmentedControl>(view(control));
            if (!s || index < 0 || index >= static_cast<long>(s.numberOfSegments)) return false;
            s.selectedSegmentIndex = index;
            return true;
        });
    }

    bool performPrimaryAction(HostHandle button) override {
        return guarded(false, [&] {
            UIControl* c = as<UIControl>(view(button));
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

    std::optional<std::pair<ListFacts, IndexPath>> listOfCell(HostHandle handle) override {
        using Answer = std::optional<std::pair<ListFacts, IndexPath>>;
        return guarded<Answer>(std::nullopt, [&]() -> Answer {
            UIView* cell = view(handle);
            const bool tableCell = [cell isKindOfClass:[UITableViewCell class]];
            if (!tableCell && ![cell isKindOfClass:[UICollectionViewCell class]]) {
                return std::nullopt;
            }
            UIView* list = cell.superview;
            while (list && ![list isKindOfClass:[UITableView class]] &&
                   ![list isKindOfClass:[UICollectionView class]]) {
                list = list.superview;
            }
            if (!list) return std::nullopt;
            ListFacts facts;
            facts.list = give(list);
            facts.typeName = toStdString(NSStringFromClass([list class]));
            std::optional<IndexPath> path;
            id delegate = nil;
            if (UITableView* table = as<UITableView>(list); table && tableCell) {
                path =
                    fromNSIndexPath([table indexPathForCell:static_cast<UITableViewCell*>(cell)]);
                delegate = table.delegate;
                facts.isTable = true;
                facts.answersWillSelect =
                    [delegate respondsToSelector:@selector(tableView:willSelectRowAtIndexPath:)];
                facts.answersDidSelect =
                    [delegate respondsToSelector:@selector(tableView:didSelectRowAtIndexPath:)];
            } else if (UICollectionView* collection = as<UICollectionView>(list);
                       collection && !tableCell) {
                path = fromNSIndexPath(
                    [collection indexPathForCell:static_cast<UICollectionViewCell*>(cell)]);
                delegate = collection.delegate;
                facts.isTable = false;
                facts.answersShouldSelect = [delegate
                    respondsToSelector:@selector(collectionView:shouldSelectItemAtIndexPath:)];
                facts.answersDidSelect = [delegate
                    respondsToSelector:@selector(collectionView:didSelectItemAtIndexPath:)];
                facts.answersPerformPrimaryAction =
                    [delegate respondsToSelector:@selector(collectionView:
                                                     performPrimaryActionForItemAtIndexPath:)];
            }
            if (!path) return std::nullopt;
            if (delegate) facts.delegateTypeName = toStdString(NSStringFromClass([delegate class]));
            return std::make_pair(std::move(facts), *path);
        });
    }

    std::optional<IndexPath> willSelectRow(HostHandle handle, IndexPath path) override {
        // An exception from the delegate vetoes the row: nothing is selected on its behalf.
        return guarded<std::optional<IndexPath>>(std::nullopt, [&]() -> std::optional<IndexPath> {
            UITableView* table = as<UITableView>(view(handle));
            if (!table) return std::nullopt;
            id<UITableViewDelegate> delegate = table.delegate;
            if (![delegate respondsToSelector:@selector(tableView:willSelectRowAtIndexPath:)]) {
                return path;
            }
            return fromNSIndexPath([delegate tableView:table
                              willSelectRowAtIndexPath:toNSIndexPath(path)]);
        });
    }

    bool selectRow(HostHandle list, IndexPath path) override {
        return guarded(false, [&] {
            UIView* v = view(list);
            if (UITableView* table = as<UITableView>(v)) {
                [table selectRowAtIndexPath:toNSIndexPath(path)
                                   animated:NO
                             scrollPosition:UITableViewScrollPositionNone];
                return true;
            }
            if (UICollectionView* collection = as<UICollectionView>(v)) {
                [collection selectItemAtIndexPath:toNSIndexPath(path)
                                         animated:NO
                                   scrollPosition:UICollectionViewScrollPositionNone];
                return true;
            }
            return false;
        });
    }

    bool didSelectRow(HostHandle list, IndexPath path) override {
        return guarded(false, [&] {
            UIView* v = view(list);
            if (UITableView* table = as<UITableView>(v)) {
                id<UITableViewDelegate> delegate = table.delegate;
                if (![delegate respondsToSelector:@selector(tableView:didSelectRowAtIndexPath:)]) {
                    return false;
                }
                [delegate tableView:table didSelectRowAtIndexPath:toNSIndexPath(path)];
                return true;
            }
            if (UICollectionView* collection = as<UICollectionView>(v)) {
                id<UICollectionViewDelegate> delegate = collection.delegate;
                if (![delegate respondsToSelector:@selector(collectionView:
                                                      didSelectItemAtIndexPath:)]) {
                    return false;
                }
                [delegate collectionView:collection didSelectItemAtIndexPath:toNSIndexPath(path)];
                return true;
            }
            return false;
        });
    }

    bool shouldSelectItem(HostHandle handle, IndexPath path) override {
        // Gone, or an exception from the delegate: a veto, so nothing is selected.
        return guarded(false, [&] {
            UICollectionView* collection = as<UICollectionView>(view(handle));
            if (!collection) return false;
            id<UICollectionViewDelegate> delegate = collection.delegate;
            if (![delegate respondsToSelector:@selector(collectionView:
                                                  shouldSelectItemAtIndexPath:)]) {
                return true;
            }
            return static_cast<bool>([delegate collectionView:collection
                                  shouldSelectItemAtIndexPath:toNSIndexPath(path)]);
        });
    }

    bool performPrimaryActionForItem(HostHandle handle, IndexPath path) override {
        return guarded(false, [&] {
            UICollectionView* collection = as<UICollectionView>(view(handle));
            if (!collection) return false;
            if (@available(iOS 16.0, *)) {
                id<UICollectionViewDelegate> delegate = collection.delegate;
                if (![delegate respondsToSelector:@selector(collectionView:
                                                      performPrimaryActionForItemAtIndexPath:)]) {
                    return false;
                }
                [delegate collectionView:collection
                    performPrimaryActionForItemAtIndexPath:toNSIndexPath(path)];
                return true;
            }
            return false;
        });
    }

    std::optional<MenuElement> buttonMenu(HostHandle handle) override {
        return guarded<std::optional<MenuElement>>(
            std::nullopt, [&]() -> std::optional<MenuElement> {
                UIButton* button = as<UIButton>(view(handle));
                UIMenu* menu = button.menu;
                if (!menu) return std::nullopt;
                return describeMenu(menu, 0);
            });
    }

    bool runMenuAction(HostHandle handle) override {
        return guarded(false, [&] {
            UIAction* action = as<UIAction>(objects_.resolve(handle));
            if (!action) return false;
            // Sending the primary-action event to a button built around the action runs its
            // handler the way the system does, sender included.
            UIButton* button =
                [UIButton buttonWithConfiguration:[UIButtonConfiguration plainButtonConfiguration]
                                    primaryAction:action];
            [button sendActionsForControlEvents:UIControlEventPrimaryActionTriggered];
            return true;
        });
    }

    void dismissContextMenus(HostHandle handle) override {
        guardedVoid([&] {
            UIView* root = view(handle);
            if (!root) return;
            NSMutableArray<UIView*>* pending = [NSMutableArray arrayWithObject:root];
            while (UIView* current = pending.lastObject) {
                [pending removeLastObject];
                // One app interaction that throws must not keep the others' menus open.
                guardedVoid([&] { dismissMenus(current); });
                NSArray<UIView*>* children = current.subviews;
                for (UIView* child in children.reverseObjectEnumerator) [pending addObject:child];
            }
        });
    }

    bool setContentOffset(HostHandle handle, Point offset) override {
        return guarded(false, [&] {
            UIScrollView* scrollView = as<UIScrollView>(view(handle));
            if (!scrollView) return false;
            [scrollView setContentOffset:CGPointMake(offset.x, offset.y) animated:NO];
            return true;
        });
    }

    std::optional<ControllerFacts> readController(HostHandle handle) override {
        return guarded<std::optional<ControllerFacts>>(
            std::nullopt, [&]() -> std::optional<ControllerFacts> {
                UIViewController* controller = as<UIViewController>(this->controller(handle));
                if (!controller) return std::nullopt;
                ControllerFacts facts;
                facts.handle = handle;
                facts.typeName = toStdString(NSStringFromClass([controller class]));
                facts.presented = give(controller.presentedViewController);
                if (UINavigationController* navigation = as<UINavigationController>(controller)) {
                    facts.kind = ControllerKind::navigation;
                    facts.top = give(navigation.topViewController);
                } else if (UITabBarController* tabBar = as<UITabBarController>(controller)) {
                    facts.kind = ControllerKind::tabBar;
                    facts.top = give(tabBar.selectedViewController);
                }
                return facts;
            });
    }

  private:
    template <typename T>
    static T* _Nullable as(id _Nullable object) {
        return [object isKindOfClass:[T class]] ? object : nil;
    }

    HostHandle give(id _Nullable object) {
        if (UIWindow* window = as<UIWindow>(object)) return windows_->add(window);
        return objects_.add(object);
    }

    // Any object handed out before. Views core learned elsewhere (from the view walk) and
    // never through here are looked for in the scenes' windows, then remembered.
    id _Nullable anyObject(HostHandle handle) {
        if (handle == noHandle) return nil;
        if (id object = objects_.resolve(handle)) return object;
        if (UIWindow* window = windows_->resolve(handle)) return window;
        return findView(handle);
    }

    UIView* _Nullable view(HostHandle handle) { return as<UIView>(anyObject(handle)); }

    UIWindow* _Nullable window(HostHandle handle) {
        if (UIWindow* window = windows_->resolve(handle)) return window;
        return as<UIWindow>(objects_.resolve(handle));
    }

    id<UIKeyInput> _Nullable keyInput(HostHandle handle) {
        id object = anyObject(handle);
        return [object conformsToProtocol:@protocol(UIKeyInput)] ? object : nil;
    }

    // The window's root controller reaches core through the window's facts, not through here:
    // look for it, and whatever it presents or contains, from the scenes' windows.
    id _Nullable controller(HostHandle handle) {
        if (handle == noHandle) return nil;
        if (id object = objects_.resolve(handle)) return object;
        NSMutableArray<UIViewController*>* pending = [NSMutableArray array];
        for (UIWindow* window : sceneWindows()) {
            if (UIViewController* root = window.rootViewController) [pending addObject:root];
        }
        for (NSUInteger visited = 0; pending.count > 0 && visited < 4096; ++visited) {
            UIViewController* current = pending.lastObject;
            [pending removeLastObject];
            if (handleOf(current) == handle) {
                objects_.add(current);
                return current;
            }
            if (UIViewController* presented = current.presentedViewController) {
                // A child reports its ancestor's presented controller too; visiting it twice
                // costs little, and the bound above ends any loop.
                [pending addObject:presented];
            }
            [pending addObjectsFromArray:current.childViewControllers];
        }
        return nil;
    }

    id _Nullable findView(HostHandle handle) {
        NSMutableArray<UIView*>* pending = [NSMutableArray array];
        for (UIWindow* window : sceneWindows()) [pending addObject:window];
        while (UIView* current = pending.lastObject) {
            [pending removeLastObject];
            if (handleOf(current) == handle) {
                give(current);
                return current;
            }
            [pending addObjectsFromArray:current.subviews];
        }
        return nil;
    }

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
        n.accessibilityContainer = give(containerOf(object));
        if (NSArray* elements = [object accessibilityElements]) {
            std::vector<HostHandle> handles;
            handles.reserve(elements.count);
            for (id element in elements) handles.push_back(give(element));
            n.accessibilityElements = std::move(handles);
        } else {
            const NSInteger count = [object accessibilityElementCount];
            n.accessibilityElementCount = count == NSNotFound ? -1 : static_cast<long>(count);
        }
    }

    void readView(UIView* view, NodeFacts& n) {
        n.isView = true;
        n.kind = kindOf(view);
        n.superview = give(view.superview);
        UIWindow* window = n.kind == ViewKind::window ? static_cast<UIWindow*>(view) : view.window;
        n.window = give(window);
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

    MenuElement describeMenu(UIMenu* menu, int depth) {
        MenuElement element;
        element.isMenu = true;
        element.title = toStdString(menu.title);
        if (depth >= kMaxDepth) return element;
        for (UIMenuElement* child in menu.children) {
            if (UIMenu* submenu = as<UIMenu>(child)) {
                element.children.push_back(describeMenu(submenu, depth + 1));
            } else if (UIAction* action = as<UIAction>(child)) {
                MenuElement leaf;
                leaf.title = toStdString(action.title);
                leaf.identifier = toStdString(action.identifier);
                leaf.action = give(action);
                hold(action);
                element.children.push_back(std::move(leaf));
            }
            // Commands and deferred elements have no handler a button can run: left out.
        }
        return element;
    }

    // A menu may hand out copies of its actions on every read, which nothing but our weak
    // table would hold. Keep the ones read until the main queue's next turn, long enough for
    // the tap that read them to run one.
    void hold(UIAction* action) {
        if (heldActions_.count == 0) {
            NSMutableArray<UIAction*>* held = heldActions_;
            dispatch_async(dispatch_get_main_queue(), ^{
              [held removeAllObjects];
            });
        }
        [heldActions_ addObject:action];
    }

    static void dismissMenus(UIView* view) {
        UIContextMenuInteraction* own = nil;
        if (UIControl* control = as<UIControl>(view)) own = control.contextMenuInteraction;
        for (id<UIInteraction> interaction in [view.interactions copy]) {
            if (UIContextMenuInteraction* menu = as<UIContextMenuInteraction>(interaction)) {
                if (menu == own) own = nil;
                [menu dismissMenu];
            }
        }
        [own dismissMenu];
    }

    std::shared_ptr<WindowHandles> windows_;
    ObjectHandles objects_;
    NSMutableArray<UIAction*>* heldActions_ = [NSMutableArray array];
};

}  // namespace

HostActions makeUIKitActions(std::shared_ptr<WindowHandles> windows) {
    auto actions = std::make_shared<UIKitActions>(std::move(windows));
    return {actions, actions, actions, actions, actions};
}

}  // namespace virela::ios
