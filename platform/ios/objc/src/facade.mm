// The Objective-C face of the library: public records and the static facade, forwarding to the
// core's virela::Virela once the iOS platform is in place.

#import "VirelaAgentObjC/VIRCallbacks.h"
#import "VirelaAgentObjC/VIRCaptureMode.h"
#import "VirelaAgentObjC/VIRCaptureResult.h"
#import "VirelaAgentObjC/VIREnvironment.h"
#import "VirelaAgentObjC/VIRLiveSession.h"
#import "VirelaAgentObjC/VIRUser.h"
#import "VirelaAgentObjC/VIRVirela.h"

#include <cerrno>
#include <string>

#include "core/api/virela.hpp"
#include "platform/ios/objc/src/bridge_rules.hpp"
#include "platform/ios/objc/src/errors.hpp"
#include "platform/ios/objc/src/ports.hpp"
#include "platform/ios/objc/src/redaction.hpp"
#include "platform/ios/objc/src/strings.hpp"

VIRCaptureMode const VIRCaptureModeAskEveryTime = @"AskEveryTime";
VIRCaptureMode const VIRCaptureModePerSession = @"PerSession";
VIRCaptureMode const VIRCaptureModeLiveView = @"LiveView";

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

- (id)copyWithZone:(nullable NSZone*)zone {
    (void)zone;
    return self;
}

- (BOOL)isEqual:(id)other {
    if (other == self) return YES;
    if (![other isKindOfClass:[VIRUser class]]) return NO;
    VIRUser* user = other;
    return [_userId isEqualToString:user.userId] &&
           (_name == user.name || [_name isEqualToString:user.name]);
}

- (NSUInteger)hash {
    return _userId.hash ^ (_name.hash << 1);
}

@end

@interface VIREnvironment ()
- (instancetype)initLive:(BOOL)live url:(NSURL*)url NS_DESIGNATED_INITIALIZER;
@end

@implementation VIREnvironment

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

- (id)copyWithZone:(nullable NSZone*)zone {
    (void)zone;
    return self;
}

- (BOOL)isEqual:(id)other {
    if (![other isKindOfClass:[VIREnvironment class]]) return NO;
    VIREnvironment* environment = other;
    return _live == environment.isLive && [_url isEqual:environment.url];
}

- (NSUInteger)hash {
    return _url.hash ^ static_cast<NSUInteger>(_live);
}

- (NSString*)description {
    return _live ? @"VIREnvironment.live"
                 : [NSString stringWithFormat:@"VIREnvironment.custom(%@)", _url];
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

using virela::ios::refuseNil;
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

// configure's outcomes all reach the completion on a background queue.
void completeInBackground(void (^_Nullable done)(NSError* _Nullable), NSError* error) {
    if (!done) return;
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
      done(error);
    });
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

    if (refuseNil(key, "configure ignored: nil key") ||
        refuseNil(environment, "configure ignored: nil environment")) {
        completeInBackground(
            done, [NSError errorWithDomain:NSPOSIXErrorDomain
                                      code:EINVAL
                                  userInfo:@{
                                      NSLocalizedDescriptionKey :
                                          @"configure needs an API key and an environment.",
                                  }]);
        return;
    }

    auto coreEnvironment = toCore(environment);
    if (!coreEnvironment) {
        NSMutableDictionary* info = [NSMutableDictionary
            dictionaryWithObject:@"The environment's URL is not an absolute URL."
                          forKey:NSLocalizedDescriptionKey];
        if (NSURL* url = environment.url) info[NSURLErrorFailingURLErrorKey] = url;
        completeInBackground(done, [NSError errorWithDomain:NSURLErrorDomain
                                                       code:NSURLErrorBadURL
                                                   userInfo:info]);
        return;
    }

    std::optional<virela::VirelaUser> coreUser;
    if (user && user.userId) {
        coreUser.emplace(toStdString(user.userId), toOptionalString(user.name));
    }

    std::function<void(std::exception_ptr)> coreCompletion;
    if (done) {
        coreCompletion = [done](std::exception_ptr error) { done(virela::ios::toNSError(error)); };
    }
    virela::Virela::configure(toStdString(key), *coreEnvironment, std::move(coreUser),
                              collectVendorId, std::move(coreCompletion));
}

+ (void)registerCallbacks:(VIRCallbacks*)callbacks {
    virela::ios::ensurePlatformInstalled();
    if (refuseNil(callbacks, "on ignored: nil callbacks")) return;
    virela::Virela::on(toCore(callbacks));
}

+ (void)setRedactionStyle:(VIRRedaction*)style {
    virela::ios::ensurePlatformInstalled();
    if (refuseNil(style, "setRedactionStyle ignored: nil style")) return;
    virela::ios::setDefaultRedactionStyle(style);
}

+ (void)identifyWithId:(NSString*)userId
                  name:(nullable NSString*)name
                 phone:(nullable NSString*)phone {
    virela::ios::ensurePlatformInstalled();
    if (refuseNil(userId, "identify ignored: nil id")) return;
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
