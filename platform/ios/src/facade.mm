// The Objective-C face of the library: public records and the static facade, forwarding to the
// core's virela::Virela once the iOS platform is in place.

#import "VirelaAgent/Virela.h"

#include "core/api/virela.hpp"
#include "platform/ios/src/bridge_rules.hpp"
#include "platform/ios/src/errors.h"
#include "platform/ios/src/ports.h"
#include "platform/ios/src/strings.h"

@implementation VIRUser

- (instancetype)initWithId:(NSString*)userId name:(nullable NSString*)name {
    self = [super init];
    if (self) {
        _userId = [userId copy];
        _name = [name copy];
    }
    return self;
}

- (instancetype)initWithId:(NSString*)userId {
    return [self initWithId:userId name:nil];
}

@end

@interface VIREnvironment ()
- (instancetype)initLive:(BOOL)live url:(NSURL*)url NS_DESIGNATED_INITIALIZER;
- (BOOL)isLive;
@end

@implementation VIREnvironment {
    BOOL _live;
}

- (instancetype)initLive:(BOOL)live url:(NSURL*)url {
    self = [super init];
    if (self) {
        _live = live;
        _url = [url copy];
    }
    return self;
}

+ (VIREnvironment*)live {
    static VIREnvironment* live;
    static dispatch_once_t once;
    dispatch_once(&once, ^{
      NSString* origin = virela::ios::toNSString(virela::VirelaEnvironment::live().url().str());
      live = [[VIREnvironment alloc] initLive:YES url:[NSURL URLWithString:origin]];
    });
    return live;
}

+ (instancetype)customWithURL:(NSURL*)url {
    return [[self alloc] initLive:NO url:url];
}

- (BOOL)isLive {
    return _live;
}

- (BOOL)isEqual:(id)other {
    if (![other isKindOfClass:[VIREnvironment class]]) return NO;
    VIREnvironment* environment = other;
    return _live == environment->_live && [_url isEqual:environment.url];
}

- (NSUInteger)hash {
    return _url.hash ^ static_cast<NSUInteger>(_live);
}

- (NSString*)description {
    return _live ? @"VirelaEnvironment.live"
                 : [NSString stringWithFormat:@"VirelaEnvironment.custom(%@)", _url];
}

@end

@implementation VIRCaptureResult

- (instancetype)initWithCaptureId:(NSString*)captureId imageUrl:(NSString*)imageUrl {
    self = [super init];
    if (self) {
        _captureId = [captureId copy];
        _imageUrl = [imageUrl copy];
    }
    return self;
}

@end

@implementation VIRLiveSession

- (instancetype)initWithSessionId:(NSString*)sessionId {
    self = [super init];
    if (self) {
        _sessionId = [sessionId copy];
    }
    return self;
}

@end

@implementation VIRCallbacks

- (instancetype)init {
    return [super init];
}

- (instancetype)initWithOnRequestShown:(nullable void (^)(void))onRequestShown
                             onAllowed:(nullable void (^)(VIRCaptureResult*))onAllowed
                              onDenied:(nullable void (^)(void))onDenied
                             onExpired:(nullable void (^)(void))onExpired
                               onError:(nullable void (^)(NSError*))onError
                       onRemoteControl:(nullable void (^)(BOOL))onRemoteControl
                           onLiveEnded:(nullable void (^)(VIRLiveSession*))onLiveEnded {
    self = [self init];
    if (self) {
        _onRequestShown = [onRequestShown copy];
        _onAllowed = [onAllowed copy];
        _onDenied = [onDenied copy];
        _onExpired = [onExpired copy];
        _onError = [onError copy];
        _onRemoteControl = [onRemoteControl copy];
        _onLiveEnded = [onLiveEnded copy];
    }
    return self;
}

@end

namespace {

using virela::ios::toNSString;
using virela::ios::toOptionalString;
using virela::ios::toStdString;

// A std::function only for the blocks that are set: the core skips empty ones.
virela::VirelaCallbacks toCore(VIRCallbacks* callbacks) {
    virela::VirelaCallbacks core;
    if (void (^block)(void) = callbacks.onRequestShown) {
        core.onRequestShown = [block] { block(); };
    }
    if (void (^block)(VIRCaptureResult*) = callbacks.onAllowed) {
        core.onAllowed = [block](const virela::CaptureResult& result) {
            block([[VIRCaptureResult alloc] initWithCaptureId:toNSString(result.captureId)
                                                     imageUrl:toNSString(result.imageUrl)]);
        };
    }
    if (void (^block)(void) = callbacks.onDenied) {
        core.onDenied = [block] { block(); };
    }
    if (void (^block)(void) = callbacks.onExpired) {
        core.onExpired = [block] { block(); };
    }
    if (void (^block)(NSError*) = callbacks.onError) {
        core.onError = [block](const virela::VirelaErrorValue& error) {
            if (NSError* hostError = virela::ios::toNSError(error)) block(hostError);
        };
    }
    if (void (^block)(BOOL) = callbacks.onRemoteControl) {
        core.onRemoteControl = [block](bool active) { block(active ? YES : NO); };
    }
    if (void (^block)(VIRLiveSession*) = callbacks.onLiveEnded) {
        core.onLiveEnded = [block](const virela::LiveSession& session) {
            block([[VIRLiveSession alloc] initWithSessionId:toNSString(session.sessionId)]);
        };
    }
    return core;
}

// nullopt for a URL the core cannot resolve request paths against.
std::optional<virela::VirelaEnvironment> toCore(VIREnvironment* environment) {
    if (environment.isLive) return virela::VirelaEnvironment::live();
    return virela::ios::customEnvironment(toStdString(environment.url.absoluteString));
}

}  // namespace

@implementation VIRVirela

+ (void)configureWithKey:(NSString*)key
             environment:(VIREnvironment*)environment
                    user:(nullable VIRUser*)user
         collectVendorId:(BOOL)collectVendorId
              completion:(nullable void (^)(NSError* _Nullable))completion {
    virela::ios::ensurePlatformInstalled();
    void (^done)(NSError* _Nullable) = [completion copy];

    auto coreEnvironment = toCore(environment);
    if (!coreEnvironment) {
        if (!done) return;
        NSError* error = [NSError
            errorWithDomain:NSURLErrorDomain
                       code:NSURLErrorBadURL
                   userInfo:@{
                       NSLocalizedDescriptionKey : @"The environment's URL is not an absolute URL.",
                       NSURLErrorFailingURLErrorKey : environment.url,
                   }];
        // Same thread rule as every other outcome of configure.
        dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
          done(error);
        });
        return;
    }

    std::optional<virela::VirelaUser> coreUser;
    if (user) coreUser.emplace(toStdString(user.userId), toOptionalString(user.name));

    std::function<void(std::exception_ptr)> coreCompletion;
    if (done) {
        coreCompletion = [done](std::exception_ptr error) { done(virela::ios::toNSError(error)); };
    }
    virela::Virela::configure(toStdString(key), *coreEnvironment, std::move(coreUser),
                              collectVendorId, std::move(coreCompletion));
}

+ (void)registerCallbacks:(VIRCallbacks*)callbacks {
    virela::ios::ensurePlatformInstalled();
    virela::Virela::on(toCore(callbacks));
}

+ (void)identifyWithId:(NSString*)userId
                  name:(nullable NSString*)name
                 phone:(nullable NSString*)phone {
    virela::ios::ensurePlatformInstalled();
    virela::Virela::identify(toStdString(userId), toOptionalString(name), toOptionalString(phone));
}

+ (void)reset {
    virela::ios::ensurePlatformInstalled();
    virela::Virela::reset();
}

+ (nullable NSString*)supportCode {
    virela::ios::ensurePlatformInstalled();
    return virela::ios::toOptionalNSString(virela::Virela::supportCode());
}

+ (void)showSupportCode {
    virela::ios::ensurePlatformInstalled();
    virela::Virela::showSupportCode();
}

+ (void)stop {
    virela::ios::ensurePlatformInstalled();
    virela::Virela::stop();
}

@end
