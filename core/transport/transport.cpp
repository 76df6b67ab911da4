#include "core/transport/transport.hpp"

#include <utility>

#include "core/base/errors.hpp"
#include "core/base/uuid.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/fatal.hpp"
#include "core/ports/platform.hpp"
#include "core/wire/json_fields.hpp"

namespace virela {

namespace {
constexpr const char* kCrlf = "\r\n";
constexpr const char* kUnknownCode = "unknown";
constexpr const char* kRequestFailed = "Request failed.";
}  // namespace

std::optional<WireFailure> WireFailure::decode(std::string_view bytes) {
    try {
        auto value = wire::parse(bytes);
        wire::requireObject(value, "error body");
        return WireFailure{wire::optionalString(value, "error"),
                           wire::optionalString(value, "message")};
    } catch (const DecodingError&) {
        return std::nullopt;
    }
}

std::string serializeFields(const JsonFields& fields) {
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (const auto& [key, value] : fields) {
        object[key] = value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
    }
    try {
        return object.dump();
    } catch (const nlohmann::json::exception& e) {
        throw SerializationError(e.what());
    }
}

Transport::Transport(Url baseUrl, std::string apiKey, std::shared_ptr<HttpClient> session,
                     std::shared_ptr<MainExecutor> main)
    : baseUrl_(std::move(baseUrl)),
      apiKey_(std::move(apiKey)),
      session_(std::move(session)),
      main_(std::move(main)) {}

Url Transport::resolve(std::string_view path) const {
    // A base URL without a scheme or host cannot serve requests; send() then fails them.
    auto url = baseUrl_.isAbsolute() && baseUrl_.hasAuthority() ? baseUrl_.resolve(path)
                                                                : Url::parse(path);
    if (!url) fatalPrecondition("request path is not a valid URL: " + std::string(path));
    return *url;
}

HttpRequest Transport::jsonRequest(std::string_view path, const JsonFields& body,
                                   bool includeKey) const {
    HttpRequest request;
    request.url = resolve(path);
    request.method = "POST";
    request.timeoutSeconds = 60;
    request.headers.push_back({"Content-Type", "application/json"});
    if (includeKey) request.headers.push_back({"X-Virela-Key", apiKey_});
    if (deviceToken_) request.headers.push_back({"X-Virela-Device", *deviceToken_});
    request.body = serializeFields(body);
    return request;
}

HttpRequest Transport::imageUploadRequest(std::string_view path, std::string_view image) const {
    HttpRequest request;
    request.url = resolve(path);
    request.method = "POST";
    request.timeoutSeconds = 60;
    const std::string boundary = "virela-" + makeUuid();
    if (deviceToken_) request.headers.push_back({"X-Virela-Device", *deviceToken_});
    request.headers.push_back({"Content-Type", "multipart/form-data; boundary=" + boundary});

    std::string& body = request.body;
    body.reserve(image.size() + 2 * boundary.size() + 160);
    body.append("--").append(boundary).append(kCrlf);
    body.append("Content-Disposition: form-data; name=\"file\"; filename=\"capture.png\"")
        .append(kCrlf);
    body.append("Content-Type: image/png").append(kCrlf).append(kCrlf);
    body.append(image);
    body.append(kCrlf).append("--").append(boundary).append("--").append(kCrlf);
    return request;
}

SendResult Transport::interpret(HttpOutcome outcome) {
    if (outcome.error) return SendResult{{}, outcome.error};
    if (!outcome.response) {
        return SendResult{
            {}, std::make_exception_ptr(VirelaError(0, "no_response", "No HTTP response."))};
    }
    HttpResponse& response = *outcome.response;
    if (response.status >= 200 && response.status <= 299) {
        return SendResult{std::move(response.body), nullptr};
    }
    std::string code = kUnknownCode;
    std::string message = kRequestFailed;
    if (auto failure = WireFailure::decode(response.body)) {
        if (failure->error) code = *failure->error;
        if (failure->message) message = *failure->message;
    }
    return SendResult{{}, std::make_exception_ptr(VirelaError(response.status, code, message))};
}

void Transport::send(HttpRequest request, std::function<void(SendResult)> done) const {
    auto main = main_;
    if (!request.url.isAbsolute() || !request.url.hasAuthority()) {
        auto error = std::make_exception_ptr(NetworkError(
            NetworkError::Kind::other,
            "the base URL has no scheme or host, so nothing can be sent to it: " + baseUrl_.str()));
        main->post([done = std::move(done), error] { done(SendResult{{}, error}); });
        return;
    }
    session_->send(std::move(request), [main, done = std::move(done)](HttpOutcome outcome) mutable {
        main->post([done = std::move(done), outcome = std::move(outcome)]() mutable {
            done(interpret(std::move(outcome)));
        });
    });
}

void Transport::postJson(std::string_view path, const JsonFields& body, bool includeKey,
                         std::function<void(SendResult)> done) const {
    HttpRequest request;
    try {
        request = jsonRequest(path, body, includeKey);
    } catch (const SerializationError&) {
        main_->post([done = std::move(done), error = std::current_exception()] {
            done(SendResult{{}, error});
        });
        return;
    }
    send(std::move(request), std::move(done));
}

}  // namespace virela
