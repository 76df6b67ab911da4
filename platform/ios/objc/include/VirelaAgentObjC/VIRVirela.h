#import <Foundation/Foundation.h>

#import <VirelaAgentObjC/VIRCallbacks.h>
#import <VirelaAgentObjC/VIRDefines.h>
#import <VirelaAgentObjC/VIREnvironment.h>
#import <VirelaAgentObjC/VIRRedaction.h>
#import <VirelaAgentObjC/VIRUser.h>

NS_ASSUME_NONNULL_BEGIN

/// The library's entry point for Objective-C; Swift code calls `Virela` instead. Every method
/// may be called from any thread; state changes happen on the main thread, where every callback
/// runs. A nil where an object is required is logged and the call does nothing.
VIR_EXPORT NS_REFINED_FOR_SWIFT @interface VIRVirela : NSObject

/// @cond unavailable
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
/// @endcond

/// Registers the device and opens the realtime channel; starts over when called again.
///
/// `completion` receives nil on success, or the failure: a VIRErrorDomain error, the URL
/// session's NSURLErrorDomain error (NSURLErrorBadURL for an environment whose URL is not
/// absolute), or NSCocoaErrorDomain / NSCoderReadCorruptError for a reply that cannot be
/// decoded. It runs on a background queue, NOT the main thread: hop to the main queue before
/// touching UI.
+ (void)configureWithKey:(NSString*)key
             environment:(VIREnvironment*)environment
                    user:(nullable VIRUser*)user
         collectVendorId:(BOOL)collectVendorId
              completion:(nullable void (^VIR_SENDABLE)(NSError* _Nullable error))completion
    NS_SWIFT_NAME(configure(key:environment:user:collectVendorId:completion:))
        NS_SWIFT_DISABLE_ASYNC;

/// Replaces the whole set of callbacks; there is one set per process.
+ (void)registerCallbacks:(VIRCallbacks*)callbacks NS_SWIFT_NAME(on(_:));

/// Replaces the default redaction style (`#E23B37` with "REDACTED" in white). It applies to views
/// marked from now on, including views marked again; views marked earlier keep the style they
/// were given. A colour without RGB components (a pattern image) leaves that colour of the
/// current style in place.
+ (void)setRedactionStyle:(VIRRedaction*)style NS_SWIFT_NAME(setRedactionStyle(_:));

/// Tells the backend who the end user is. Fire and forget: failures are not reported.
/// Calling it before configure is a programming error and stops the process.
+ (void)identifyWithId:(NSString*)userId
                  name:(nullable NSString*)name
                 phone:(nullable NSString*)phone NS_SWIFT_NAME(identify(id:name:phone:));

/// Asks the backend for a fresh support code. Fire and forget; stops the process when called
/// before configure.
+ (void)reset NS_SWIFT_NAME(reset());

/// The current registration's support code; nil before the first successful configure or
/// when the backend gave none.
+ (nullable NSString*)supportCode NS_SWIFT_NAME(supportCode());

/// Shows the customer their support code in a bottom sheet over the app's window, for them to
/// read out to the support agent.
+ (void)showSupportCode NS_SWIFT_NAME(showSupportCode());

/// Closes the realtime channel and takes down anything on screen. The registration is kept;
/// configure starts the client again.
+ (void)stop NS_SWIFT_NAME(stop());

@end

NS_ASSUME_NONNULL_END
