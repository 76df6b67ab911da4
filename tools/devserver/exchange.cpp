#include "tools/devserver/exchange.hpp"

#include <nlohmann/json.hpp>

namespace virela::devserver {

Reply jsonError(int status, std::string_view code, std::string_view message) {
    return jsonReply({{"error", code}, {"message", message}}, status);
}

Reply jsonReply(const nlohmann::ordered_json& body, int status) {
    Reply reply;
    reply.status = status;
    // Replace, never throw: a stored body with broken UTF-8 must not take the server down.
    reply.body = body.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    return reply;
}

}  // namespace virela::devserver
