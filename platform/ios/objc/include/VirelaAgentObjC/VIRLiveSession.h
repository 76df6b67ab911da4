#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// A live screen-sharing session. Swift uses `LiveSession`.
VIR_EXPORT VIR_SENDABLE NS_REFINED_FOR_SWIFT @interface VIRLiveSession : NSObject

/// A session with the backend's identifier.
- (instancetype)initWithSessionId:(NSString*)sessionId NS_DESIGNATED_INITIALIZER;
/// @cond unavailable
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// The backend's identifier of the session.
@property(nonatomic, copy, readonly) NSString* sessionId;

@end

NS_ASSUME_NONNULL_END
