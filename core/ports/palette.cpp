#include "core/ports/palette.hpp"

#include <cstdint>

namespace virela {

Color colorFromHex(std::string_view text, double alpha) noexcept {
    if (!text.empty() && text.front() == '#') text.remove_prefix(1);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    std::uint64_t value = 0;
    bool valid = !text.empty();
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            valid = false;
            break;
        }
        value = value * 16 + static_cast<std::uint64_t>(digit);
        if (value > 0xFFFFFFFFu) {
            valid = false;
            break;
        }
    }
    if (!valid) value = 0;
    return {static_cast<double>((value >> 16) & 0xFF) / 255,
            static_cast<double>((value >> 8) & 0xFF) / 255, static_cast<double>(value & 0xFF) / 255,
            alpha};
}

}  // namespace virela
