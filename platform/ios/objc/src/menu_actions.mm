// Reads button menus, runs their actions as the system does and closes open context menus,
// fenced as every call into UIKit is (see object_handles.hpp).

#include "platform/ios/objc/src/menu_actions.hpp"

#import <UIKit/UIKit.h>

#include <optional>
#include <utility>

#include "platform/ios/objc/src/object_handles.hpp"
#include "platform/ios/objc/src/strings.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {
namespace {

class UIKitMenuActions final : public MenuActions {
  public:
    explicit UIKitMenuActions(std::shared_ptr<ObjectHandles> handles)
        : handles_(std::move(handles)) {}

    std::optional<MenuElement> buttonMenu(HostHandle handle) override {
        return guarded<std::optional<MenuElement>>(
            std::nullopt, [&]() -> std::optional<MenuElement> {
                UIButton* button = as<UIButton>(handles_->view(handle));
                UIMenu* menu = button.menu;
                if (!menu) return std::nullopt;
                return describeMenu(menu, 0);
            });
    }

    bool runMenuAction(HostHandle handle) override {
        return guarded(false, [&] {
            UIAction* action = as<UIAction>(handles_->resolve(handle));
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
            UIView* root = handles_->view(handle);
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

  private:
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
                leaf.action = handles_->give(action);
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

    std::shared_ptr<ObjectHandles> handles_;
    NSMutableArray<UIAction*>* heldActions_ = [NSMutableArray array];
};

}  // namespace

std::shared_ptr<MenuActions> makeUIKitMenuActions(std::shared_ptr<ObjectHandles> handles) {
    return std::make_shared<UIKitMenuActions>(std::move(handles));
}

}  // namespace virela::ios
