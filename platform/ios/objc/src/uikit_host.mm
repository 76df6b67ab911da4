// Reads the host app's scenes, windows and view trees into the core's facts.

#include "platform/ios/objc/src/uikit_host.hpp"

#import <UIKit/UIKit.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#import "platform/ios/objc/src/passthrough_window.h"
#include "platform/ios/objc/src/redaction.hpp"
#include "platform/ios/objc/src/strings.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {

WindowHandles::WindowHandles() : table_([NSMapTable strongToWeakObjectsMapTable]) {}

HostHandle WindowHandles::add(UIWindow* window) {
    const HostHandle handle = handleOf(window);
    NSNumber* key = @(handle);
    if ([table_ objectForKey:key] == window) return handle;
    // A freed window leaves its key behind with a nil value; sweep those whenever a window
    // joins, which is rare, rather than on every read.
    for (NSNumber* stale in table_.keyEnumerator.allObjects) {
        if (![table_ objectForKey:stale]) [table_ removeObjectForKey:stale];
    }
    [table_ setObject:window forKey:key];
    return handle;
}

UIWindow* _Nullable WindowHandles::resolve(HostHandle handle) const {
    if (handle == noHandle) return nil;
    return [table_ objectForKey:@(handle)];
}

namespace {

Rect toRect(CGRect rect) {
    if (CGRectIsNull(rect)) return Rect::null();
    return Rect::make(rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
}

SceneActivation activationOf(UISceneActivationState state) {
    switch (state) {
        case UISceneActivationStateForegroundActive:
            return SceneActivation::foregroundActive;
        case UISceneActivationStateForegroundInactive:
            return SceneActivation::foregroundInactive;
        case UISceneActivationStateBackground:
            return SceneActivation::background;
        case UISceneActivationStateUnattached:
            return SceneActivation::unattached;
    }
    return SceneActivation::unattached;
}

// Whether a transform leaves a box a box of the same size: a translation, nothing more.
bool movesOnly(CGAffineTransform t) { return t.a == 1 && t.b == 0 && t.c == 0 && t.d == 1; }
bool movesOnly(CATransform3D t) {
    return CATransform3DIsAffine(t) && movesOnly(CATransform3DGetAffineTransform(t));
}

// One walk over a window's tree. Reads everything through the live objects and never keeps a
// view past the visitor call that receives it.
class ViewWalk {
  public:
    ViewWalk(UIWindow* window, ViewVisitor& visitor)
        : window_(window),
          windowLayer_(window.layer.presentationLayer ? window.layer.presentationLayer
                                                      : window.layer),
          visitor_(visitor) {}

    void visit(UIView* view, std::uint32_t depth) {
        ViewFacts facts;
        facts.handle = handleOf(view);
        facts.depth = depth;
        facts.frame = toRect([view convertRect:view.bounds toView:window_]);
        if (CALayer* presentation = view.layer.presentationLayer) {
            facts.presentation = toRect([presentation convertRect:presentation.bounds
                                                          toLayer:windowLayer_]);
        }
        CALayer* layer = view.layer;
        facts.alpha = std::min<double>(view.alpha, layer.opacity);
        UIColor* background = view.backgroundColor;
        facts.backgroundAlpha = background ? CGColorGetAlpha(background.CGColor) : 0;
        facts.hidden = view.hidden;
        facts.clipsToBounds = view.clipsToBounds;
        facts.cornerRadius = layer.cornerRadius;
        facts.masked = layer.mask != nil;
        facts.transformIsTranslation = movesOnly(view.transform) && movesOnly(layer.transform);
        facts.animating = view.layer.animationKeys.count > 0;
        facts.secureTextField = isSecureTextInput(view);

        // The facts borrow the identifier's bytes and the mark: both objects must outlive the
        // visitor call, which ARC would not otherwise promise after their last use here.
        NS_VALID_UNTIL_END_OF_SCOPE NSString* identifier = view.accessibilityIdentifier;
        if (const char* utf8 = identifier.UTF8String) facts.accessibilityIdentifier = utf8;
        NS_VALID_UNTIL_END_OF_SCOPE VIRRedactionMarkBox* box = redactionMarkBoxOf(view);
        facts.mark = box ? box.mark : nullptr;

        if (!visitor_.visit(facts)) return;

        NSArray<UIView*>* children = [view.subviews copy];
        for (UIView* child in children) {
            // The visitor or a layout pass moved views: what is left would describe another
            // tree than the part already read.
            if (child.superview != view) throw HostReadError("the view tree changed while read");
            visit(child, depth + 1);
        }
        if (view.subviews.count != children.count) {
            throw HostReadError("the view tree changed while read");
        }
    }

  private:
    UIWindow* window_;
    CALayer* windowLayer_;
    ViewVisitor& visitor_;
};

class UIKitHost final : public HostInterface {
  public:
    explicit UIKitHost(std::shared_ptr<WindowHandles> windows) : windows_(std::move(windows)) {}

    void readScenes(std::vector<SceneFacts>& out) override {
        out.clear();
        for (id scene in UIApplication.sharedApplication.connectedScenes) {
            if (![scene isKindOfClass:[UIWindowScene class]]) continue;
            UIWindowScene* windowScene = scene;
            SceneFacts facts;
            facts.handle = handleOf(windowScene);
            facts.activation = activationOf(windowScene.activationState);
            for (UIWindow* window in windowScene.windows) {
                facts.windows.push_back(windows_->add(window));
            }
            out.push_back(std::move(facts));
        }
    }

    std::optional<WindowFacts> readWindow(HostHandle handle) override {
        UIWindow* window = windows_->resolve(handle);
        if (!window) return std::nullopt;
        WindowFacts facts;
        facts.handle = handle;
        facts.scene = handleOf(window.windowScene);
        facts.level = window.windowLevel;
        facts.key = window.isKeyWindow;
        facts.hidden = window.hidden;
        facts.alpha = window.alpha;
        facts.passthrough = [window isKindOfClass:[VIRPassthroughWindow class]];
        facts.typeName = toStdString(NSStringFromClass([window class]));
        facts.bounds = toRect(window.bounds);
        // The screen's interface-oriented space, the one every window of the scene shares.
        const CGPoint origin = [window convertPoint:window.bounds.origin
                                  toCoordinateSpace:window.screen.coordinateSpace];
        facts.screenOrigin = {origin.x, origin.y};
        facts.rootViewController = handleOf(window.rootViewController);
        return facts;
    }

    void walkViews(HostHandle handle, ViewVisitor& visitor) override {
        UIWindow* window = windows_->resolve(handle);
        if (!window) throw HostReadError("the window is gone");
        NSString* failure = nil;
        @try {
            // Reading a tree autoreleases an array or two per view, three times a second while
            // sharing: drain them per walk, not whenever the main run loop gets round to it.
            @autoreleasepool {
                ViewWalk(window, visitor).visit(window, 0);
            }
        } @catch (NSException* exception) {
            failure = exception.reason ? exception.reason : exception.name;
        } @catch (id) {
            failure = @"an Objective-C exception";
        }
        if (failure) throw HostReadError(toStdString(failure));
    }

    std::unique_ptr<Subscription> observeWindowVisibility(
        std::function<void(HostHandle window, bool visible)> handler) override {
        auto shared = std::make_shared<std::function<void(HostHandle, bool)>>(std::move(handler));
        auto windows = windows_;
        NSMutableArray<id<NSObject>>* tokens = [NSMutableArray array];
        for (const bool visible : {true, false}) {
            NSNotificationName name = visible ? UIWindowDidBecomeVisibleNotification
                                              : UIWindowDidBecomeHiddenNotification;
            // No queue: UIKit posts these on the main thread, and core should hear of a window
            // before it draws the next frame, not after.
            id<NSObject> token = [NSNotificationCenter.defaultCenter
                addObserverForName:name
                            object:nil
                             queue:nil
                        usingBlock:^(NSNotification* notification) {
                          id object = notification.object;
                          if (![object isKindOfClass:[UIWindow class]]) return;
                          // UIKit may post "became hidden" while the window is being freed,
                          // and a weak reference to such an object aborts the process. A
                          // hidden window only leaves core's lists, which needs its handle
                          // alone: its address, without registering it.
                          (*shared)(visible ? windows->add(object) : handleOf(object), visible);
                        }];
            [tokens addObject:token];
        }
        NSArray<id<NSObject>>* observers = [tokens copy];
        return std::make_unique<CallbackSubscription>([observers] {
            for (id<NSObject> token in observers) {
                [NSNotificationCenter.defaultCenter removeObserver:token];
            }
        });
    }

  private:
    std::shared_ptr<WindowHandles> windows_;
};

}  // namespace

std::shared_ptr<HostInterface> makeUIKitHost(std::shared_ptr<WindowHandles> windows) {
    return std::make_shared<UIKitHost>(std::move(windows));
}

}  // namespace virela::ios
