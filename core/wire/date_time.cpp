#include "core/wire/date_time.hpp"

#include <cstdint>

namespace virela {

namespace {

// Reads exactly `count` digits at `pos`.
bool digits(std::string_view text, std::size_t& pos, std::size_t count, int& out) noexcept {
    if (pos + count > text.size()) return false;
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        char c = text[pos + i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    pos += count;
    out = value;
    return true;
}

bool expect(std::string_view text, std::size_t& pos, char c) noexcept {
    if (pos >= text.size() || text[pos] != c) return false;
    ++pos;
    return true;
}

bool leapYear(int y) noexcept {
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

int daysInMonth(int y, int m) noexcept {
    static constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leapYear(y) ? 29 : days[m - 1];
}

// Days from 1970-01-01 to the civil date (proleptic Gregorian).
std::int64_t daysFromCivil(int y, int m, int d) noexcept {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<std::int64_t>(y - era * 400);
    const std::int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

}  // namespace

std::optional<double> parseInternetDateTime(std::string_view text) noexcept {
    std::size_t pos = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(text, pos, 4, year) || !expect(text, pos, '-') || !digits(text, pos, 2, month) ||
        !expect(text, pos, '-') || !digits(text, pos, 2, day) || !expect(text, pos, 'T') ||
        !digits(text, pos, 2, hour) || !expect(text, pos, ':') || !digits(text, pos, 2, minute) ||
        !expect(text, pos, ':') || !digits(text, pos, 2, second)) {
        return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
        minute > 59 || second > 59) {
        return std::nullopt;
    }
    double fraction = 0;
    if (pos < text.size() && text[pos] == '.') {
        ++pos;
        double scale = 0.1;
        std::size_t start = pos;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
            fraction += (text[pos] - '0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == start) return std::nullopt;
    }
    int offsetSeconds = 0;
    if (pos < text.size() && text[pos] == 'Z') {
        ++pos;
    } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        const int sign = text[pos] == '-' ? -1 : 1;
        ++pos;
        int oh = 0, om = 0;
        if (!digits(text, pos, 2, oh) || !expect(text, pos, ':') || !digits(text, pos, 2, om) ||
            oh > 23 || om > 59) {
            return std::nullopt;
        }
        offsetSeconds = sign * (oh * 3600 + om * 60);
    } else {
        return std::nullopt;
    }
    if (pos != text.size()) return std::nullopt;
    const std::int64_t seconds = daysFromCivil(year, month, day) * 86400 + hour * 3600 +
                                 minute * 60 + second - offsetSeconds;
    return static_cast<double>(seconds) + fraction;
}

}  // namespace virela
