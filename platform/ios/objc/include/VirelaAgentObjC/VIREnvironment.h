#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// Where the backend lives: the production service or any base URL. Swift uses
/// `VirelaEnvironment`.
VIR_EXPORT VIR_SENDABLE NS_REFINED_FOR_SWIFT @interface VIREnvironment : NSObject<NSCopying>

/// The production service.
@property(class, nonatomic, readonly) VIREnvironment* live;
/// Any base URL (staging, tests). Request paths are resolved against it, so a path component
/// of `url` is replaced by the library's absolute paths.
+ (instancetype)customWithURL:(NSURL*)url NS_SWIFT_NAME(custom(_:));
/// @cond unavailable
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// YES for the production service.
@property(nonatomic, readonly, getter=isLive) BOOL live;
/// The base URL: the production origin for `live`, the given URL for `custom`.
@property(nonatomic, copy, readonly) NSURL* url;

@end

NS_ASSUME_NONNULL_END
