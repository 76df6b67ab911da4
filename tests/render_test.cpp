// The headless renderer and its codecs: what a capture shows, what it must never show, and
// files that decode back to the pixels drawn.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

#include "platform/headless/host/builder.hpp"
#include "platform/headless/render/font.hpp"
#include "platform/headless/render/image.hpp"
#include "platform/headless/render/renderer.hpp"

namespace virela::headless {
namespace {

Image gradient(int width, int height, bool opaque) {
    Image image = Image::filled(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            std::uint8_t* p = image.at(x, y);
            p[0] = static_cast<std::uint8_t>(x * 255 / (width - 1));
            p[1] = static_cast<std::uint8_t>(y * 255 / (height - 1));
            p[2] = static_cast<std::uint8_t>((x + y) * 255 / (width + height - 2));
            p[3] = opaque ? 255 : static_cast<std::uint8_t>((x * 7 + y * 13) % 256);
        }
    }
    return image;
}

Rgba8 pixel(const Image& image, int x, int y) {
    const std::uint8_t* p = image.at(x, y);
    return {p[0], p[1], p[2], p[3]};
}

CaptureStep windowStep(const Window& window, Rect rect) {
    CaptureStep step;
    step.kind = CaptureStep::Kind::drawWindow;
    step.window = window.handle();
    step.rect = rect;
    return step;
}

CaptureStep redactionStep(Rect rect, Color color, std::string label = {},
                          Color labelColor = {1, 1, 1, 1}) {
    CaptureStep step;
    step.kind = CaptureStep::Kind::paintRedaction;
    step.rect = rect;
    step.style = {color, std::move(label), labelColor};
    return step;
}

CapturePlan planFor(const Window& window, double scale) {
    CapturePlan plan;
    plan.bounds = {0, 0, window.frame.width, window.frame.height};
    plan.scale = scale;
    plan.steps.push_back(windowStep(window, plan.bounds));
    return plan;
}

constexpr Rgba8 white{255, 255, 255, 255};
constexpr Rgba8 black{0, 0, 0, 255};
constexpr Rgba8 red{255, 0, 0, 255};

TEST(ImageCodecs, RoundTrips) {
    // PNG is lossless, with and without alpha (opaque images are written without it).
    for (const bool opaque : {true, false}) {
        const Image image = gradient(37, 23, opaque);
        const auto decoded = decodePng(encodePng(image));
        ASSERT_TRUE(decoded.has_value()) << opaque;
        EXPECT_EQ(decoded->width, 37);
        EXPECT_EQ(decoded->height, 23);
        EXPECT_EQ(decoded->rgba, image.rgba) << opaque;
    }

    // JPEG stays close to a smooth image, comes back opaque, and trades size for quality.
    const Image image = gradient(64, 48, true);
    const auto fine = encodeJpeg(image, 0.95);
    const auto coarse = encodeJpeg(image, 0.2);
    EXPECT_LT(coarse.size(), fine.size());
    const auto decoded = decodeJpeg(fine);
    ASSERT_TRUE(decoded.has_value());
    ASSERT_EQ(decoded->width, 64);
    ASSERT_EQ(decoded->height, 48);
    int worst = 0;
    double total = 0;
    for (std::size_t i = 0; i < image.rgba.size(); ++i) {
        const int d = std::abs(int{decoded->rgba[i]} - int{image.rgba[i]});
        if (i % 4 == 3) {
            ASSERT_EQ(decoded->rgba[i], 255);
        }
        worst = std::max(worst, d);
        total += d;
    }
    EXPECT_LT(worst, 24);
    EXPECT_LT(total / static_cast<double>(image.rgba.size()), 3.0);

    // Nothing, rather than a broken file, when the image is inconsistent or the encoder fails
    // (both refuse a row this wide).
    EXPECT_TRUE(encodePng(Image{4, 4, {}}).empty());
    EXPECT_TRUE(encodeJpeg(Image{4, 4, std::vector<std::uint8_t>(10)}, 0.7).empty());
    const Image wide = Image::filled(1'000'001, 1);
    EXPECT_TRUE(encodePng(wide).empty());
    EXPECT_TRUE(encodeJpeg(wide, 0.7).empty());
}

TEST(ImageCodecs, DecodersRejectGarbageAndTruncatedFiles) {
    const Image image = gradient(40, 30, true);
    const auto png = encodePng(image);
    const auto jpeg = encodeJpeg(image, 0.8);
    ASSERT_TRUE(decodePng(png) && decodeJpeg(jpeg));

    std::vector<std::uint8_t> noise(4096);
    std::uint32_t state = 12345;
    for (auto& b : noise) {
        state = state * 1664525 + 1013904223;
        b = static_cast<std::uint8_t>(state >> 24);
    }
    const auto half = [](const std::vector<std::uint8_t>& v) {
        return std::vector<std::uint8_t>(v.begin(), v.begin() + static_cast<long>(v.size() / 2));
    };
    auto headerThenNoise = [&](const std::vector<std::uint8_t>& file, std::size_t keep) {
        std::vector<std::uint8_t> v(file.begin(), file.begin() + static_cast<long>(keep));
        v.insert(v.end(), noise.begin(), noise.end());
        return v;
    };
    auto flipped = png;
    flipped[png.size() / 2] ^= 0x5A;  // the data chunk's CRC no longer matches

    for (const auto& bytes :
         {std::vector<std::uint8_t>{}, noise, half(png), flipped, jpeg, headerThenNoise(png, 33)}) {
        EXPECT_FALSE(decodePng(bytes).has_value()) << bytes.size();
    }
    // Cut inside the compressed data, where libjpeg would fill in grey and carry on.
    const std::vector<std::uint8_t> cut(jpeg.begin(), jpeg.end() - 40);
    for (const auto& bytes :
         {std::vector<std::uint8_t>{}, noise, half(jpeg), cut, png, headerThenNoise(jpeg, 20),
          std::vector<std::uint8_t>(jpeg.begin(), jpeg.begin() + 2)}) {
        EXPECT_FALSE(decodeJpeg(bytes).has_value()) << bytes.size();
    }
}

TEST(Raster, RedactionCoversEveryPixelItTouches) {
    // A red view exactly under a redaction whose edges fall inside pixels.
    HeadlessHost host;
    auto window = makeAppWindow(host, {40, 30});
    const Rect secret{5.3, 4.6, 12.35, 7.7};
    add(*window, view(secret, rgb(0xFF0000)));
    for (const double scale : {1.0, 2.5, 3.0}) {
        CapturePlan plan = planFor(*window, scale);
        plan.steps.push_back(redactionStep(secret, {0, 0, 0, 1}));
        const Image image = HeadlessRenderer().draw(plan);
        ASSERT_EQ(image.width, static_cast<int>(std::ceil(40 * scale)));
        for (int y = 0; y < image.height; ++y) {
            for (int x = 0; x < image.width; ++x) {
                // Overlaps the scaled rectangle with a positive area, however small.
                const bool touched = x + 1 > secret.x * scale && x < secret.maxX() * scale &&
                                     y + 1 > secret.y * scale && y < secret.maxY() * scale;
                ASSERT_EQ(pixel(image, x, y), touched ? black : white)
                    << "scale " << scale << " at " << x << "," << y;
            }
        }
    }
}

TEST(Raster, TextStaysInsideItsClip) {
    const Color ink{0, 0, 0, 1};
    Image image = Image::filled(120, 40);
    const Rect clip{10.5, 8, 40, 12};
    drawText(image, 4, 5, 24, "Hello, World", ink, clip);
    int changed = 0;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            if (pixel(image, x, y) == white) continue;
            ++changed;
            ASSERT_TRUE(clip.contains(Point{x + 0.5, y + 0.5})) << x << "," << y;
        }
    }
    EXPECT_GT(changed, 20);

    // A redaction's label shrinks to its box and stays in it, over a grey window.
    HeadlessHost host;
    auto window = makeAppWindow(host, {100, 40}, rgb(0x808080));
    const Rect box{10, 10, 60, 14};
    CapturePlan plan = planFor(*window, 2);
    plan.steps.push_back(redactionStep(box, {0, 0, 0, 1}, "CONFIDENTIAL", {1, 1, 1, 1}));
    const Image redacted = HeadlessRenderer().draw(plan);
    int labelPixels = 0;
    for (int y = 0; y < redacted.height; ++y) {
        for (int x = 0; x < redacted.width; ++x) {
            const bool inside = box.contains(Point{(x + 0.5) / 2, (y + 0.5) / 2});
            const Rgba8 p = pixel(redacted, x, y);
            if (!inside) {
                ASSERT_EQ(p, (Rgba8{128, 128, 128, 255})) << x << "," << y;
            } else if (p == white) {
                ++labelPixels;
            }
        }
    }
    EXPECT_GT(labelPixels, 10);
}

// The word a fill mark carries, read back glyph by glyph at the sizes the overlay and capture
// labels use: every row and column of each capital must come out, each glyph pixel a whole
// square of canvas pixels.
TEST(Raster, SmallCapitalsKeepEveryRowAndColumn) {
    const std::map<char, std::array<const char*, 7>> capitals = {
        {'R', {"####.", "#...#", "#...#", "####.", "#.#..", "#..#.", "#...#"}},
        {'E', {"#####", "#....", "#....", "####.", "#....", "#....", "#####"}},
        {'D', {"###..", "#..#.", "#...#", "#...#", "#...#", "#..#.", "###.."}},
        {'A', {".###.", "#...#", "#...#", "#####", "#...#", "#...#", "#...#"}},
        {'C', {".###.", "#...#", "#....", "#....", "#....", "#...#", ".###."}},
        {'T', {"#####", "..#..", "..#..", "..#..", "..#..", "..#..", "..#.."}},
    };
    const std::string word = "REDACTED";
    for (const double size : {9.5, 10.0, 12.0, 17.0, 29.0}) {
        Image image = Image::filled(220, 60);
        drawText(image, 3.3, 4.6, size, word, {0, 0, 0, 1}, {0, 0, 220, 60});
        int top = image.height, left = image.width, bottom = -1, inked = 0;
        for (int y = 0; y < image.height; ++y) {
            for (int x = 0; x < image.width; ++x) {
                if (pixel(image, x, y) == white) continue;
                ++inked;
                top = std::min(top, y);
                left = std::min(left, x);
                bottom = std::max(bottom, y);
            }
        }
        ASSERT_GE(bottom, 0) << "size " << size;
        // Capitals stand seven glyph rows tall.
        const int height = bottom - top + 1;
        ASSERT_EQ(height % 7, 0) << "size " << size << ": " << height << " rows of ink";
        const int unit = height / 7;
        EXPECT_GE(unit, 1);
        int expected = 0;
        for (std::size_t i = 0; i < word.size(); ++i) {
            const auto& rows = capitals.at(word[i]);
            for (int r = 0; r < 7; ++r) {
                for (int c = 0; c < 5; ++c) {
                    const bool ink = rows[static_cast<std::size_t>(r)][c] == '#';
                    expected += ink ? unit * unit : 0;
                    const int x = left + (static_cast<int>(i) * 6 + c) * unit + unit / 2;
                    const int y = top + r * unit + unit / 2;
                    EXPECT_EQ(pixel(image, x, y) != white, ink)
                        << "size " << size << ", '" << word[i] << "' row " << r << " column " << c;
                }
            }
        }
        EXPECT_EQ(inked, expected) << "size " << size << ": ink outside the glyphs' squares";
    }
}

TEST(Renderer, DrawsTheTreeAsTheHostLaysItOut) {
    HeadlessHost host;
    auto window = makeAppWindow(host, {100, 100});
    // A scrolled, clipping container: its child is drawn 20 points higher and cut at its edge.
    auto scroller = add(*window, view({10, 10, 50, 50}, rgb(0x0000FF)));
    scroller->clipsToBounds = true;
    scroller->boundsOrigin = {0, 20};
    add(*scroller, view({5, 25, 80, 10}, rgb(0xFF0000)));
    add(*window, view({70, 70, 10, 10}, rgb(0x00FF00)))->hidden = true;
    auto faded = add(*window, view({70, 0, 20, 10}, std::nullopt));
    faded->alpha = 0.5;
    add(*faded, view({0, 0, 20, 10}, rgb(0x000000)));  // inherits its parent's alpha
    auto moving = add(*window, view({0, 80, 10, 10}, rgb(0xFF0000)));
    moving->presentationFrame = Rect{20, 80, 10, 10};

    // The window's bounds origin lands wherever the step puts it.
    for (const Point at : {Point{0, 0}, Point{7, 3}}) {
        CapturePlan plan;
        plan.bounds = {0, 0, 120, 110};
        plan.steps.push_back(windowStep(*window, {at.x, at.y, 100, 100}));
        const Image image = HeadlessRenderer().draw(plan);
        const auto canvasAt = [&](int x, int y) {
            return pixel(image, x + static_cast<int>(at.x), y + static_cast<int>(at.y));
        };
        EXPECT_EQ(canvasAt(15, 15), red);
        EXPECT_EQ(canvasAt(59, 24), red);
        EXPECT_EQ(canvasAt(60, 15), white);  // cut by the container
        EXPECT_EQ(canvasAt(14, 15), (Rgba8{0, 0, 255, 255}));
        EXPECT_EQ(canvasAt(75, 75), white);  // hidden
        EXPECT_NEAR(canvasAt(80, 5).r, 127, 1);
        EXPECT_EQ(canvasAt(25, 85), red);  // where it is drawn, not where it will be
        EXPECT_EQ(canvasAt(5, 85), white);
        EXPECT_EQ(pixel(image, 110, 105), white);  // outside the window: the blank canvas
    }
}

TEST(Renderer, OpaqueSubviewsHideOnlyWhatTheyCover) {
    // Each parent has an opaque child covering all of it but a one-point strip on one side.
    HeadlessHost host;
    auto window = makeAppWindow(host, {125, 50});
    const Rect leaves[] = {{1, 0, 20, 20}, {0, 1, 20, 20}, {-1, 0, 20, 20}, {0, -1, 20, 20}};
    const Point strips[] = {{0.5, 10}, {10, 0.5}, {19.5, 10}, {10, 19.5}};
    for (int i = 0; i < 4; ++i) {
        auto parent = add(*window, view({i * 25.0, 0, 20, 20}, rgb(0x00FF00)));
        parent->clipsToBounds = true;
        add(*parent, view(leaves[i], rgb(0x000000)));
    }
    // And one covered whole by a translucent child.
    auto parent = add(*window, view({100, 0, 20, 20}, rgb(0x00FF00)));
    add(*parent, view({0, 0, 20, 20}, rgb(0x000000)))->alpha = 0.5;

    // And one whose covering child a read callback hides after all.
    auto changing = add(*window, view({0, 25, 20, 20}, rgb(0x00FF00)));
    auto callback = add(*changing, view({0, 0, 1, 1}));
    auto cover = add(*changing, view({0, 0, 20, 20}, rgb(0x000000)));
    callback->onRead = [&] { cover->hidden = true; };

    const Image image = HeadlessRenderer().draw(planFor(*window, 2));
    EXPECT_EQ(pixel(image, 220, 20), (Rgba8{0, 127, 0, 255}));
    EXPECT_EQ(pixel(image, 20, 70), (Rgba8{0, 255, 0, 255}));
    for (int i = 0; i < 4; ++i) {
        const int x = static_cast<int>((i * 25 + strips[i].x) * 2);
        const int y = static_cast<int>(strips[i].y * 2);
        EXPECT_EQ(pixel(image, x, y), (Rgba8{0, 255, 0, 255})) << i;
        EXPECT_EQ(pixel(image, (i * 25 + 10) * 2, 20), black) << i;
    }
}

TEST(Renderer, SecureFieldsNeverDrawTheirText) {
    HeadlessHost host;
    auto window = makeAppWindow(host, {200, 60});
    auto field = add(*window, textField({10, 10, 180, 40}, "hunter2", /*secure=*/true));
    HeadlessRenderer renderer;
    const Image secure = renderer.draw(planFor(*window, 2));
    field->secureTextEntry = false;
    const Image plain = renderer.draw(planFor(*window, 2));
    field->text =
        "\xE2\x80\xA2\xE2\x80\xA2\xE2\x80\xA2\xE2\x80\xA2\xE2\x80\xA2\xE2\x80\xA2"
        "\xE2\x80\xA2";  // seven dots
    const Image dots = renderer.draw(planFor(*window, 2));
    EXPECT_NE(secure.rgba, plain.rgba);
    EXPECT_EQ(secure.rgba, dots.rgba);
}

TEST(Renderer, FailsRatherThanDrawAPartlyReadTree) {
    HeadlessHost host;
    auto window = makeAppWindow(host, {50, 50});
    auto first = add(*window, view({0, 0, 10, 10}, rgb(0xFF0000)));
    auto second = add(*window, view({10, 0, 10, 10}, rgb(0x00FF00)));
    HeadlessRenderer renderer;
    const CapturePlan plan = planFor(*window, 1);

    second->onRead = [&] { first->removeFromSuperview(); };
    EXPECT_THROW(renderer.render(plan), HostReadError);
    window->addSubview(first);

    second->onRead = [] { throw std::runtime_error("platform failure"); };
    EXPECT_THROW(renderer.render(plan), std::runtime_error);

    // The view removing itself: it stays alive until the renderer lets go of it.
    second->onRead = [&] { second->removeFromSuperview(); };
    EXPECT_THROW(renderer.render(plan), HostReadError);
    second.reset();

    // The window freed while it is drawn, and before.
    first->onRead = [&] {
        window->scene()->removeWindow(*window);
        window.reset();
    };
    EXPECT_THROW(renderer.render(plan), HostReadError);
    EXPECT_THROW(renderer.render(plan), HostReadError);
}

TEST(Renderer, EncodesThePixelsItDrew) {
    HeadlessHost host;
    auto window = makeAppWindow(host, {60, 40});
    add(*window, label({4, 4, 52, 20}, "Balance"));
    add(*window, switchControl({4, 26, 30, 12}, true));
    CapturePlan plan = planFor(*window, 1.5);
    HeadlessRenderer renderer;
    const Image drawn = renderer.draw(plan);
    EXPECT_EQ(drawn.width, 90);
    EXPECT_EQ(drawn.height, 60);
    const auto png = decodePng(renderer.render(plan));
    ASSERT_TRUE(png.has_value());
    EXPECT_EQ(png->rgba, drawn.rgba);
    plan.jpeg = true;
    const auto jpeg = decodeJpeg(renderer.render(plan));
    ASSERT_TRUE(jpeg.has_value());
    EXPECT_EQ(jpeg->width, 90);
    EXPECT_EQ(jpeg->height, 60);
}

}  // namespace
}  // namespace virela::headless
