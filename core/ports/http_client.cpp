#include "core/ports/http_client.hpp"

#include <algorithm>
#include <cctype>

namespace virela {

std::optional<std::string> findHeader(const HttpHeaders& headers, std::string_view name) {
    auto match = std::find_if(headers.begin(), headers.end(), [name](const HttpHeader& h) {
        return std::equal(
            h.name.begin(), h.name.end(), name.begin(), name.end(),
            [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
    });
    if (match == headers.end()) return std::nullopt;
    return match->value;
}

}  // namespace virela
