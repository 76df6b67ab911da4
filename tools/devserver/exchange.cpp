#include "tools/devserver/exchange.hpp"

#include <algorithm>
#include <cctype>
#include <random>

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

std::string randomHex(std::size_t digits) {
    std::random_device random;
    constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < digits; ++i, bits >>= 4) {
        if (i % 8 == 0) bits = random();
        hex += kDigits[bits & 0xf];
    }
    return hex;
}

}  // namespace virela::devserver
