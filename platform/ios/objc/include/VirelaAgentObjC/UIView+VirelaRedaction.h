#import <UIKit/UIKit.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// Marks views whose content never leaves the device: captures and live sessions show the
/// redaction style over them instead, and remote input never reaches them. Main thread only.
@interface UIView (VirelaRedaction)

/// YES while the view carries a redaction mark. Setting YES attaches a new mark in the current
/// default style, replacing any earlier mark; setting NO removes the mark.
@property(nonatomic, setter=setVirelaRedacted:)
    BOOL isVirelaRedacted NS_SWIFT_NAME(isVirelaRedacted);

/// Marks the view with its own style; each nil value is taken from the current default style.
/// Replaces any earlier mark. Swift calls `virelaRedact(color:label:labelColor:)`, whose
/// arguments all default to nil.
- (void)virelaRedactWithColor:(nullable UIColor*)color
                        label:(nullable NSString*)label
                   labelColor:(nullable UIColor*)labelColor
    NS_SWIFT_NAME(__virelaRedact(color:label:labelColor:)) NS_REFINED_FOR_SWIFT;

@end

NS_ASSUME_NONNULL_END
