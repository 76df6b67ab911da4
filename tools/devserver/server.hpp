#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace virela::devserver {

struct Header {
    std::string name;  // as received, original case
    std::string value;
    friend bool operator==(const Header&, const Header&) = default;
};

// One request exactly as it arrived on the wire.
struct RecordedRequest {
    std::string method;
    std::string target;           // request-target, query included
    std::string path;             // target without the query
    std::vector<Header> headers;  // received order, duplicates kept
    std::string body;             // raw bytes

    // First header with that name, compared without case.
    std::optional<std::string> header(std::string_view name) const;
};

// A canned reply, sent verbatim. An empty contentType sends no Content-Type header.
struct QueuedReply {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";
};

struct IdentifiedUser {
    std::string id;
    std::optional<std::string> name;
    std::optional<std::string> phone;
};

struct DeviceInfo {
    std::string deviceId;
    std::string apiKey;
    std::optional<std::string> installId;  // absent when the registration carried none
    std::string token;                     // the most recent token
    std::vector<std::string> tokens;       // every token issued, oldest first; all stay valid
    std::string supportCode;
    std::string registration;  // body of the latest registration, as received
    std::optional<IdentifiedUser> user;
    std::optional<std::string> lastHealth;  // body of the latest health report, as received
};

struct Options {
    // Only loopback addresses are accepted.
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;  // 0 picks a free port
    std::vector<std::string> apiKeys{"vk_demo_local"};
    std::string consentCopy =
        "Your support agent would like to see a screenshot of this app. Anything marked "
        "private stays hidden.";
    std::string captureMode = "AskEveryTime";
    // Called on the server thread for each request once its reply is decided; status 0 means
    // the connection is closed without a reply. Must not call stop().
    std::function<void(const RecordedRequest&, int status)> onRequest;
};

// The local backend: a loopback HTTP/1.1 server on its own thread. Device state and the
// recorded requests survive stop() and start(), so a restart looks like the same backend.
// All member functions are thread-safe.
class Server {
  public:
    Server();
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Throws std::invalid_argument for a host that is not a loopback address, std::logic_error
    // when already running and std::runtime_error when the port cannot be bound.
    void start(Options options = {});
    // Idempotent; open connections are dropped.
    void stop();
    bool running() const;

    std::uint16_t port() const;  // 0 when not running
    std::string url() const;     // "http://127.0.0.1:PORT"; empty when not running

    std::vector<RecordedRequest> requests() const;
    std::vector<RecordedRequest> requests(std::string_view path) const;
    void clearRequests();

    // The next request to `path` (any method) gets this reply instead of the normal one.
    // Several queued replies for one path are used in order.
    void queueReply(std::string path, QueuedReply reply);
    // The next request to `path` is answered by closing its connection without a reply.
    void queueClose(std::string path);

    // Looks a device up by its id, any of its tokens or its current support code.
    std::optional<DeviceInfo> device(std::string_view idTokenOrCode) const;
    std::vector<DeviceInfo> devices() const;  // in order of first registration

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace virela::devserver
