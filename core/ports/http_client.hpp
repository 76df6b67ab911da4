#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/base/url.hpp"

namespace virela {

class VirelaCancellable;

struct HttpHeader {
    std::string name;
    std::string value;
    friend bool operator==(const HttpHeader&, const HttpHeader&) = default;
};

using HttpHeaders = std::vector<HttpHeader>;

// Case-insensitive look-up; nullopt when absent.
std::optional<std::string> findHeader(const HttpHeaders& headers, std::string_view name);

struct HttpRequest {
    std::string method = "POST";
    Url url;  // absolute
    HttpHeaders headers;
    std::string body;  // raw bytes
    double timeoutSeconds = 60;
};

struct HttpResponse {
    int status = 0;
    HttpHeaders headers;
    std::string body;  // raw bytes
};

// What one exchange produced: a response, a transport failure (a NetworkError), or neither
// (the peer answered with something that is not an HTTP response).
struct HttpOutcome {
    std::optional<HttpResponse> response;
    std::exception_ptr error;
};

// The platform's HTTP client. `done` is called exactly once, on any thread.
class HttpClient {
  public:
    virtual ~HttpClient() = default;
    virtual std::shared_ptr<VirelaCancellable> send(HttpRequest request,
                                                    std::function<void(HttpOutcome)> done) = 0;
};

}  // namespace virela
