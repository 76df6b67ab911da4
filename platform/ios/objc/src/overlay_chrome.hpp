#pragma once

// The live overlay's chrome, built in code: the screen frame, the pill with its "Stop", toasts and
// the control banner with "Take back control"; and the few drawing helpers the agent's marks
// share with them. Main thread only.

#import <QuartzCore/QuartzCore.h>
#import <UIKit/UIKit.h>

#import "VirelaAgentObjC/VIRThemedLayerView.h"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

using ApplyBlock = void (^)(VIRThemedLayerView*);

UIFont* boldFont(CGFloat size);
UIFont* semiboldFont(CGFloat size);

// Layers take CGColors, which do not follow the appearance; this re-resolves the shadow colour
// for the view's appearance whenever it changes.
ApplyBlock shadowApply(UIColor* color);

// A pulse that keeps running across the app's trips to the background.
void addPulse(CALayer* layer, NSString* keyPath, float from, float to, CFTimeInterval duration);

// Gives a themed view its first layer colours, once it has its window's appearance.
void applyTheme(UIView* view);

// The pulsing red frame around the whole of `root`, with the screen's corners where it has them.
UIView* makeScreenFrame(UIView* root, UIScreen* _Nullable screen);

struct Pill {
    VIRThemedLayerView* view;
    UILabel* status;
    UIButton* stop;
};

// The pill on `root`, pinned under the safe area's top.
Pill makePill(UIView* root, NSString* status);

// A toast under `pill`, added to `root` and coloured; a pulsing dot marks a recording, a tick
// anything else.
VIRThemedLayerView* addToast(UIView* root, UIView* pill, NSString* text, bool recording);

struct ControlBanner {
    VIRThemedLayerView* view;
    UIButton* takeBack;
    NSString* text;  // what it says, for VoiceOver to announce
};

// The control banner under `pill`, added to `root` and coloured.
ControlBanner addControlBanner(UIView* root, UIView* pill);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
