/// @file
/// The library's own errors: their domain, their userInfo keys, and VIRError to read them.

#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRDefines.h>

NS_ASSUME_NONNULL_BEGIN

/// The domain of the errors the library itself produces: a backend request that failed, or a
/// capture that could not be made. The error's code is the HTTP status (0 when no HTTP response
/// came back, and for a capture).
VIR_EXTERN NSErrorDomain const VIRErrorDomain;
/// userInfo key: the HTTP status, an NSNumber.
VIR_EXTERN NSString* const VIRErrorStatusKey;
/// userInfo key: the machine code ("unknown", "no_response", "no_window", ...), an NSString.
VIR_EXTERN NSString* const VIRErrorCodeKey;
/// userInfo key: the human-readable message, an NSString (also the localized description).
VIR_EXTERN NSString* const VIRErrorMessageKey;

/// A failed backend request or capture, read out of an error in VIRErrorDomain.
///
/// Other failures reach the host in the platform's own domains: network failures are the
/// NSURLErrorDomain errors of the URL session, unchanged; a reply that cannot be decoded is
/// NSCocoaErrorDomain / NSCoderReadCorruptError. Swift code catches `VirelaError` instead.
VIR_EXPORT VIR_SENDABLE NS_REFINED_FOR_SWIFT @interface VIRError : NSObject

/// nil unless `error` is in VIRErrorDomain.
- (nullable instancetype)initWithError:(NSError*)error NS_SWIFT_NAME(init(_:));
/// @cond unavailable
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// The HTTP status of the failed request; 0 when there was no HTTP response.
@property(nonatomic, readonly) NSInteger status;
/// The backend's machine code, "unknown" when it gave none, "no_response" without a response;
/// "no_window" or "encode_failed" for a capture that could not be made.
@property(nonatomic, copy, readonly) NSString* code;
/// The backend's message, or "Request failed." / "No HTTP response.", or the capture's.
@property(nonatomic, copy, readonly) NSString* message;

@end

NS_ASSUME_NONNULL_END
