/// @file
/// How the backend has the customer asked for captures, with the backend's raw values.

#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// How the backend has the customer asked for captures; the raw values are the backend's. Swift
/// uses `CaptureMode`.
typedef NSString* VIRCaptureMode NS_TYPED_ENUM NS_REFINED_FOR_SWIFT;

/// A prompt for every capture.
VIR_EXTERN VIRCaptureMode const VIRCaptureModeAskEveryTime;
/// One prompt allows captures for the rest of the support session.
VIR_EXTERN VIRCaptureMode const VIRCaptureModePerSession;
/// Captures come from a live screen-sharing session.
VIR_EXTERN VIRCaptureMode const VIRCaptureModeLiveView;

NS_ASSUME_NONNULL_END
