#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRCaptureResult.h>
#import <VirelaAgentObjC/VIRDefines.h>
#import <VirelaAgentObjC/VIRLiveSession.h>

NS_ASSUME_NONNULL_BEGIN

/// The host's callbacks. Every one is optional and runs on the main thread. +[VIRVirela
/// registerCallbacks:] takes a copy of the set; changing this object afterwards has no effect
/// until it is registered again. Swift uses `VirelaCallbacks`.
VIR_EXPORT NS_REFINED_FOR_SWIFT @interface VIRCallbacks : NSObject

/// A set with no callbacks; set the properties to add some.
- (instancetype)init NS_DESIGNATED_INITIALIZER;
// clang-format off (a Swift name cannot be wrapped)
/// A set with the given callbacks; each may be nil.
- (instancetype)initWithOnRequestShown:(nullable void (^)(void))onRequestShown
                             onAllowed:(nullable void (^)(VIRCaptureResult* result))onAllowed
                              onDenied:(nullable void (^)(void))onDenied
                             onExpired:(nullable void (^)(void))onExpired
                               onError:(nullable void (^)(NSError* error))onError
                       onRemoteControl:(nullable void (^)(BOOL active))onRemoteControl
                           onLiveEnded:(nullable void (^)(VIRLiveSession* session))onLiveEnded
    NS_SWIFT_NAME(init(onRequestShown:onAllowed:onDenied:onExpired:onError:onRemoteControl:onLiveEnded:));
// clang-format on

/// A consent prompt for a support request is on screen.
@property(nonatomic, copy, nullable) void (^onRequestShown)(void);
/// The customer allowed a capture and the upload succeeded.
@property(nonatomic, copy, nullable) void (^onAllowed)(VIRCaptureResult* result);
/// The customer declined, or the backend reported the request as denied.
@property(nonatomic, copy, nullable) void (^onDenied)(void);
/// The request expired before the customer answered.
@property(nonatomic, copy, nullable) void (^onExpired)(void);
/// A flow failed: a VIRErrorDomain error or a platform error.
@property(nonatomic, copy, nullable) void (^onError)(NSError* error);
/// Remote control became active (YES) or stopped (NO).
@property(nonatomic, copy, nullable) void (^onRemoteControl)(BOOL active);
/// A live screen-sharing session ended.
@property(nonatomic, copy, nullable) void (^onLiveEnded)(VIRLiveSession* session);

@end

NS_ASSUME_NONNULL_END
