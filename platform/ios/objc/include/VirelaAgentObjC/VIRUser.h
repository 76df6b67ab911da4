#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// The end user the host identifies at configure time. Swift uses `VirelaUser`.
VIR_EXPORT VIR_SENDABLE NS_REFINED_FOR_SWIFT @interface VIRUser : NSObject<NSCopying>

/// A user with the app's own identifier and, optionally, a name the support agent sees.
- (instancetype)initWithId:(NSString*)userId
                      name:(nullable NSString*)name NS_DESIGNATED_INITIALIZER;
/// A user without a name.
- (instancetype)initWithId:(NSString*)userId;
/// @cond unavailable
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// The app's own identifier for the user.
@property(nonatomic, copy, readonly) NSString* userId;
/// A name the support agent sees; nil when the app has none.
@property(nonatomic, copy, readonly, nullable) NSString* name;

@end

NS_ASSUME_NONNULL_END
