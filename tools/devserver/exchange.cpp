#include "tools/devserver/exchange.hpp"

#include <algorithm>
#include <cctype>

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

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace virela::devserver
