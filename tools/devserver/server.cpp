#include "tools/devserver/server.hpp"

#include <algorithm>
#include <cctype>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>

#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/http_server.hpp"
#include "tools/devserver/router.hpp"
#include "tools/devserver/sdk_routes.hpp"

namespace virela::devserver {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
    for (const Header& h : headers) {
        if (equalsIgnoringCase(h.name, name)) return h.value;
    }
    return std::nullopt;
}

struct Server::Impl {
    // Serialises start and stop. Never taken on the server thread.
    std::mutex lifecycle;
    std::unique_ptr<HttpServer> http;

    // Everything below is shared with the server thread.
    mutable std::mutex mutex;
    std::vector<RecordedRequest> requests;
    // nullopt stands for "close the connection".
    std::map<std::string, std::deque<std::optional<QueuedReply>>, std::less<>> queued;
    std::uint16_t port = 0;
    std::string url;

    DeviceRegistry registry;
    // Rebuilt by start() while no server thread runs; read only by the server thread.
    Router router;
    std::function<void(const RecordedRequest&, int)> onRequest;

    Outcome handle(RecordedRequest request);
};

Outcome Server::Impl::handle(RecordedRequest request) {
    std::optional<std::optional<QueuedReply>> injected;
    {
        std::lock_guard lock(mutex);
        auto it = queued.find(request.path);
        if (it != queued.end()) {
            injected = std::move(it->second.front());
            it->second.pop_front();
            if (it->second.empty()) queued.erase(it);
        }
    }

    Outcome outcome;
    if (injected && !*injected) {
        outcome.kind = Outcome::Kind::close;
    } else if (injected) {
        QueuedReply& canned = **injected;
        outcome.reply.status = canned.status;
        outcome.reply.body = std::move(canned.body);
        outcome.reply.contentType = std::move(canned.contentType);
    } else {
        try {
            outcome.reply = router.dispatch(request);
        } catch (const std::exception&) {
            outcome.reply = jsonError(500, "internal", "The server failed to handle the request.");
        }
    }

    if (onRequest) {
        try {
            onRequest(request, outcome.kind == Outcome::Kind::close ? 0 : outcome.reply.status);
        } catch (const std::exception&) {
            // An observer's failure is not the client's problem.
        }
    }
    // Recorded before the reply goes out, so a client that has its answer finds it here.
    std::lock_guard lock(mutex);
    requests.push_back(std::move(request));
    return outcome;
}

Server::Server() : impl_(std::make_unique<Impl>()) {}

Server::~Server() {
    stop();
}

void Server::start(Options options) {
    std::lock_guard lifecycle(impl_->lifecycle);
    if (impl_->http) throw std::logic_error("devserver is already running");

    impl_->router = Router();
    addDeviceRoutes(impl_->router, impl_->registry,
                    {options.apiKeys, options.consentCopy, options.captureMode});
    impl_->onRequest = std::move(options.onRequest);

    Impl* impl = impl_.get();
    auto http = std::make_unique<HttpServer>(
        options.host, options.port,
        [impl](RecordedRequest request) { return impl->handle(std::move(request)); });
    {
        std::lock_guard lock(impl_->mutex);
        impl_->port = http->port();
        impl_->url = http->url();
    }
    impl_->http = std::move(http);
}

void Server::stop() {
    std::lock_guard lifecycle(impl_->lifecycle);
    impl_->http.reset();
    std::lock_guard lock(impl_->mutex);
    impl_->port = 0;
    impl_->url.clear();
}

bool Server::running() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port != 0;
}

std::uint16_t Server::port() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port;
}

std::string Server::url() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->url;
}

std::vector<RecordedRequest> Server::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

std::vector<RecordedRequest> Server::requests(std::string_view path) const {
    std::lock_guard lock(impl_->mutex);
    std::vector<RecordedRequest> matching;
    for (const RecordedRequest& request : impl_->requests) {
        if (request.path == path) matching.push_back(request);
    }
    return matching;
}

void Server::clearRequests() {
    std::lock_guard lock(impl_->mutex);
    impl_->requests.clear();
}

void Server::queueReply(std::string path, QueuedReply reply) {
    std::lock_guard lock(impl_->mutex);
    impl_->queued[std::move(path)].emplace_back(std::move(reply));
}

void Server::queueClose(std::string path) {
    std::lock_guard lock(impl_->mutex);
    impl_->queued[std::move(path)].emplace_back(std::nullopt);
}

std::optional<DeviceInfo> Server::device(std::string_view idTokenOrCode) const {
    return impl_->registry.find(idTokenOrCode);
}

std::vector<DeviceInfo> Server::devices() const {
    return impl_->registry.all();
}

}  // namespace virela::devserver
