#pragma once

// The window that carries the library's own overlays (prompts, the remote pointer, the banner).
// It sits above the host's windows but takes only the touches that land on one of its targets;
// every other touch falls through to the host's windows below.

#import <UIKit/UIKit.h>

NS_ASSUME_NONNULL_BEGIN

typedef UIView* _Nullable (^VIRPassthroughTarget)(void);

@interface VIRPassthroughWindow : UIWindow

// Asked in order on every hit test; a target returns its view, or nil while it has none. Blocks
// rather than views so the window holds no overlay alive and sees replaced views at once.
@property(nonatomic, copy) NSArray<VIRPassthroughTarget>* targets;

@end

// The root controller of the library's own windows (the banner, the live overlay). The topmost
// full-screen window's controller may be the one UIKit asks about the status bar, the home
// indicator, edge gestures and rotation; every answer is the app's, read from `hostWindow`.
@interface VIRHostDeferringController : UIViewController
- (instancetype)initWithHostWindow:(UIWindow*)hostWindow NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithNibName:(nullable NSString*)nibName
                         bundle:(nullable NSBundle*)bundle NS_UNAVAILABLE;
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_UNAVAILABLE;
@end

NS_ASSUME_NONNULL_END
