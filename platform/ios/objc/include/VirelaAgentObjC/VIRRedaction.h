#import <UIKit/UIKit.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// How a redacted view is painted in captures and live sessions: a fill in `color` with `label`
/// centred on it in `labelColor`. Set the default with +[VIRVirela setRedactionStyle:]. Swift uses
/// `VirelaRedaction`.
VIR_EXPORT VIR_SENDABLE NS_REFINED_FOR_SWIFT @interface VIRRedaction : NSObject

/// A style painting `color` with `label` centred on it in `labelColor`.
- (instancetype)initWithColor:(UIColor*)color
                        label:(NSString*)label
                   labelColor:(UIColor*)labelColor NS_DESIGNATED_INITIALIZER;
/// @cond unavailable
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// The fill.
@property(nonatomic, readonly) UIColor* color;
/// The text drawn on the fill.
@property(nonatomic, copy, readonly) NSString* label;
/// The colour of that text.
@property(nonatomic, readonly) UIColor* labelColor;

@end

NS_ASSUME_NONNULL_END
