#pragma once

// The renderer's built-in bitmap font: 5x8 glyphs (seven rows above the baseline, one below)
// in a six-column cell, scaled by nearest neighbour. Printable ASCII has glyphs; any other
// character draws as a box, except U+2022 (the dot of secure text fields), a small square.
//
// Sizes are font sizes in pixels: a line is that tall and capitals take 70% of it, so a
// character advances 60% of it, close to the platform's text at the same size. From five
// pixels up, glyph pixels snap to whole canvas pixels, so the size drawn is the nearest
// multiple of ten (text at 5 to 14 pixels comes out ten tall); textWidth measures the same.

#include <cstddef>
#include <string_view>

#include "core/base/geometry.hpp"
#include "core/base/records.hpp"
#include "platform/headless/render/image.hpp"

namespace virela::headless {

// Characters in UTF-8 text as the font counts them: one per code point, and one per byte of a
// malformed sequence.
std::size_t glyphCount(std::string_view utf8) noexcept;

// Draws `utf8` on one line whose box has its top-left corner at (x, y) in pixels and is
// `pixelHeight` tall. Only pixels whose centre lies inside `clipPixels` change.
void drawText(Image& image, double x, double y, double pixelHeight, std::string_view utf8,
              const Color& color, const Rect& clipPixels);

// The width drawText covers, from the first glyph's left edge to the last one's right edge.
double textWidth(std::string_view utf8, double pixelHeight) noexcept;

}  // namespace virela::headless
