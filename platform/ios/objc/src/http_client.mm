// The HTTP client over the shared URL session's data tasks.

#import <Foundation/Foundation.h>

#include "core/ports/clock.hpp"
#include "platform/ios/objc/src/error_mapping.hpp"
#include "platform/ios/objc/src/errors.hpp"
#include "platform/ios/objc/src/ports.hpp"
#include "platform/ios/objc/src/strings.hpp"

namespace virela::ios {
namespace {

// Cancelling the task makes the session complete it with NSURLErrorCancelled, so `done` still
// runs exactly once.
class DataTaskHandle final : public VirelaCancellable {
  public:
    explicit DataTaskHandle(NSURLSessionDataTask* _Nullable task) : task_(task) {}
    void cancel() override { [task_ cancel]; }

  private:
    NSURLSessionDataTask* _Nullable task_;
};

NSURLRequest* _Nullable makeURLRequest(const HttpRequest& request) {
    NSURL* url = [NSURL URLWithString:toNSString(request.url.str())];
    if (!url) return nil;
    NSMutableURLRequest* urlRequest = [NSMutableURLRequest requestWithURL:url];
    urlRequest.HTTPMethod = toNSString(request.method);
    urlRequest.timeoutInterval = request.timeoutSeconds;
    for (const HttpHeader& header : request.headers) {
        // addValue keeps repeated headers (folded with commas) instead of keeping the last.
        [urlRequest addValue:toNSString(header.value) forHTTPHeaderField:toNSString(header.name)];
    }
    if (!request.body.empty()) {
        urlRequest.HTTPBody = [NSData dataWithBytes:request.body.data() length:request.body.size()];
    }
    return urlRequest;
}

HttpResponse makeResponse(NSHTTPURLResponse* response, NSData* _Nullable data) {
    HttpResponse result;
    result.status = static_cast<int>(response.statusCode);
    NSDictionary* fields = response.allHeaderFields;
    for (id name in fields) {
        id value = fields[name];
        if (![name isKindOfClass:[NSString class]] || ![value isKindOfClass:[NSString class]]) {
            continue;
        }
        result.headers.push_back({toStdString(name), toStdString(value)});
    }
    if (data.length > 0) {
        result.body.assign(static_cast<const char*>(data.bytes), data.length);
    }
    return result;
}

class URLSessionHttpClient final : public HttpClient {
  public:
    std::shared_ptr<VirelaCancellable> send(HttpRequest request,
                                            std::function<void(HttpOutcome)> done) override {
        NSURLRequest* urlRequest = makeURLRequest(request);
        if (!urlRequest) {
            // Foundation refused a URL the core accepted. Report it like the session would, and
            // never from inside send().
            NSError* error = [NSError
                errorWithDomain:NSURLErrorDomain
                           code:NSURLErrorBadURL
                       userInfo:@{NSLocalizedDescriptionKey : @"The request URL is not valid."}];
            dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
              done(HttpOutcome{std::nullopt, networkFailure(error)});
            });
            return std::make_shared<DataTaskHandle>(nil);
        }

        NSURLSessionDataTask* task = [NSURLSession.sharedSession
            dataTaskWithRequest:urlRequest
              completionHandler:^(NSData* data, NSURLResponse* response, NSError* error) {
                HttpOutcome outcome;
                if (error) {
                    outcome.error = networkFailure(error);
                } else if ([response isKindOfClass:[NSHTTPURLResponse class]]) {
                    auto* http = static_cast<NSHTTPURLResponse*>(response);
                    outcome.response = makeResponse(http, data);
                }
                // Anything else is neither a response nor an error; the core decides what that
                // means.
                done(std::move(outcome));
              }];
        [task resume];
        return std::make_shared<DataTaskHandle>(task);
    }
};

}  // namespace

std::shared_ptr<HttpClient> makeHttpClient() { return std::make_shared<URLSessionHttpClient>(); }

}  // namespace virela::ios
