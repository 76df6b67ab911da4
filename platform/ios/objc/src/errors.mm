#include "platform/ios/objc/src/errors.hpp"

#include <string>

#import "VirelaAgentObjC/VIRError.h"
#include "platform/ios/objc/src/error_mapping.hpp"
#include "platform/ios/objc/src/strings.hpp"

// The mapping is written without Foundation so it can be tested on Linux; these keep its
// numbers honest.
static_assert(virela::ios::url_error::unknown == NSURLErrorUnknown);
static_assert(virela::ios::url_error::cancelled == NSURLErrorCancelled);
static_assert(virela::ios::url_error::badUrl == NSURLErrorBadURL);
static_assert(virela::ios::url_error::timedOut == NSURLErrorTimedOut);
static_assert(virela::ios::url_error::cannotFindHost == NSURLErrorCannotFindHost);
static_assert(virela::ios::url_error::cannotConnectToHost == NSURLErrorCannotConnectToHost);
static_assert(virela::ios::url_error::dnsLookupFailed == NSURLErrorDNSLookupFailed);
static_assert(virela::ios::url_error::secureConnectionFailed == NSURLErrorSecureConnectionFailed);
static_assert(virela::ios::url_error::clientCertificateRequired ==
              NSURLErrorClientCertificateRequired);
static_assert(virela::ios::cocoa_error::coderReadCorrupt == NSCoderReadCorruptError);
static_assert(virela::ios::cocoa_error::coderInvalidValue == NSCoderInvalidValueError);

NSErrorDomain const VIRErrorDomain = @"VirelaError";
NSString* const VIRErrorStatusKey = @"status";
NSString* const VIRErrorCodeKey = @"code";
NSString* const VIRErrorMessageKey = @"message";

// Failures that are none of the documented kinds (they should not happen).
static NSErrorDomain const VIRInternalErrorDomain = @"com.virela.agent";

namespace virela::ios {

std::exception_ptr networkFailure(NSError* error) {
    const bool urlDomain = [error.domain isEqualToString:NSURLErrorDomain];
    NetworkError base = networkError(urlDomain, static_cast<long>(error.code),
                                     toStdString(error.localizedDescription));
    return std::make_exception_ptr(URLTaskError(std::move(base), error));
}

namespace {

// The URL session's own error, when the failure is one of its tasks.
NSError* _Nullable originalError(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const URLTaskError& e) {
        return e.original();
    } catch (...) {
        return nil;
    }
}

}  // namespace

NSError* toNSError(const std::exception_ptr& error) {
    if (!error) return nil;
    if (NSError* original = originalError(error)) return original;

    const HostError host = hostError(error);
    NSString* message = toNSString(host.message);
    switch (host.family) {
        case HostError::Family::none:
            return nil;
        case HostError::Family::virela:
            return [NSError errorWithDomain:VIRErrorDomain
                                       code:host.code
                                   userInfo:@{
                                       VIRErrorStatusKey : @(host.code),
                                       VIRErrorCodeKey : toNSString(host.errorCode),
                                       VIRErrorMessageKey : message,
                                       NSLocalizedDescriptionKey : message,
                                   }];
        case HostError::Family::network:
            return [NSError errorWithDomain:NSURLErrorDomain
                                       code:host.code
                                   userInfo:@{NSLocalizedDescriptionKey : message}];
        case HostError::Family::decoding:
        case HostError::Family::serialization:
            // Foundation supplies the localized description for these codes; ours is detail.
            return [NSError errorWithDomain:NSCocoaErrorDomain
                                       code:host.code
                                   userInfo:@{NSDebugDescriptionErrorKey : message}];
        case HostError::Family::unknown:
            return [NSError errorWithDomain:VIRInternalErrorDomain
                                       code:host.code
                                   userInfo:@{NSLocalizedDescriptionKey : message}];
    }
    return nil;
}

}  // namespace virela::ios

@implementation VIRError

- (nullable instancetype)initWithError:(NSError*)error {
    if (![error.domain isEqualToString:VIRErrorDomain]) return nil;
    self = [super init];
    if (self) {
        NSDictionary* info = error.userInfo;
        id status = info[VIRErrorStatusKey];
        id code = info[VIRErrorCodeKey];
        id message = info[VIRErrorMessageKey];
        _status = [status isKindOfClass:[NSNumber class]] ? [status integerValue] : error.code;
        _code = [code isKindOfClass:[NSString class]] ? [code copy] : @"unknown";
        _message =
            [message isKindOfClass:[NSString class]] ? [message copy] : error.localizedDescription;
    }
    return self;
}

- (NSString*)description {
    return [NSString stringWithFormat:@"VirelaError(status: %ld, code: %@, message: %@)",
                                      static_cast<long>(_status), _code, _message];
}

@end
