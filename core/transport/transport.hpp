#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/base/json.hpp"
#include "core/base/url.hpp"
#include "core/ports/http_client.hpp"

namespace virela {

class MainExecutor;

// A JSON body as the callers build it: keys in the order they should go on the wire, and
// nullopt for an absent value (sent as null, never dropped).
using JsonFields = std::vector<std::pair<std::string, std::optional<nlohmann::json>>>;

// The error body a backend returns with a non-2xx status.
struct WireFailure {
    std::optional<std::string> error;
    std::optional<std::string> message;
    // nullopt when the bytes are not a JSON object with string-or-null "error" and "message".
    static std::optional<WireFailure> decode(std::string_view bytes);
};

// The outcome of send(): the reply bytes of a 2xx reply, or an error (VirelaError for any other
// reply, the platform's NetworkError for a transport failure).
struct SendResult {
    std::string body;
    std::exception_ptr error;
    explicit operator bool() const noexcept { return !error; }
};

// The one object through which the library talks HTTPS to the backend: request framing,
// authentication headers, and the error model. One per configure.
class Transport {
  public:
    Transport(Url baseUrl, std::string apiKey, std::shared_ptr<HttpClient> session,
              std::shared_ptr<MainExecutor> main);

    const Url& baseUrl() const noexcept { return baseUrl_; }
    const std::string& apiKey() const noexcept { return apiKey_; }
    const std::optional<std::string>& deviceToken() const noexcept { return deviceToken_; }
    void setDeviceToken(std::optional<std::string> token) { deviceToken_ = std::move(token); }

    // Throws SerializationError when the body is not serialisable (for example a string that is
    // not UTF-8). A path that does not parse as a URL reference stops the process.
    HttpRequest jsonRequest(std::string_view path, const JsonFields& body, bool includeKey) const;
    // An image upload, a PNG screenshot or a JPEG live frame alike: one part named "file" with
    // the file name "capture.png", as the backend takes every image; a fresh boundary per
    // request.
    HttpRequest imageUploadRequest(std::string_view path, std::string_view image) const;

    // Sends the request; `done` runs on the main executor.
    void send(HttpRequest request, std::function<void(SendResult)> done) const;
    // Builds a JSON request and sends it; a serialisation failure reaches `done` (on the main
    // executor) without anything being sent.
    void postJson(std::string_view path, const JsonFields& body, bool includeKey,
                  std::function<void(SendResult)> done) const;

    // The error model applied to one exchange; exposed for the platform-independent tests.
    static SendResult interpret(HttpOutcome outcome);

  private:
    Url resolve(std::string_view path) const;

    Url baseUrl_;
    std::string apiKey_;
    std::shared_ptr<HttpClient> session_;
    std::shared_ptr<MainExecutor> main_;
    std::optional<std::string> deviceToken_;
};

// Serialises the fields as one JSON object, keeping their order. Throws SerializationError.
std::string serializeFields(const JsonFields& fields);

}  // namespace virela
