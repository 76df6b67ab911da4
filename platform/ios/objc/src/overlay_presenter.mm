// The live overlay's presenter: its own window above the app, which takes only the touches on
// "Stop" and "Take back control" and lets every other touch through to the app, and the pan
// watch under the agent's marks.

#include "platform/ios/objc/src/overlay_presenter.hpp"

#import <UIKit/UIKit.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "core/ports/overlay.hpp"
#include "platform/ios/objc/src/guide_marks.hpp"
#include "platform/ios/objc/src/overlay_chrome.hpp"
#import "platform/ios/objc/src/passthrough_window.h"
#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

NS_ASSUME_NONNULL_BEGIN

// The buttons' target. UIControl holds its targets weakly; the presenter keeps this one.
@interface VIROverlayActions : NSObject
@property(nonatomic, copy, nullable) void (^onStop)(void);
@property(nonatomic, copy, nullable) void (^onTakeBack)(void);
- (void)stopTapped;
- (void)takeBackTapped;
@end

@implementation VIROverlayActions

// Each runs a local reference: the callback may hide the overlay, which clears the property
// while the block is still running.
- (void)stopTapped {
    void (^run)(void) = self.onStop;
    if (run) run();
}

- (void)takeBackTapped {
    void (^run)(void) = self.onTakeBack;
    if (run) run();
}

@end

// Watches pans on a view without taking them from the app: it cancels and delays no touch and
// recognizes alongside every other recognizer.
@interface VIRScrollWatcher : NSObject <UIGestureRecognizerDelegate>
- (instancetype)initWithOnScroll:(void (^)(void))onScroll NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
// A watcher that is attached already ignores a second attach.
- (void)attachTo:(UIView*)view;
- (void)detach;
@end

@implementation VIRScrollWatcher {
    void (^_onScroll)(void);
    __weak UIView* _attachedTo;
    UIPanGestureRecognizer* _Nullable _recognizer;
}

- (instancetype)initWithOnScroll:(void (^)(void))onScroll {
    self = [super init];
    if (self) _onScroll = [onScroll copy];
    return self;
}

- (void)attachTo:(UIView*)view {
    if (_recognizer) return;
    UIPanGestureRecognizer* recognizer =
        [[UIPanGestureRecognizer alloc] initWithTarget:self action:@selector(dragged:)];
    recognizer.cancelsTouchesInView = NO;
    recognizer.delaysTouchesBegan = NO;
    recognizer.delaysTouchesEnded = NO;
    recognizer.delegate = self;
    [view addGestureRecognizer:recognizer];
    _recognizer = recognizer;
    _attachedTo = view;
}

- (void)detach {
    UIPanGestureRecognizer* recognizer = _recognizer;
    if (recognizer) [_attachedTo removeGestureRecognizer:recognizer];
    _recognizer = nil;
    _attachedTo = nil;
}

- (void)dragged:(UIPanGestureRecognizer*)recognizer {
    if (recognizer.state != UIGestureRecognizerStateChanged) return;
    // Last: the callback may end the watch, which releases this watcher.
    void (^run)(void) = _onScroll;
    if (run) run();
}

- (BOOL)gestureRecognizer:(UIGestureRecognizer*)gestureRecognizer
    shouldRecognizeSimultaneouslyWithGestureRecognizer:(UIGestureRecognizer*)other {
    return YES;
}

@end

NS_ASSUME_NONNULL_END

namespace virela::ios {
namespace {

using VoidBlock = void (^)(void);

// One step above UIKit's alert level (a variable, so only the step is constant): over the app's
// own alerts, so "Stop" can always be reached.
constexpr UIWindowLevel kLevelsAboveAlert = 1;

constexpr NSTimeInterval kToastFadeSeconds = 0.2;

VoidBlock _Nullable blockFrom(std::function<void()> function) {
    if (!function) return nil;
    return ^{
      function();
    };
}

// The window keeps the target weakly, so a dropped button simply stops answering.
void addPassthroughTarget(VIRPassthroughWindow* window, UIView* view) {
    __weak UIView* weakView = view;
    VIRPassthroughTarget target = ^UIView* _Nullable { return weakView; };
    window.targets = [window.targets arrayByAddingObject:target];
}

// Drops the entries that answer `view`, and those whose view has gone, keeping the order of the
// rest.
void removePassthroughTarget(VIRPassthroughWindow* window, UIView* _Nullable view) {
    NSMutableArray<VIRPassthroughTarget>* kept = [NSMutableArray array];
    for (VIRPassthroughTarget target in window.targets) {
        UIView* answer = target();
        if (!answer || answer == view) continue;
        [kept addObject:target];
    }
    window.targets = kept;
}

void announce(NSString* text) {
    UIAccessibilityPostNotification(UIAccessibilityAnnouncementNotification, text);
}

class UIKitOverlayPresenter final : public OverlayPresenter {
  public:
    explicit UIKitOverlayPresenter(std::shared_ptr<WindowHandles> windows)
        : windows_(std::move(windows)),
          actions_([[VIROverlayActions alloc] init]),
          marks_([NSMutableDictionary dictionary]) {}

    bool show(HostHandle anchor, const std::string& status, std::function<void()> onStop) override {
        hide();
        UIWindow* host = windows_->resolve(anchor);
        UIWindowScene* scene = host.windowScene;
        if (!scene) return false;
        actions_.onStop = blockFrom(std::move(onStop));

        VIRPassthroughWindow* window = [[VIRPassthroughWindow alloc] initWithWindowScene:scene];
        window.backgroundColor = UIColor.clearColor;
        window.windowLevel = UIWindowLevelAlert + kLevelsAboveAlert;
        // The app keeps answering for the status bar and rotation while the overlay is on top.
        VIRHostDeferringController* controller =
            [[VIRHostDeferringController alloc] initWithHostWindow:host];
        window.rootViewController = controller;
        // Visible but never key: the app keeps its keyboard and its first responder.
        window.hidden = NO;
        window_ = window;

        UIView* root = controller.view;
        UIView* frame = makeScreenFrame(root, scene.screen);
        [root addSubview:frame];
        // The first layer colours, now that the views have the window's appearance.
        applyTheme(frame);

        const Pill pill = makePill(root, toNSString(status));
        applyTheme(pill.view);
        [pill.stop addTarget:actions_
                      action:@selector(stopTapped)
            forControlEvents:UIControlEventTouchUpInside];
        addPassthroughTarget(window, pill.stop);
        pill_ = pill.view;
        statusLabel_ = pill.status;
        return !window.hidden && pill.view.superview;
    }

    void hide() override {
        removeMarks();
        [laser_ removeFromSuperview];
        laser_ = nil;
        statusLabel_ = nil;
        [toast_ removeFromSuperview];
        toast_ = nil;
        hideControlBanner();
        pill_ = nil;
        window_.hidden = YES;
        window_ = nil;
        actions_.onStop = nil;
    }

    bool isShowing() override {
        return window_ && !window_.hidden && window_.windowScene && pill_.superview;
    }

    void setStatus(const std::string& text) override { statusLabel_.text = toNSString(text); }

    Size rootSize() override {
        const CGSize size = rootView().bounds.size;
        return {size.width, size.height};
    }

    bool showToast(const OverlayToast& toast) override {
        UIView* root = rootView();
        UIView* pill = pill_;
        if (!root || !pill) return false;
        [toast_ removeFromSuperview];
        toast_ = nil;

        NSString* text = toNSString(toast.text);
        toast_ = addToast(root, pill, text, toast.recording);
        announce(text);
        return true;
    }

    void fadeOutToast() override {
        UIView* toast = toast_;
        toast_ = nil;
        if (!toast) return;
        __weak UIView* weakToast = toast;
        [UIView animateWithDuration:kToastFadeSeconds
            animations:^{
              toast.alpha = 0;
            }
            completion:^(__unused BOOL finished) {
              [weakToast removeFromSuperview];
            }];
    }

    bool showControlBanner(std::function<void()> onTakeBack) override {
        VIRPassthroughWindow* window = window_;
        UIView* root = rootView();
        UIView* pill = pill_;
        if (!window || !root || !pill) return false;
        hideControlBanner();
        actions_.onTakeBack = blockFrom(std::move(onTakeBack));

        const ControlBanner banner = addControlBanner(root, pill);
        [banner.takeBack addTarget:actions_
                            action:@selector(takeBackTapped)
                  forControlEvents:UIControlEventTouchUpInside];
        addPassthroughTarget(window, banner.takeBack);
        controlBanner_ = banner.view;
        takeBackButton_ = banner.takeBack;
        announce(banner.text);
        return banner.view.superview != nil;
    }

    void hideControlBanner() override {
        if (VIRPassthroughWindow* window = window_) {
            removePassthroughTarget(window, takeBackButton_);
        }
        [controlBanner_ removeFromSuperview];
        controlBanner_ = nil;
        takeBackButton_ = nil;
        actions_.onTakeBack = nil;
    }

    bool isShowingControlBanner() override {
        return isShowing() && controlBanner_.superview != nil;
    }

    void moveLaser(Point to) override {
        UIView* root = rootView();
        if (!root || !isFinite(to)) return;
        const CGPoint target = toCGPoint(to);
        UIView* laser = laser_;
        if (!laser || laser.superview != root) {
            VIRThemedLayerView* dot = makeLaserDot();
            [root addSubview:dot];
            dot.apply(dot);
            dot.center = target;
            laser = dot;
            laser_ = dot;
        }
        laser.hidden = NO;
        [UIView animateWithDuration:guide::laserMoveSeconds
                              delay:0
                            options:UIViewAnimationOptionCurveLinear |
                                    UIViewAnimationOptionAllowUserInteraction
                         animations:^{
                           laser.center = target;
                         }
                         completion:nil];
    }

    void hideLaser() override { laser_.hidden = YES; }

    bool addMark(std::uint64_t markId, const MarkGeometry& mark,
                 const std::optional<Color>& color) override {
        UIView* root = rootView();
        if (!root) return false;
        UIView* view = makeMark(mark, color ? toUIColor(*color) : toUIColor(palette::liveRed));
        if (!view) return false;
        view.userInteractionEnabled = NO;
        view.alpha = 0;
        view.transform = CGAffineTransformMakeScale(guide::markStartScale, guide::markStartScale);
        NSNumber* key = @(markId);
        [marks_[key] removeFromSuperview];
        [root addSubview:view];
        applyTheme(view);
        marks_[key] = view;
        [UIView animateWithDuration:guide::popInSeconds
                         animations:^{
                           view.alpha = 1;
                           view.transform = CGAffineTransformIdentity;
                         }];
        return true;
    }

    void fadeOutMark(std::uint64_t markId) override {
        NSNumber* key = @(markId);
        UIView* mark = marks_[key];
        if (!mark) return;
        if (!mark.superview) {
            [marks_ removeObjectForKey:key];
            return;
        }
        __weak UIView* weakMark = mark;
        __weak NSMutableDictionary<NSNumber*, UIView*>* weakMarks = marks_;
        [UIView animateWithDuration:guide::fadeSeconds
            animations:^{
              mark.alpha = 0;
            }
            completion:^(__unused BOOL finished) {
              UIView* faded = weakMark;
              if (!faded) return;
              [faded removeFromSuperview];
              NSMutableDictionary<NSNumber*, UIView*>* marks = weakMarks;
              if (marks[key] == faded) [marks removeObjectForKey:key];
            }];
    }

    void removeMarks() override {
        for (UIView* mark in marks_.allValues) [mark removeFromSuperview];
        [marks_ removeAllObjects];
    }

    std::unique_ptr<Subscription> watchScrolls(HostHandle anchor,
                                               std::function<void()> onScroll) override {
        UIWindow* window = windows_->resolve(anchor);
        VoidBlock block = blockFrom(std::move(onScroll));
        if (!window || !block) return nullptr;
        VIRScrollWatcher* watcher = [[VIRScrollWatcher alloc] initWithOnScroll:block];
        [watcher attachTo:window];
        // The subscription owns the watcher: the recognizer does not keep its target alive.
        return std::make_unique<CallbackSubscription>([watcher] { [watcher detach]; });
    }

  private:
    UIView* _Nullable rootView() const { return window_.rootViewController.view; }

    std::shared_ptr<WindowHandles> windows_;
    VIROverlayActions* actions_;
    // Marks by core's id, so a fade or a wipe finds its view.
    NSMutableDictionary<NSNumber*, UIView*>* marks_;
    VIRPassthroughWindow* _Nullable window_ = nil;
    UIView* _Nullable pill_ = nil;
    UILabel* _Nullable statusLabel_ = nil;
    UIView* _Nullable toast_ = nil;
    UIView* _Nullable controlBanner_ = nil;
    UIButton* _Nullable takeBackButton_ = nil;
    UIView* _Nullable laser_ = nil;
};

}  // namespace

std::shared_ptr<OverlayPresenter> makeOverlayPresenter(std::shared_ptr<WindowHandles> windows) {
    return std::make_shared<UIKitOverlayPresenter>(std::move(windows));
}

}  // namespace virela::ios
