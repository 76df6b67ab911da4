#include "core/transport/socket_url.hpp"

namespace virela {

std::optional<Url> socketUrl(const Url& baseUrl) {
    auto resolved = baseUrl.resolve("/sdk/socket");
    if (!resolved) return std::nullopt;
    return resolved->withScheme(resolved->scheme() == "https" ? "wss" : "ws");
}

std::string socketProtocol(const std::string& deviceToken) {
    return "virela.device." + deviceToken;
}

}  // namespace virela
