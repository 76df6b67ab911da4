#include "platform/headless/render/font.hpp"

#include <cmath>
#include <cstdint>

namespace virela::headless {

namespace {

// One glyph per value: eight rows, the top row in the most significant byte, columns left to
// right in bits 4..0. Characters 32..126, then the box for unknown characters, then the few
// others the library's own texts use.
constexpr std::uint64_t glyphs[] = {
    0x0000000000000000, 0x0404040404000400, 0x0A0A0A0000000000, 0x0A0A1F0A1F0A0A00,  //   ! " #
    0x040F140E051E0400, 0x1819020408130300, 0x0C12140815120D00, 0x0404080000000000,  // $ % & '
    0x0204080808040200, 0x0804020202040800, 0x0004150E15040000, 0x0004041F04040000,  // ( ) * +
    0x0000000000060204, 0x0000001F00000000, 0x00000000000C0C00, 0x0001020408100000,  // , - . /
    0x0E11131519110E00, 0x040C040404040E00, 0x0E11010204081F00, 0x1F02040201110E00,  // 0 1 2 3
    0x02060A121F020200, 0x1F101E0101110E00, 0x0608101E11110E00, 0x1F01020408080800,  // 4 5 6 7
    0x0E11110E11110E00, 0x0E11110F01020C00, 0x000C0C000C0C0000, 0x000C0C000C040800,  // 8 9 : ;
    0x0204081008040200, 0x00001F001F000000, 0x0804020102040800, 0x0E11010204000400,  // < = > ?
    0x0E11010D15150E00, 0x0E11111F11111100, 0x1E11111E11111E00, 0x0E11101010110E00,  // @ A B C
    0x1C12111111121C00, 0x1F10101E10101F00, 0x1F10101E10101000, 0x0E11101711110F00,  // D E F G
    0x1111111F11111100, 0x0E04040404040E00, 0x0702020202120C00, 0x1112141814121100,  // H I J K
    0x1010101010101F00, 0x111B151511111100, 0x1111191513111100, 0x0E11111111110E00,  // L M N O
    0x1E11111E10101000, 0x0E11111115120D00, 0x1E11111E14121100, 0x0F10100E01011E00,  // P Q R S
    0x1F04040404040400, 0x1111111111110E00, 0x11111111110A0400, 0x1111111515150A00,  // T U V W
    0x11110A040A111100, 0x11110A0404040400, 0x1F01020408101F00, 0x0E08080808080E00,  // X Y Z [
    0x0010080402010000, 0x0E02020202020E00, 0x040A110000000000, 0x000000000000001F,  // \ ] ^ _
    0x0804020000000000, 0x00000E010F110F00, 0x1010161911111E00, 0x00000E1010110E00,  // ` a b c
    0x01010D1311110F00, 0x00000E111F100E00, 0x0609081C08080800, 0x00000F11110F010E,  // d e f g
    0x1010161911111100, 0x04000C0404040E00, 0x020006020202120C, 0x1010121418141200,  // h i j k
    0x0C04040404040E00, 0x00001A1515111100, 0x0000161911111100, 0x00000E1111110E00,  // l m n o
    0x00001E11111E1010, 0x00000F11110F0101, 0x0000161910101000, 0x00000E100E011E00,  // p q r s
    0x08081C0808090600, 0x0000111111130D00, 0x00001111110A0400, 0x0000111115150A00,  // t u v w
    0x0000110A040A1100, 0x00001111110F010E, 0x00001F0204081F00, 0x0204040804040200,  // x y z {
    0x0404040404040400, 0x0804040204040800, 0x0000081502000000, 0x1F11111111111F00,  // | } ~ BOX
    0x00000E0E0E000000, 0x0000040E04000000, 0x00010102120A0400, 0x0000001F00000000,  // • · ✓ —
    0x0C04080000000000,                                                              // ’
};

constexpr std::size_t boxGlyph = 95;
constexpr std::size_t dotGlyph = 96;
constexpr std::size_t middleDotGlyph = 97;
constexpr std::size_t checkGlyph = 98;
constexpr std::size_t emDashGlyph = 99;
constexpr std::size_t apostropheGlyph = 100;

constexpr int glyphRows = 8;
constexpr int glyphColumns = 5;
constexpr int advance = 6;     // columns per character, spacing included
constexpr int lineUnits = 10;  // a line: one unit of leading, eight rows, one more below

// The size of one glyph pixel, in whole canvas pixels from half a pixel up: every glyph pixel
// then covers the same number of canvas pixels wherever the text starts, and stays crisp. A
// glyph pixel a little under one canvas pixel would drop or merge whole rows (at 9.5 px an E
// loses a bar), so such text comes out at ten pixels instead.
double unitFor(double pixelHeight) noexcept {
    const double unit = pixelHeight / lineUnits;
    return unit >= 0.5 ? std::round(unit) : unit;
}

// Decodes one character at `i`, advancing `i`; returns its glyph index.
std::size_t nextGlyph(std::string_view s, std::size_t& i) noexcept {
    const auto lead = static_cast<unsigned char>(s[i]);
    if (lead < 0x80) {
        ++i;
        if (lead == '\t' || lead == '\n' || lead == '\r') return 0;  // one line: a space
        return lead >= 32 && lead < 127 ? lead - 32 : boxGlyph;
    }
    const std::size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4
                               : lead >= 0xE0               ? 3
                               : lead >= 0xC2               ? 2
                                                            : 0;
    if (length == 0 || i + length > s.size()) {
        ++i;
        return boxGlyph;
    }
    std::uint32_t cp = lead & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
        const auto c = static_cast<unsigned char>(s[i + k]);
        if ((c & 0xC0) != 0x80) {
            ++i;
            return boxGlyph;
        }
        cp = (cp << 6) | (c & 0x3F);
    }
    i += length;
    switch (cp) {
        case 0x2022:
            return dotGlyph;
        case 0x00B7:
            return middleDotGlyph;
        case 0x2713:
            return checkGlyph;
        case 0x2014:
            return emDashGlyph;
        case 0x2019:
            return apostropheGlyph;
        default:
            return boxGlyph;
    }
}

}  // namespace

std::size_t glyphCount(std::string_view utf8) noexcept {
    std::size_t n = 0;
    for (std::size_t i = 0; i < utf8.size(); ++n) nextGlyph(utf8, i);
    return n;
}

double textWidth(std::string_view utf8, double pixelHeight) noexcept {
    const std::size_t n = glyphCount(utf8);
    if (n == 0 || !(pixelHeight > 0)) return 0;
    return (static_cast<double>(n) * advance - 1) * unitFor(pixelHeight);  // no trailing space
}

void drawText(Image& image, double x, double y, double pixelHeight, std::string_view utf8,
              const Color& color, const Rect& clipPixels) {
    if (!(pixelHeight > 0) || !std::isfinite(x) || !std::isfinite(y)) return;
    const PixelBox clip = centreCoverage(clipPixels).intersect({0, 0, image.width, image.height});
    const Rgba8 rgba = toRgba8(color);
    if (clip.empty() || rgba.a == 0) return;
    const double unit = unitFor(pixelHeight);
    // The line box centred in the requested height, then one unit of leading.
    const double top = y + (pixelHeight - lineUnits * unit) / 2 + unit;
    if (top + glyphRows * unit <= clip.y0 || top >= clip.y1) return;
    double left = x;
    for (std::size_t i = 0; i < utf8.size(); left += advance * unit) {
        const std::uint64_t bits = glyphs[nextGlyph(utf8, i)];
        if (left >= clip.x1) break;  // the rest lies right of the clip
        if (left + advance * unit <= clip.x0 || bits == 0) continue;
        // Each horizontal run of set bits in a row is one rectangle.
        for (int row = 0; row < glyphRows; ++row) {
            const auto rowBits = static_cast<unsigned>(bits >> (8 * (glyphRows - 1 - row))) & 0x1F;
            const double rowTop = top + row * unit;
            for (int col = 0; col < glyphColumns;) {
                if ((rowBits & (0x10u >> col)) == 0) {
                    ++col;
                    continue;
                }
                const int start = col;
                while (col < glyphColumns && (rowBits & (0x10u >> col)) != 0) ++col;
                const Rect run{left + start * unit, rowTop, (col - start) * unit, unit};
                fillBox(image, centreCoverage(run).intersect(clip), rgba);
            }
        }
    }
}

}  // namespace virela::headless
