#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// An allowed capture, uploaded. Swift uses `CaptureResult`.
VIR_EXPORT VIR_SENDABLE NS_REFINED_FOR_SWIFT @interface VIRCaptureResult : NSObject

/// A capture with the backend's identifier and image URL.
- (instancetype)initWithCaptureId:(NSString*)captureId
                         imageUrl:(NSString*)imageUrl NS_DESIGNATED_INITIALIZER;
/// @cond unavailable
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// The backend's identifier of the capture.
@property(nonatomic, copy, readonly) NSString* captureId;
/// The uploaded image's URL as the backend reports it.
@property(nonatomic, copy, readonly) NSString* imageUrl;

@end

NS_ASSUME_NONNULL_END
