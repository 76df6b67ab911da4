#pragma once

// nlohmann/json, wherever the build puts it. CMake and the system packages expose the header as
// <nlohmann/json.hpp>; the Swift package of nlohmann/json exposes its folder itself, so there
// the header is <json.hpp>.

#if __has_include(<nlohmann/json.hpp>)
#include <nlohmann/json.hpp>
#else
#include <json.hpp>
#endif

#include <cstddef>
#include <string_view>

namespace virela {

// No message of this system nests deeper than a few levels; text that does is refused before it
// is parsed, so that nothing read from the other side (parsing, printing, journaling) recurses
// as deep as a sender likes.
inline constexpr std::size_t kMaxJsonDepth = 64;

// Whether the arrays and objects of `text` nest at most `limit` deep. Brackets inside strings do
// not count; the text need not be valid JSON.
inline bool jsonNestsWithin(std::string_view text, std::size_t limit = kMaxJsonDepth) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (++depth > limit) return false;
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return true;
}

}  // namespace virela
