#import "platform/ios/objc/src/passthrough_window.h"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

@implementation VIRPassthroughWindow

- (NSArray<VIRPassthroughTarget>*)targets {
    return _targets ? _targets : @[];
}

- (nullable UIView*)hitTest:(CGPoint)point withEvent:(nullable UIEvent*)event {
    for (VIRPassthroughTarget target in self.targets) {
        UIView* view = target();
        if (!view || view.hidden) continue;
        const CGPoint local = [self convertPoint:point toView:view];
        if (!CGRectContainsPoint(view.bounds, local)) continue;
        // A target's own subviews (a button on a prompt) take the touch; its background keeps
        // it from the host.
        UIView* hit = [view hitTest:local withEvent:event];
        return hit ? hit : view;
    }
    return nil;
}

@end

@implementation VIRHostDeferringController {
    __weak UIWindow* _hostWindow;
}

- (instancetype)initWithHostWindow:(UIWindow*)hostWindow {
    self = [super initWithNibName:nil bundle:nil];
    if (self) _hostWindow = hostWindow;
    return self;
}

- (void)loadView {
    UIView* view = [[UIView alloc] initWithFrame:CGRectZero];
    view.backgroundColor = UIColor.clearColor;
    self.view = view;
}

// The controller on top of the app's window: the last one presented over its root.
- (nullable UIViewController*)hostController {
    UIViewController* controller = _hostWindow.rootViewController;
    while (controller.presentedViewController) controller = controller.presentedViewController;
    return controller;
}

- (UIStatusBarStyle)preferredStatusBarStyle {
    UIViewController* controller = self.hostController;
    while (UIViewController* child = controller.childViewControllerForStatusBarStyle) {
        controller = child;
    }
    return controller ? controller.preferredStatusBarStyle : [super preferredStatusBarStyle];
}

- (BOOL)prefersStatusBarHidden {
    UIViewController* controller = self.hostController;
    while (UIViewController* child = controller.childViewControllerForStatusBarHidden) {
        controller = child;
    }
    return controller ? controller.prefersStatusBarHidden : [super prefersStatusBarHidden];
}

- (BOOL)prefersHomeIndicatorAutoHidden {
    UIViewController* controller = self.hostController;
    while (UIViewController* child = controller.childViewControllerForHomeIndicatorAutoHidden) {
        controller = child;
    }
    return controller ? controller.prefersHomeIndicatorAutoHidden
                      : [super prefersHomeIndicatorAutoHidden];
}

- (UIRectEdge)preferredScreenEdgesDeferringSystemGestures {
    UIViewController* controller = self.hostController;
    while (UIViewController* child =
               controller.childViewControllerForScreenEdgesDeferringSystemGestures) {
        controller = child;
    }
    return controller ? controller.preferredScreenEdgesDeferringSystemGestures
                      : [super preferredScreenEdgesDeferringSystemGestures];
}

- (UIInterfaceOrientationMask)supportedInterfaceOrientations {
    UIViewController* root = _hostWindow.rootViewController;
    return root ? root.supportedInterfaceOrientations : [super supportedInterfaceOrientations];
}

@end
