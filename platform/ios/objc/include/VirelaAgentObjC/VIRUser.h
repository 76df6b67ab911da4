#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// The end user the host identifies at configure time. Swift uses `VirelaUser`.
VIR_EXPORT VIR_SENDABLE NS_REFINED_FOR_SWIFT @interface VIRUser : NSObject<NSCopying>

- (instancetype)initWithId:(NSString*)userId
                      name:(nullable NSString*)name NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithId:(NSString*)userId;
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

@property(nonatomic, copy, readonly) NSString* userId;
@property(nonatomic, copy, readonly, nullable) NSString* name;

@end

NS_ASSUME_NONNULL_END
