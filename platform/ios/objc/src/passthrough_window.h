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

NS_ASSUME_NONNULL_END
