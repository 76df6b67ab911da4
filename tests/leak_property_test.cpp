// Redaction must never leak: over many generated screens, every view that is redacted (and
// everything inside it) is drawn in one colour and then in another; the two captures must be
// byte-for-byte the same, and neither colour may survive anywhere in the decoded image.
//
// VIRELA_LEAK_SCREENS sets how many screens are tried (default 150); VIRELA_LEAK_SEED the
// first seed, so that a failure can be replayed alone.

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "core/capture/capture.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/render/image.hpp"
#include "platform/headless/render/renderer.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela::headless {
namespace {

const Color sentinelA = rgb(0x01FE03);
const Color sentinelB = rgb(0xFE0102);

// Colours for everything that is not sensitive: never near either sentinel.
const std::uint32_t ordinary[] = {0xFFFFFF, 0x172019, 0xE5E1D4, 0x0C6B57, 0x5E6B60,
                                  0x3366CC, 0xF3F0E6, 0x000000, 0x808080, 0xCFE3D4};

class ScreenGenerator {
  public:
    explicit ScreenGenerator(unsigned seed) : rng_(seed) {}

    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    std::vector<std::shared_ptr<Window>> windows;
    std::vector<View*> sensitive;

    void generate() {
        const Size sizes[] = {{390, 844}, {390, 844}, {320, 480}, {1366, 1024}};
        const Size size = sizes[pick(chance(0.12) ? 4 : 3)];
        auto main = makeAppWindow(*host, size, colour(1));
        windows.push_back(main);
        populate(*main, 0);
        const int extra = pick(3);
        for (int i = 0; i < extra; ++i) {
            const double levels[] = {0, 1, 2000, 10};
            auto w =
                addWindow(*main, levels[pick(4)], chance(0.2) ? "UITextEffectsWindow" : "UIWindow");
            w->passthrough = chance(0.15);
            const double alphas[] = {1, 1, 0.5, 0.02, 0.005};
            w->alpha = alphas[pick(5)];
            if (chance(0.5)) w->background = colour(chance(0.5) ? 1 : 0.4);  // else see-through
            populate(*w, 0);
            windows.push_back(w);
        }
    }

    void paintSensitive(const Color& c) {
        for (View* v : sensitive) {
            v->background = Color{c.red, c.green, c.blue, v->background->alpha};
            v->textColor = c;
            v->borderColor = c;
        }
    }

  private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    double coord(double limit) {
        // Quarter points, so that edges fall between pixels as well as on them.
        return std::round(std::uniform_real_distribution<double>(-0.1 * limit, limit)(rng_) * 4) /
               4;
    }
    Color colour(double alpha) { return rgb(ordinary[pick(std::size(ordinary))], alpha); }

    void populate(View& parent, int depth) {
        const int children = depth == 0 ? 3 + pick(6) : (depth < 4 ? pick(4) : 0);
        const Rect area = parent.bounds();
        for (int i = 0; i < children; ++i) {
            const double w = std::max(1.0, coord(area.width));
            const double h = std::max(1.0, coord(area.height / 2));
            const Rect frame{area.x + coord(area.width), area.y + coord(area.height), w, h};
            std::shared_ptr<View> v;
            switch (pick(6)) {
                case 0:
                    v = label(frame, "Card 4111 1111");
                    break;
                case 1:
                    v = textField(frame, "secret", chance(0.4));
                    break;
                case 2: {
                    v = scrollView(frame, {w, h * 3});
                    v->boundsOrigin = {0, coord(h * 2)};
                    break;
                }
                default:
                    v = view(frame);
                    break;
            }
            const double alphas[] = {1, 1, 1, 0.5, 0.005};
            if (chance(0.7)) v->background = colour(alphas[pick(3)]);
            v->alpha = alphas[pick(5)];
            v->hidden = chance(0.08);
            v->clipsToBounds = v->clipsToBounds || chance(0.3);
            if (chance(0.05)) {
                v->animating = true;
                v->presentationFrame = Rect{frame.x + coord(40), frame.y + coord(40), w, h};
            }
            if (chance(0.15)) shape(*v);
            if (chance(0.08)) v->setVirelaRedacted(true);
            if (chance(0.03)) v->virelaRedact(rgb(0x222222), std::string("PRIVATE"));
            if (chance(0.04)) v->accessibilityIdentifier = "form.virela-redact.field";
            parent.addSubview(v);
            populate(*v, depth + 1);
            if (v->isVirelaRedacted() && chance(0.6)) parent.addSubview(coverOver(frame));
        }
    }

    // Layer effects that leave parts of a view's box undrawn, or (a translation) none.
    void shape(View& v) {
        const double side = std::min(v.frame.width, v.frame.height);
        switch (pick(5)) {
            case 0:
                v.cornerRadius = side * (chance(0.5) ? 0.5 : 0.2);
                break;
            case 1:
                v.masked = true;
                break;
            case 2:
                v.transform = {0.8, 0.6, -0.6, 0.8, 0, 0};  // a rotation
                break;
            case 3:
                v.transform = {0.5, 0, 0, 0.5, 0, 0};
                break;
            default:
                v.transform = {1, 0, 0, 1, 3, -2};
                break;
        }
    }

    // An opaque sheet over a redacted view's box, a little larger, or over a band of it: the
    // case where occlusion removes the box, so a sheet that does not hide all of it leaks.
    std::shared_ptr<View> coverOver(const Rect& r) {
        const double grow = pick(3);
        Rect f{r.x - grow, r.y - grow, r.width + 2 * grow, r.height + 2 * grow};
        if (chance(0.4)) f.height = std::max(1.0, r.height / 2 + grow);
        auto sheet = view(f);
        sheet->background = colour(1);
        shape(*sheet);
        sheet->clipsToBounds = chance(0.5);
        if (chance(0.3)) sheet->alpha = 0.6;
        if (chance(0.4)) {
            auto inner = view({0, 0, f.width, f.height});
            inner->background = colour(1);
            sheet->addSubview(inner);  // drawn through the sheet's own shape
        }
        return sheet;
    }

  public:
    // Everything that is redacted, or inside something redacted, draws sensitive content.
    void collectSensitive() {
        for (const auto& w : windows) collect(*w, false);
    }

  private:
    void collect(View& v, bool inside) {
        const bool redacted =
            inside || v.isVirelaRedacted() ||
            v.accessibilityIdentifier.find("virela-redact") != std::string::npos ||
            (v.kind() == ViewKind::textField && v.secureTextEntry);
        if (redacted) {
            if (!v.background) v.background = Color{0, 0, 0, 1};
            sensitive.push_back(&v);
        }
        for (const auto& child : v.subviews()) collect(*child, redacted);
    }

    std::mt19937 rng_;
};

bool containsColour(const Image& image, const Color& c) {
    const Rgba8 target = toRgba8(c);
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const std::uint8_t* p = image.at(x, y);
            if (p[0] == target.r && p[1] == target.g && p[2] == target.b) return true;
        }
    }
    return false;
}

unsigned envOr(const char* name, unsigned fallback) {
    const char* value = std::getenv(name);
    return value ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : fallback;
}

TEST(LeakProperty, NoRedactedPixelSurvivesInAnyGeneratedScreen) {
    const unsigned screens = envOr("VIRELA_LEAK_SCREENS", 150);
    const unsigned firstSeed = envOr("VIRELA_LEAK_SEED", 1);
    auto log = std::make_shared<virela::testing::RecordingLog>();
    std::size_t boxes = 0;
    for (unsigned seed = firstSeed; seed < firstSeed + screens; ++seed) {
        SCOPED_TRACE("VIRELA_LEAK_SEED=" + std::to_string(seed) + " VIRELA_LEAK_SCREENS=1");
        ScreenGenerator screen(seed);
        screen.generate();
        screen.collectSensitive();
        WindowRegistry registry(screen.host);
        ScreenCapture capture(registry, std::make_shared<HeadlessRenderer>(), log);

        std::vector<std::uint8_t> still[2];
        std::vector<std::uint8_t> frame[2];
        for (int pass = 0; pass < 2; ++pass) {
            screen.paintSensitive(pass == 0 ? sentinelA : sentinelB);
            still[pass] = capture.capture(false);
            frame[pass] = capture.capture(true);
        }
        for (const auto& step : capture.lastPlan().steps) {
            boxes += step.kind == CaptureStep::Kind::paintRedaction;
        }
        ASSERT_TRUE(still[0] == still[1]) << "a redacted view shows in the screenshot";
        ASSERT_TRUE(frame[0] == frame[1]) << "a redacted view shows in the live frame";
        const auto image = decodePng(still[0]);
        ASSERT_TRUE(image);
        ASSERT_FALSE(containsColour(*image, sentinelA));
        ASSERT_TRUE(decodeJpeg(frame[0]));
    }
    EXPECT_GT(boxes, screens);  // the screens really exercised redaction
}

}  // namespace
}  // namespace virela::headless
