#import <Foundation/Foundation.h>
#import <UIKit/UIKit.h>

NS_ASSUME_NONNULL_BEGIN

// Immutable records may cross threads; older SDKs lack the annotation.
#if defined(NS_SWIFT_SENDABLE)
#define VIR_SENDABLE NS_SWIFT_SENDABLE
#else
#define VIR_SENDABLE
#endif

#pragma mark - Errors

/// The domain of the errors the library itself produces: a backend request that failed. The
/// error's code is the HTTP status (0 when no HTTP response came back).
FOUNDATION_EXPORT NSErrorDomain const VIRErrorDomain NS_SWIFT_NAME(VirelaErrorDomain);
/// userInfo key: the HTTP status, an NSNumber.
FOUNDATION_EXPORT NSString* const VIRErrorStatusKey NS_SWIFT_NAME(VirelaErrorStatusKey);
/// userInfo key: the backend's machine code ("unknown", "no_response", ...), an NSString.
FOUNDATION_EXPORT NSString* const VIRErrorCodeKey NS_SWIFT_NAME(VirelaErrorCodeKey);
/// userInfo key: the human-readable message, an NSString (also the localized description).
FOUNDATION_EXPORT NSString* const VIRErrorMessageKey NS_SWIFT_NAME(VirelaErrorMessageKey);

/// A failed backend request, read out of an error in VIRErrorDomain.
///
/// Other failures reach the host in the platform's own domains: network failures are the
/// NSURLErrorDomain errors of the URL session, unchanged; a reply that cannot be decoded is
/// NSCocoaErrorDomain / NSCoderReadCorruptError.
VIR_SENDABLE
NS_SWIFT_NAME(VirelaError)
@interface VIRError : NSObject

/// nil unless `error` is in VIRErrorDomain.
- (nullable instancetype)initWithError:(NSError*)error NS_SWIFT_NAME(init(_:));
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

@property(nonatomic, readonly) NSInteger status;
@property(nonatomic, copy, readonly) NSString* code;
@property(nonatomic, copy, readonly) NSString* message;

@end

#pragma mark - Records

/// The end user the host identifies at configure time.
VIR_SENDABLE
NS_SWIFT_NAME(VirelaUser)
@interface VIRUser : NSObject

- (instancetype)initWithId:(NSString*)userId
                      name:(nullable NSString*)name
    NS_SWIFT_NAME(init(id:name:)) NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithId:(NSString*)userId NS_SWIFT_NAME(init(id:));
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

@property(nonatomic, copy, readonly) NSString* userId NS_SWIFT_NAME(id);
@property(nonatomic, copy, readonly, nullable) NSString* name;

@end

/// Where the backend lives.
VIR_SENDABLE
NS_SWIFT_NAME(VirelaEnvironment)
@interface VIREnvironment : NSObject

/// The production service.
@property(class, nonatomic, readonly) VIREnvironment* live;
/// Any base URL (staging, tests). Request paths are resolved against it, so a path component
/// of `url` is replaced by the library's absolute paths.
+ (instancetype)customWithURL:(NSURL*)url NS_SWIFT_NAME(custom(_:));
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

/// The base URL: the production origin for `live`, the given URL for `custom`.
@property(nonatomic, copy, readonly) NSURL* url;

@end

/// An allowed capture, uploaded.
VIR_SENDABLE
NS_SWIFT_NAME(CaptureResult)
@interface VIRCaptureResult : NSObject

- (instancetype)initWithCaptureId:(NSString*)captureId
                         imageUrl:(NSString*)imageUrl NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

@property(nonatomic, copy, readonly) NSString* captureId;
/// The uploaded image's URL as the backend reports it.
@property(nonatomic, copy, readonly) NSString* imageUrl;

@end

/// A live screen-sharing session.
VIR_SENDABLE
NS_SWIFT_NAME(LiveSession)
@interface VIRLiveSession : NSObject

- (instancetype)initWithSessionId:(NSString*)sessionId NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

@property(nonatomic, copy, readonly) NSString* sessionId;

@end

/// The host's callbacks. Every one is optional and runs on the main thread. Virela.on(_:)
/// takes a copy of the set; changing this object afterwards has no effect until it is passed
/// again.
NS_SWIFT_NAME(VirelaCallbacks)
@interface VIRCallbacks : NSObject

- (instancetype)init NS_DESIGNATED_INITIALIZER;
// clang-format off (a Swift name cannot be wrapped)
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
/// A flow failed; a VIRErrorDomain error or a platform error.
@property(nonatomic, copy, nullable) void (^onError)(NSError* error);
/// Remote control became active (YES) or stopped (NO).
@property(nonatomic, copy, nullable) void (^onRemoteControl)(BOOL active);
/// A live screen-sharing session ended.
@property(nonatomic, copy, nullable) void (^onLiveEnded)(VIRLiveSession* session);

@end

#pragma mark - Facade

/// The library's entry point. Every method may be called from any thread; state changes
/// happen on the main thread, where every callback runs.
NS_SWIFT_NAME(Virela)
@interface VIRVirela : NSObject

- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

/// Registers the device and opens the realtime channel; starts over when called again.
///
/// `completion` receives nil on success, or the failure: a VIRErrorDomain error, the URL
/// session's NSURLErrorDomain error, or NSCocoaErrorDomain / NSCoderReadCorruptError for a
/// reply that cannot be decoded. It runs on a background queue, NOT the main thread: hop to
/// the main queue before touching UI. Swift also sees this as
/// `try await Virela.configure(key:environment:user:collectVendorId:)`, which throws the same
/// errors; after the await, code continues on the caller's own actor as usual.
+ (void)configureWithKey:(NSString*)key
             environment:(VIREnvironment*)environment
                    user:(nullable VIRUser*)user
         collectVendorId:(BOOL)collectVendorId
              completion:(nullable void (^)(NSError* _Nullable error))completion
    NS_SWIFT_NAME(configure(key:environment:user:collectVendorId:completion:))
        NS_SWIFT_ASYNC_NAME(configure(key:environment:user:collectVendorId:));

/// Replaces the whole set of callbacks; there is one set per process.
+ (void)registerCallbacks:(VIRCallbacks*)callbacks NS_SWIFT_NAME(on(_:));

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

#pragma mark - Redaction

/// How a redacted view is painted in captures and live sessions: a fill in `color` with `label`
/// centred on it in `labelColor`.
VIR_SENDABLE
NS_SWIFT_NAME(VirelaRedaction)
@interface VIRRedaction : NSObject

- (instancetype)initWithColor:(UIColor*)color
                        label:(NSString*)label
                   labelColor:(UIColor*)labelColor
    NS_SWIFT_NAME(init(color:label:labelColor:)) NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

@property(nonatomic, readonly) UIColor* color;
@property(nonatomic, copy, readonly) NSString* label;
@property(nonatomic, readonly) UIColor* labelColor;

@end

@interface VIRVirela (VirelaRedaction)

/// Replaces the default redaction style (#E23B37 with "REDACTED" in white). It applies to views
/// redacted from now on; views redacted earlier keep the style they were given. A colour without
/// RGB components (a pattern image) leaves that colour of the current style in place. May be
/// called from any thread.
+ (void)setRedactionStyle:(VIRRedaction*)style NS_SWIFT_NAME(setRedactionStyle(_:));

@end

/// Marks views whose content never leaves the device: captures and live sessions show the
/// redaction style over them instead. Call on the main thread.
@interface UIView (VirelaRedaction)

/// YES while the view carries a redaction mark. Setting YES gives an unmarked view the current
/// default style (a marked view keeps its style); setting NO removes the mark.
@property(nonatomic, setter=setVirelaRedacted:)
    BOOL isVirelaRedacted NS_SWIFT_NAME(isVirelaRedacted);

/// Marks the view with its own style; each nil value is taken from the current default style.
/// Replaces any earlier mark.
- (void)virelaRedactWithColor:(nullable UIColor*)color
                        label:(nullable NSString*)label
                   labelColor:(nullable UIColor*)labelColor
    NS_SWIFT_NAME(virelaRedact(color:label:labelColor:));

@end

#pragma mark - Theming

/// A view for the colours a layer holds (a border, a shadow). Layers take CGColors, which do not
/// follow the light and dark appearance: `apply` sets them again whenever the view's colour
/// appearance changes. It is not called at creation, so set the first colours yourself. Call on
/// the main thread.
NS_SWIFT_NAME(ThemedLayerView)
@interface VIRThemedLayerView : UIView

/// `apply` receives the view, so it need not capture it (which would keep the view alive).
- (instancetype)initWithApply:(void (^)(VIRThemedLayerView* view))apply NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithFrame:(CGRect)frame NS_UNAVAILABLE;
/// Made in code only: decoding one from a storyboard or nib stops the process.
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_UNAVAILABLE;
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

@property(nonatomic, copy, readonly) void (^apply)(VIRThemedLayerView* view);

@end

NS_ASSUME_NONNULL_END
