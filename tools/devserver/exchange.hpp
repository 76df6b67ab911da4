#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tools/devserver/server.hpp"

namespace virela::devserver {

struct Reply {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";  // empty: no Content-Type header
    std::vector<Header> headers;                   // extra headers
};

// What the connection does with one request.
struct Outcome {
    enum class Kind { reply, close };
    Kind kind = Kind::reply;
    Reply reply;
};

using RequestHandler = std::function<Outcome(RecordedRequest)>;

// {"error": code, "message": message}, the shape every failure of the backend takes.
Reply jsonError(int status, std::string_view code, std::string_view message);
Reply jsonReply(const nlohmann::ordered_json& body, int status = 200);

}  // namespace virela::devserver
