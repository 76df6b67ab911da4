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
