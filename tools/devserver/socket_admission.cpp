#include "tools/devserver/socket_admission.hpp"

#include <optional>
#include <string>
#include <vector>

namespace virela::devserver {

namespace {

// The longest handshake key the WebSocket layer takes (a 16-byte nonce in base64).
constexpr std::size_t kMaxKeySize = 24;

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The comma-separated elements of every header with that name, in received order.
std::vector<std::string_view> listElements(const RecordedRequest& request, std::string_view name) {
    std::vector<std::string_view> elements;
    for (const Header& header : request.headers) {
        if (!equalsIgnoringCase(header.name, name)) continue;
        std::string_view rest = header.value;
        while (!rest.empty()) {
            const std::size_t comma = rest.find(',');
            const std::string_view element = trim(rest.substr(0, comma));
            if (!element.empty()) elements.push_back(element);
            rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        }
    }
    return elements;
}

bool listHas(const RecordedRequest& request, std::string_view name, std::string_view token) {
    for (std::string_view element : listElements(request, name)) {
        if (equalsIgnoringCase(element, token)) return true;
    }
    return false;
}

Reply badHandshake() {
    return jsonError(400, "bad_request", "Not a valid WebSocket handshake.");
}

}  // namespace

Outcome admitSocket(const RecordedRequest& request, int version, const DeviceRegistry& registry,
                    bool refusing) {
    Outcome outcome;
    if (refusing) {
        outcome.reply =
            jsonError(503, "unavailable", "The socket is not accepting connections right now.");
        return outcome;
    }

    std::optional<std::string> deviceId;
    for (std::string_view offered : listElements(request, "Sec-WebSocket-Protocol")) {
        if (!offered.starts_with(kDeviceProtocolPrefix)) continue;
        const std::string_view token = offered.substr(kDeviceProtocolPrefix.size());
        if (!registry.knowsToken(token)) continue;
        deviceId = registry.deviceIdOf(token);
        outcome.subprotocol = offered;
        break;
    }
    if (!deviceId) {
        outcome.reply = jsonError(401, "unauthorized", "Missing or unknown device token.");
        return outcome;
    }

    if (request.method != "GET") {
        outcome.reply =
            jsonError(405, "method_not_allowed",
                      request.method + " is not allowed on " + request.path + "; use GET.");
        outcome.reply.headers.push_back({"Allow", "GET"});
        return outcome;
    }
    if (!listHas(request, "Upgrade", "websocket")) {
        outcome.reply = jsonError(426, "upgrade_required", "This endpoint only speaks WebSocket.");
        outcome.reply.headers.push_back({"Upgrade", "websocket"});
        return outcome;
    }
    const std::optional<std::string> key = request.header("Sec-WebSocket-Key");
    if (version != 11 || !request.header("Host") || !listHas(request, "Connection", "upgrade") ||
        !key || key->empty() || key->size() > kMaxKeySize) {
        outcome.reply = badHandshake();
        return outcome;
    }
    if (request.header("Sec-WebSocket-Version") != "13") {
        outcome.reply =
            jsonError(426, "upgrade_required", "Only WebSocket version 13 is supported.");
        outcome.reply.headers.push_back({"Sec-WebSocket-Version", "13"});
        return outcome;
    }

    outcome.kind = Outcome::Kind::upgrade;
    outcome.reply.status = 101;
    outcome.deviceId = std::move(*deviceId);
    return outcome;
}

}  // namespace virela::devserver
