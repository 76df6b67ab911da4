#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

struct Reply {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";  // empty: no Content-Type header
    std::vector<Header> headers;                   // extra headers
};

// What the connection does with one request.
struct Outcome {
    enum class Kind { reply, close, upgrade };
    Kind kind = Kind::reply;
    Reply reply;
    // For a reply: not written before this time, as a stalled backend would answer.
    std::chrono::steady_clock::time_point holdUntil{};
    // For an upgrade: the device whose socket the connection becomes, and the subprotocol that
    // the 101 reply selects.
    std::string deviceId;
    std::string subprotocol;
};

// Takes the request and its HTTP version (10 or 11).
using RequestHandler = std::function<Outcome(RecordedRequest, int version)>;

// {"error": code, "message": message}, the shape every failure of the backend takes.
Reply jsonError(int status, std::string_view code, std::string_view message);
Reply jsonReply(const nlohmann::ordered_json& body, int status = 200);

bool equalsIgnoringCase(std::string_view a, std::string_view b);

// `digits` lowercase hex digits from the system's random source: tokens, and ids that another
// page must not guess.
std::string randomHex(std::size_t digits);

}  // namespace virela::devserver
