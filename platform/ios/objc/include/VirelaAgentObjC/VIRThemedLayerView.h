#import <UIKit/UIKit.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// A view for the colours a layer holds (a border, a shadow). Layers take CGColors, which do not
/// follow the light and dark appearance: `apply` sets them again whenever the view's colour
/// appearance changes. It is not called at creation, so set the first colours yourself. Main
/// thread only.
VIR_EXPORT
NS_SWIFT_NAME(ThemedLayerView)
@interface VIRThemedLayerView : UIView

/// `apply` receives the view, so it need not capture it (which would keep the view alive).
- (instancetype)initWithApply:(void (^)(VIRThemedLayerView* view))apply NS_DESIGNATED_INITIALIZER;
/// Made in code only: decoding one from a storyboard or nib stops the process.
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_UNAVAILABLE;
/// @cond unavailable
- (instancetype)initWithFrame:(CGRect)frame NS_UNAVAILABLE;
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// The action given at creation, run on each change of appearance.
@property(nonatomic, copy, readonly) void (^apply)(VIRThemedLayerView* view);

@end

NS_ASSUME_NONNULL_END
