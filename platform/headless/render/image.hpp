#pragma once

// Pixel buffers for the headless renderer: the fill primitive everything is drawn with, the two
// ways a rectangle maps onto whole pixels, and PNG and JPEG encoding and decoding.

#include <cstdint>
#include <optional>
#include <vector>

#include "core/base/geometry.hpp"
#include "core/base/records.hpp"

namespace virela::headless {

// 8-bit RGBA with straight alpha, rows top to bottom, no padding.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgba;

    // An image of the given size filled with one value per byte (0xFF: opaque white).
    static Image filled(int width, int height, std::uint8_t byte = 0xFF);

    bool valid() const noexcept;  // positive size and a buffer that matches it
    std::size_t offset(int x, int y) const noexcept {
        return (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                static_cast<std::size_t>(x)) *
               4;
    }
    std::uint8_t* at(int x, int y) noexcept { return rgba.data() + offset(x, y); }
    const std::uint8_t* at(int x, int y) const noexcept { return rgba.data() + offset(x, y); }
};

struct Rgba8 {
    std::uint8_t r = 0;
    std::uint8_t g = 0;
    std::uint8_t b = 0;
    std::uint8_t a = 255;
    friend bool operator==(const Rgba8&, const Rgba8&) = default;
};

// sRGB doubles 0..1 to bytes (rounded, clamped); the alpha is multiplied by `alphaFactor`.
Rgba8 toRgba8(const Color& color, double alphaFactor = 1) noexcept;

// A half-open box of whole pixels: columns x0..x1-1, rows y0..y1-1.
struct PixelBox {
    int x0 = 0;
    int y0 = 0;
    int x1 = 0;
    int y1 = 0;

    bool empty() const noexcept { return x0 >= x1 || y0 >= y1; }
    PixelBox intersect(const PixelBox& o) const noexcept;
    friend bool operator==(const PixelBox&, const PixelBox&) = default;
};

// The pixels whose centre lies inside `r` (in pixels), far edges excluded: rectangles that
// share an edge never both claim a pixel, and clipping by a second rectangle is exact.
PixelBox centreCoverage(const Rect& r) noexcept;
// Every pixel that `r` overlaps at all, however little. Empty for an empty rectangle.
PixelBox touchedPixels(const Rect& r) noexcept;

// Source-over fill of the box (clipped to the image). Drawing happens on an opaque canvas, so
// the destination is taken as opaque and keeps its alpha.
void fillBox(Image& image, PixelBox box, Rgba8 color) noexcept;

// Empty on any failure (an invalid image, an encoder error).
std::vector<std::uint8_t> encodePng(const Image& image);
// `quality` 0..1. The alpha channel is ignored: it encodes the canvas, which is opaque.
std::vector<std::uint8_t> encodeJpeg(const Image& image, double quality);

// Nothing for anything but a complete, well-formed file; never crashes on hostile input.
std::optional<Image> decodePng(const std::vector<std::uint8_t>& bytes);
std::optional<Image> decodeJpeg(const std::vector<std::uint8_t>& bytes);

}  // namespace virela::headless
