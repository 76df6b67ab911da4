#include "core/live/guides.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace virela {

std::optional<GuideKind> guideKindNamed(std::string_view kind) {
    if (kind == "laser") return GuideKind::laser;
    if (kind == "laser-off") return GuideKind::laserOff;
    if (kind == "arrow") return GuideKind::arrow;
    if (kind == "box") return GuideKind::box;
    if (kind == "fill") return GuideKind::fill;
    if (kind == "label") return GuideKind::label;
    return std::nullopt;
}

double pointingSeconds(GuideKind kind) {
    switch (kind) {
        case GuideKind::laser:
            return 1.2;
        case GuideKind::laserOff:
            return 0.2;
        case GuideKind::arrow:
        case GuideKind::box:
        case GuideKind::fill:
        case GuideKind::label:
            break;
    }
    return 5.0;
}

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Lenient UTF-8: a byte that does not start a well-formed sequence reads as U+FFFD on its own,
// so any text from the wire becomes valid text.
std::vector<char32_t> decodeUtf8(std::string_view text) {
    std::vector<char32_t> out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        int length = 0;
        char32_t value = 0;
        char32_t minimum = 0;
        if (lead < 0x80) {
            out.push_back(lead);
            ++i;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            length = 2, value = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3, value = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4, value = lead & 0x07, minimum = 0x10000;
        }
        bool valid = length > 0 && i + static_cast<std::size_t>(length) <= text.size();
        for (int k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            valid = (next & 0xC0) == 0x80;
            value = (value << 6) | (next & 0x3F);
        }
        valid =
            valid && value >= minimum && value <= 0x10FFFF && !(value >= 0xD800 && value <= 0xDFFF);
        if (valid) {
            out.push_back(value);
            i += static_cast<std::size_t>(length);
        } else {
            out.push_back(0xFFFD);
            ++i;
        }
    }
    return out;
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

bool isWhitespaceOrNewline(char32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F ||
           c == 0x205F || c == 0x3000;
}

// Code points that belong to the character before them.
bool extendsCharacter(char32_t c) {
    return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) ||
           (c >= 0x1DC0 && c <= 0x1DFF) || (c >= 0x20D0 && c <= 0x20FF) ||
           (c >= 0xFE00 && c <= 0xFE0F) || (c >= 0xFE20 && c <= 0xFE2F) || c == 0x200D ||
           (c >= 0x1F3FB && c <= 0x1F3FF) || (c >= 0xE0020 && c <= 0xE007F) ||
           (c >= 0xE0100 && c <= 0xE01EF);
}

bool isRegionalIndicator(char32_t c) {
    return c >= 0x1F1E6 && c <= 0x1F1FF;
}

// Where the character starting at `at` ends.
std::size_t characterEnd(const std::vector<char32_t>& text, std::size_t at) {
    std::size_t end = at + 1;
    if (text[at] == '\r' && end < text.size() && text[end] == '\n') return end + 1;
    if (isRegionalIndicator(text[at]) && end < text.size() && isRegionalIndicator(text[end])) {
        ++end;  // a flag is a pair
    }
    while (end < text.size()) {
        if (text[end] == 0x200D) {
            end += end + 1 < text.size() ? 2 : 1;  // the joiner and the part it joins
        } else if (extendsCharacter(text[end])) {
            ++end;
        } else {
            break;
        }
    }
    return end;
}

}  // namespace

std::optional<Color> guideColor(const std::optional<std::string>& color) {
    if (!color || color->size() != 7 || (*color)[0] != '#') return std::nullopt;
    int channels[3] = {};
    for (int channel = 0; channel < 3; ++channel) {
        const int high = hexDigit((*color)[static_cast<std::size_t>(1 + channel * 2)]);
        const int low = hexDigit((*color)[static_cast<std::size_t>(2 + channel * 2)]);
        if (high < 0 || low < 0) return std::nullopt;
        channels[channel] = high * 16 + low;
    }
    return Color{channels[0] / 255.0, channels[1] / 255.0, channels[2] / 255.0, 1};
}

std::string guideLabelText(const std::optional<std::string>& text) {
    const std::vector<char32_t> points = decodeUtf8(text ? *text : std::string());
    std::size_t begin = 0;
    std::size_t end = points.size();
    while (begin < end && isWhitespaceOrNewline(points[begin])) ++begin;
    while (end > begin && isWhitespaceOrNewline(points[end - 1])) --end;
    if (begin == end) return "Tap here";

    std::string out;
    std::size_t at = begin;
    for (std::size_t characters = 0; at < end && characters < guide::labelMaxCharacters;
         ++characters) {
        const std::size_t next = std::min(characterEnd(points, at), end);
        for (std::size_t i = at; i < next; ++i) appendUtf8(out, points[i]);
        at = next;
    }
    return out;
}

Point guidePoint(const GuidePush& push, Size root) {
    return {push.x.value_or(0.5) * root.width, push.y.value_or(0.5) * root.height};
}

namespace {

bool finite(Point p) {
    return std::isfinite(p.x) && std::isfinite(p.y);
}

// Fractions far outside 0 to 1 can overflow to infinity, and a view or layer placed there
// raises on the platform: such a mark is not drawn.
bool finite(const MarkGeometry& mark) {
    if (const auto* box = std::get_if<BoxMark>(&mark.shape)) {
        return box->frame.isFinite() && std::isfinite(box->cornerRadius);
    }
    if (const auto* arrow = std::get_if<ArrowMark>(&mark.shape)) {
        return arrow->frame.isFinite() && finite(arrow->start) && finite(arrow->end) &&
               finite(arrow->headLeft) && finite(arrow->headRight);
    }
    const auto& label = std::get<LabelMark>(mark.shape);
    return std::isfinite(label.maxWidth) && finite(label.anchor);
}

MarkGeometry markFor(GuideKind kind, const GuidePush& push, Size root) {
    const Point p1 = guidePoint(push, root);
    switch (kind) {
        case GuideKind::box:
        case GuideKind::fill: {
            const Rect frame = Rect::make(p1.x, p1.y, push.w.value_or(0.16) * root.width,
                                          push.h.value_or(0.11) * root.height);
            const double cap = kind == GuideKind::box ? 15 : 6;
            return MarkGeometry{kind,
                                BoxMark{frame, std::min({frame.width / 2, frame.height / 2, cap})}};
        }
        case GuideKind::arrow: {
            const double x = push.x.value_or(0.5);
            const double y = push.y.value_or(0.5);
            const Point p2{push.x2.value_or(x + 0.09) * root.width,
                           push.y2.value_or(y + 0.09) * root.height};
            const double m = guide::arrowMargin;
            const Point origin{std::min(p1.x, p2.x) - m, std::min(p1.y, p2.y) - m};
            ArrowMark arrow;
            arrow.frame = Rect{origin.x, origin.y, std::abs(p2.x - p1.x) + 2 * m,
                               std::abs(p2.y - p1.y) + 2 * m};
            arrow.start = {p1.x - origin.x, p1.y - origin.y};
            arrow.end = {p2.x - origin.x, p2.y - origin.y};
            const double theta =
                std::atan2(arrow.end.y - arrow.start.y, arrow.end.x - arrow.start.x);
            const double spread = 3 * std::numbers::pi / 4;
            const double length = guide::arrowHeadLength;
            arrow.headLeft = {arrow.end.x + length * std::cos(theta + spread),
                              arrow.end.y + length * std::sin(theta + spread)};
            arrow.headRight = {arrow.end.x + length * std::cos(theta - spread),
                               arrow.end.y + length * std::sin(theta - spread)};
            return MarkGeometry{kind, arrow};
        }
        case GuideKind::laser:
        case GuideKind::laserOff:
        case GuideKind::label:
            break;
    }
    return MarkGeometry{
        kind, LabelMark{guideLabelText(push.text),
                        root.width * guide::labelMaxWidthFraction - guide::labelPaddingX, p1}};
}

}  // namespace

std::optional<MarkGeometry> guideMark(const GuidePush& push, Size root) {
    const std::optional<GuideKind> kind = guideKindNamed(push.kind);
    if (!kind || *kind == GuideKind::laser || *kind == GuideKind::laserOff) return std::nullopt;
    MarkGeometry mark = markFor(*kind, push, root);
    if (!finite(mark)) return std::nullopt;
    return mark;
}

}  // namespace virela
