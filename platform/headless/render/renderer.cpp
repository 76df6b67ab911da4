#include "platform/headless/render/renderer.hpp"

#include <algorithm>
#include <cmath>

#include "platform/headless/host/notifier.hpp"
#include "platform/headless/host/screen.hpp"
#include "platform/headless/render/font.hpp"

namespace virela::headless {

namespace {

// Text takes this share of its view's height, up to a cap, inset from the left edge (points).
constexpr double textHeightRatio = 0.6;
constexpr double maxTextPoints = 17;
constexpr double textInsetPoints = 4;
// Redaction labels are left out below this height in pixels: they would not be legible.
constexpr double minLabelPixels = 10;
// A canvas side beyond this many pixels means a broken plan; nothing is drawn.
constexpr double maxCanvasSide = 16384;

constexpr Color switchOnColor{0.20, 0.78, 0.35, 1};
constexpr Color trackColor{0.88, 0.88, 0.90, 1};
constexpr Color tintColor{0.0, 0.48, 1.0, 1};
constexpr Color knobColor{1, 1, 1, 1};
constexpr Color edgeColor{0.60, 0.60, 0.63, 1};
constexpr Color selectedSegmentColor{0.82, 0.82, 0.85, 1};

constexpr const char* secureDot = "\xE2\x80\xA2";  // U+2022

bool drawsText(ViewKind kind) noexcept {
    return kind == ViewKind::label || kind == ViewKind::button || kind == ViewKind::textField ||
           kind == ViewKind::textView;
}

int canvasSide(double points, double scale) noexcept {
    const double pixels = points * scale;
    if (!std::isfinite(pixels) || pixels <= 0 || pixels > maxCanvasSide) return 0;
    return static_cast<int>(std::ceil(pixels - 1e-9));  // 375 * 2.6 is not quite 975
}

Rect rectOf(const PixelBox& box) noexcept {
    return {static_cast<double>(box.x0), static_cast<double>(box.y0),
            static_cast<double>(box.x1 - box.x0), static_cast<double>(box.y1 - box.y0)};
}

// Fills `outer` minus `inner` as four boxes that do not overlap, so translucent edges blend once.
void fillRing(Image& canvas, const PixelBox& outer, PixelBox inner, const PixelBox& clip,
              Rgba8 color) noexcept {
    inner = inner.intersect(outer);
    if (inner.empty()) {
        fillBox(canvas, outer.intersect(clip), color);
        return;
    }
    fillBox(canvas, PixelBox{outer.x0, outer.y0, outer.x1, inner.y0}.intersect(clip), color);
    fillBox(canvas, PixelBox{outer.x0, inner.y1, outer.x1, outer.y1}.intersect(clip), color);
    fillBox(canvas, PixelBox{outer.x0, inner.y0, inner.x0, inner.y1}.intersect(clip), color);
    fillBox(canvas, PixelBox{inner.x1, inner.y0, outer.x1, inner.y1}.intersect(clip), color);
}

// A rectangle inset by `d` on every side, or an empty one when nothing is left.
Rect inset(const Rect& r, double d) noexcept {
    if (r.width <= 2 * d || r.height <= 2 * d) return {};
    return {r.x + d, r.y + d, r.width - 2 * d, r.height - 2 * d};
}

// Draws one window's tree. Geometry is in the window's coordinates (points) until toPixels.
class WindowPainter {
  public:
    WindowPainter(Image& canvas, std::string& dots, double scale)
        : canvas_(canvas), dots_(dots), scale_(scale) {}

    // From window coordinates to canvas points.
    void setOffset(Point offset) noexcept { offset_ = offset; }

    // The view's own content: background, border, then text or control.
    void paintView(const View& view, const Rect& drawn, const PixelBox& clip, double alpha) {
        const Rect px = toPixels(drawn);
        const PixelBox box = centreCoverage(px).intersect(clip);
        if (box.empty() || coveredBySubview(view, drawn, box, alpha)) return;
        const double radius = std::min({view.cornerRadius * scale_, px.width / 2, px.height / 2});
        if (radius > 0) {
            paintRounded(view, px, box, radius, alpha);
        } else {
            if (view.background) fillBox(canvas_, box, toRgba8(*view.background, alpha));
            if (view.borderColor && view.borderWidth > 0) {
                fillRing(canvas_, centreCoverage(px),
                         centreCoverage(inset(px, view.borderWidth * scale_)), box,
                         toRgba8(*view.borderColor, alpha));
            }
        }
        if (!view.strokes.empty() && view.strokeColor && view.strokeWidth > 0) {
            paintStrokes(view, drawn, clip, alpha);
        }
        switch (view.kind()) {
            case ViewKind::switchControl:
                paintSwitch(view, px, box, alpha);
                break;
            case ViewKind::slider:
                paintSlider(view, px, box, alpha);
                break;
            case ViewKind::segmentedControl:
                paintSegments(view, px, box, alpha);
                break;
            default:
                if (drawsText(view.kind())) paintText(view, px, box, alpha);
                break;
        }
    }

    // Depth first, subviews in order. `origin` is the parent's drawn origin.
    void paintSubviews(const View& parent, Point origin, const PixelBox& clip, double alpha) {
        const auto& children = parent.subviews();
        for (std::size_t i = 0; i < children.size(); ++i) {
            const std::shared_ptr<View> view = children[i];  // alive through its own callback
            read(*view);
            // Below 0.01 a view counts as invisible everywhere (redaction, hit-testing), so it
            // is not drawn either: a faint sensitive view must not tint the image.
            if (view->hidden || !(view->alpha >= 0.01)) continue;
            // Shapes the box rasteriser cannot draw are left out rather than drawn as their
            // bounding box, which would hide more than the device shows.
            if (view->masked || !view->transform.isTranslation()) continue;
            const double viewAlpha = alpha * std::min(view->alpha, 1.0);
            const Rect& frame = view->presentationFrame ? *view->presentationFrame : view->frame;
            if (!frame.isFinite()) continue;
            const Rect drawn{origin.x + frame.x - parent.boundsOrigin.x,
                             origin.y + frame.y - parent.boundsOrigin.y, frame.width, frame.height};
            paintView(*view, drawn, clip, viewAlpha);
            if (view->subviews().empty()) continue;
            // A rounded clip keeps its subviews within its box inset by the radius: less than the
            // device draws, never more.
            const Rect kept = view->cornerRadius > 0 ? inset(drawn, view->cornerRadius) : drawn;
            const PixelBox inner =
                view->clipsToBounds ? clip.intersect(centreCoverage(toPixels(kept))) : clip;
            paintSubviews(*view, {drawn.x, drawn.y}, inner, viewAlpha);
        }
    }

    // Skipping what is covered decides on subviews before they are read: only sound when no
    // read callback can change them in between.
    void allowCulling(bool allowed) noexcept { culling_ = allowed; }

    // Whether a subview paints every pixel of `box` opaquely, hiding the view's own content.
    // Full-screen containers stack several deep; each is a full-canvas fill saved.
    bool coveredBySubview(const View& view, const Rect& drawn, const PixelBox& box,
                          double alpha) const {
        // Subviews of a rounded clip are cut short of its corners.
        if (!culling_ || alpha < 1 || (view.clipsToBounds && view.cornerRadius > 0)) return false;
        for (const auto& child : view.subviews()) {
            if (child->hidden || !child->background || child->cornerRadius > 0 || child->masked ||
                !child->transform.isTranslation() ||
                toRgba8(*child->background, std::min(child->alpha, 1.0)).a != 255) {
                continue;
            }
            const Rect& frame = child->presentationFrame ? *child->presentationFrame : child->frame;
            if (!frame.isFinite()) continue;
            const PixelBox c = centreCoverage(
                toPixels({drawn.x + frame.x - view.boundsOrigin.x,
                          drawn.y + frame.y - view.boundsOrigin.y, frame.width, frame.height}));
            if (c.x0 <= box.x0 && c.y0 <= box.y0 && c.x1 >= box.x1 && c.y1 >= box.y1) return true;
        }
        return false;
    }

    // Runs the platform's read callback. A tree changed by it would be drawn half old, half
    // new, and a view added now was never seen by the redaction walk: the frame fails instead.
    void read(View& view) const {
        if (!view.onRead) return;
        view.onRead();
        if (treeGeneration() != generation_) {
            throw HostReadError("a view was added or removed while the window was drawn");
        }
    }

    Rect toPixels(const Rect& r) const noexcept {
        return {(r.x + offset_.x) * scale_, (r.y + offset_.y) * scale_, r.width * scale_,
                r.height * scale_};
    }

  private:
    void fill(const Rect& px, const PixelBox& clip, const Color& color, double alpha) {
        fillBox(canvas_, centreCoverage(px).intersect(clip), toRgba8(color, alpha));
    }

    // Background and border of a layer with rounded corners, row by row; the border is the
    // outer shape minus the inner one, so it blends once.
    void paintRounded(const View& view, const Rect& px, const PixelBox& clip, double radius,
                      double alpha) {
        const double border = view.borderColor ? view.borderWidth * scale_ : 0;
        const Rect inner = border > 0 ? inset(px, border) : Rect{};
        const double innerRadius = std::max(0.0, radius - border);
        for (int y = clip.y0; y < clip.y1; ++y) {
            const double cy = y + 0.5;
            const PixelBox outer = roundedRow(px, radius, y, cy).intersect(clip);
            if (outer.empty()) continue;
            if (view.background) fillBox(canvas_, outer, toRgba8(*view.background, alpha));
            if (border <= 0) continue;
            const Rgba8 color = toRgba8(*view.borderColor, alpha);
            const PixelBox hole = roundedRow(inner, innerRadius, y, cy).intersect(outer);
            if (hole.empty()) {
                fillBox(canvas_, outer, color);
                continue;
            }
            fillBox(canvas_, {outer.x0, y, hole.x0, y + 1}, color);
            fillBox(canvas_, {hole.x1, y, outer.x1, y + 1}, color);
        }
    }

    // Pixel row `y` of a rounded rectangle: the pixels whose centre lies inside it.
    static PixelBox roundedRow(const Rect& r, double radius, int y, double cy) noexcept {
        if (r.isEmpty() || cy < r.y || cy >= r.maxY()) return {};
        double dy = 0;
        if (cy < r.y + radius) dy = r.y + radius - cy;
        if (cy > r.maxY() - radius) dy = cy - (r.maxY() - radius);
        const double dx = radius - std::sqrt(std::max(0.0, radius * radius - dy * dy));
        return {static_cast<int>(std::ceil(r.x + dx - 0.5)), y,
                static_cast<int>(std::ceil(r.maxX() - dx - 0.5)), y + 1};
    }

    // The view's path segments with round caps: every pixel whose centre is within half the
    // line width of a segment, each painted once where segments meet.
    void paintStrokes(const View& view, const Rect& drawn, const PixelBox& clip, double alpha) {
        const double half = view.strokeWidth * scale_ / 2;
        std::vector<std::pair<Point, Point>> segments;
        Rect reach = Rect::null();
        for (const View::Stroke& s : view.strokes) {
            const Rect a = toPixels({drawn.x + s.from.x - view.boundsOrigin.x,
                                     drawn.y + s.from.y - view.boundsOrigin.y, 0, 0});
            const Rect b = toPixels({drawn.x + s.to.x - view.boundsOrigin.x,
                                     drawn.y + s.to.y - view.boundsOrigin.y, 0, 0});
            if (!a.isFinite() || !b.isFinite()) continue;
            segments.emplace_back(Point{a.x, a.y}, Point{b.x, b.y});
            const Rect box{std::min(a.x, b.x) - half, std::min(a.y, b.y) - half,
                           std::abs(a.x - b.x) + 2 * half, std::abs(a.y - b.y) + 2 * half};
            reach = reach.isNull() ? box : reach.unionWith(box);
        }
        if (reach.isNull()) return;
        const PixelBox area = touchedPixels(reach).intersect(clip);
        const Rgba8 color = toRgba8(*view.strokeColor, alpha);
        for (int y = area.y0; y < area.y1; ++y) {
            for (int x = area.x0; x < area.x1; ++x) {
                const Point c{x + 0.5, y + 0.5};
                for (const auto& [a, b] : segments) {
                    if (distanceToSegment(c, a, b) <= half) {
                        fillBox(canvas_, {x, y, x + 1, y + 1}, color);
                        break;
                    }
                }
            }
        }
    }

    static double distanceToSegment(Point p, Point a, Point b) noexcept {
        const double dx = b.x - a.x;
        const double dy = b.y - a.y;
        const double length2 = dx * dx + dy * dy;
        double t = length2 > 0 ? ((p.x - a.x) * dx + (p.y - a.y) * dy) / length2 : 0;
        t = std::clamp(t, 0.0, 1.0);
        return std::hypot(p.x - (a.x + t * dx), p.y - (a.y + t * dy));
    }

    void paintText(const View& view, const Rect& px, const PixelBox& clip, double alpha) {
        std::string_view text = view.text;
        if (view.isSecureTextInput()) {
            dots_.clear();
            for (std::size_t n = glyphCount(text); n > 0; --n) dots_ += secureDot;
            text = dots_;
        }
        if (text.empty()) return;
        const double pixelHeight = std::min(textHeightRatio * px.height, maxTextPoints * scale_);
        if (!(pixelHeight >= 1)) return;
        const double top = px.midY() - pixelHeight / 2;
        Color color = view.textColor;
        color.alpha *= alpha;
        drawText(canvas_, px.x + textInsetPoints * scale_, top, pixelHeight, text, color,
                 rectOf(clip));
    }

    void paintSwitch(const View& view, const Rect& px, const PixelBox& clip, double alpha) {
        fill(px, clip, view.isOn ? switchOnColor : trackColor, alpha);
        const double margin = 2 * scale_;
        const double d = px.height - 2 * margin;
        if (d <= 0) return;
        const double x = view.isOn ? px.maxX() - margin - d : px.x + margin;
        fill({x, px.y + margin, d, d}, clip, knobColor, alpha);
    }

    void paintSlider(const View& view, const Rect& px, const PixelBox& clip, double alpha) {
        const double range = view.maximumValue - view.minimumValue;
        double fraction = range > 0 ? (view.value - view.minimumValue) / range : 0;
        fraction = std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0;
        const double d = std::min(px.height, 28 * scale_);
        const double centre = px.x + d / 2 + fraction * std::max(px.width - d, 0.0);
        const double trackTop = px.midY() - 2 * scale_;
        fill({px.x, trackTop, centre - px.x, 4 * scale_}, clip, tintColor, alpha);
        fill({centre, trackTop, px.maxX() - centre, 4 * scale_}, clip, trackColor, alpha);
        const Rect knob{centre - d / 2, px.midY() - d / 2, d, d};
        fill(knob, clip, knobColor, alpha);
        fillRing(canvas_, centreCoverage(knob), centreCoverage(inset(knob, scale_)), clip,
                 toRgba8(edgeColor, alpha));
    }

    void paintSegments(const View& view, const Rect& px, const PixelBox& clip, double alpha) {
        if (view.numberOfSegments <= 0) return;
        const double width = px.width / static_cast<double>(view.numberOfSegments);
        if (view.selectedSegment >= 0 && view.selectedSegment < view.numberOfSegments) {
            fill({px.x + static_cast<double>(view.selectedSegment) * width, px.y, width, px.height},
                 clip, selectedSegmentColor, alpha);
        }
        const Rgba8 edge = toRgba8(edgeColor, alpha);
        fillRing(canvas_, centreCoverage(px), centreCoverage(inset(px, scale_)), clip, edge);
        if (width < 2) return;  // dividers would merge into one fill
        for (long k = 1; k < view.numberOfSegments; ++k) {
            const double x = px.x + static_cast<double>(k) * width;
            fillBox(canvas_,
                    centreCoverage({x - scale_ / 2, px.y, scale_, px.height}).intersect(clip),
                    edge);
        }
    }

    Image& canvas_;
    std::string& dots_;
    double scale_;
    Point offset_;
    std::uint64_t generation_ = treeGeneration();
    bool culling_ = false;
};

bool hasReadCallbacks(const View& view) noexcept {
    if (view.onRead) return true;
    for (const auto& child : view.subviews()) {
        if (hasReadCallbacks(*child)) return true;
    }
    return false;
}

// `blank`: the canvas still holds the previous frame and has to be cleared before anything is
// drawn, unless the window covers it opaquely.
void drawWindow(Image& canvas, bool& blank, std::string& dots, const CapturePlan& plan,
                const CaptureStep& step) {
    Window* window = resolve<Window>(step.window);
    if (window == nullptr) throw HostReadError("window freed before it was drawn");
    // Kept alive through the platform's callbacks. Its other owners all letting go meanwhile
    // is the window being freed mid-read.
    const std::shared_ptr<View> keep = window->weak_from_this().lock();
    WindowPainter painter(canvas, dots, plan.scale);
    painter.read(*window);
    painter.allowCulling(!hasReadCallbacks(*window));
    if (window->hidden || !(window->alpha > 0) || !step.rect.isFinite()) return;
    const double alpha = std::min(window->alpha, 1.0);
    // The window's bounds origin lands on the step's origin.
    const Rect drawn{window->boundsOrigin.x, window->boundsOrigin.y, step.rect.width,
                     step.rect.height};
    painter.setOffset({step.rect.x - plan.bounds.x - window->boundsOrigin.x,
                       step.rect.y - plan.bounds.y - window->boundsOrigin.y});
    const PixelBox whole{0, 0, canvas.width, canvas.height};
    const PixelBox clip = centreCoverage(painter.toPixels(drawn)).intersect(whole);
    if (blank) {
        if (clip != whole || !window->background || toRgba8(*window->background, alpha).a != 255) {
            fillBox(canvas, whole, {255, 255, 255, 255});
        }
        blank = false;
    }
    painter.paintView(*window, drawn, clip, alpha);
    painter.paintSubviews(*window, window->boundsOrigin, clip, alpha);
    if (keep && keep.use_count() == 1) throw HostReadError("window freed while it was drawn");
}

void paintRedaction(Image& canvas, const CapturePlan& plan, const CaptureStep& step) {
    const Rect& r = step.rect;
    if (r.isEmpty()) return;
    const double s = plan.scale;
    const Rect px{(r.x - plan.bounds.x) * s, (r.y - plan.bounds.y) * s, r.width * s, r.height * s};
    // Outward: every pixel the rectangle touches, so nothing under it survives even in part.
    fillBox(canvas, touchedPixels(px), toRgba8(step.style.color));
    const std::string& label = step.style.label;
    if (label.empty()) return;
    double pixelHeight = std::min(textHeightRatio * px.height, maxTextPoints * s);
    const double room = px.width - 2 * textInsetPoints * s;
    double width = textWidth(label, pixelHeight);
    // Glyph pixels snap to whole canvas pixels, so a shrunk label can come out a little wide.
    for (int tries = 0; tries < 4 && width > room && room > 0; ++tries) {
        pixelHeight *= room / width;
        width = textWidth(label, pixelHeight);
    }
    if (!(width <= room) || !(pixelHeight >= minLabelPixels)) return;
    drawText(canvas, px.midX() - width / 2, px.midY() - pixelHeight / 2, pixelHeight, label,
             step.style.labelColor, px);
}

}  // namespace

HeadlessRenderer::HeadlessRenderer() = default;
HeadlessRenderer::~HeadlessRenderer() = default;

std::vector<std::uint8_t> HeadlessRenderer::render(const CapturePlan& plan) {
    drawInto(canvas_, plan);
    if (!canvas_.valid()) return {};
    return plan.jpeg ? encodeJpeg(canvas_, plan.jpegQuality) : encodePng(canvas_);
}

Image HeadlessRenderer::draw(const CapturePlan& plan) {
    Image image;
    drawInto(image, plan);
    return image;
}

void HeadlessRenderer::drawInto(Image& canvas, const CapturePlan& plan) {
    const int width = canvasSide(plan.bounds.width, plan.scale);
    const int height = canvasSide(plan.bounds.height, plan.scale);
    if (width == 0 || height == 0 || !plan.bounds.isFinite()) {
        canvas = Image{};
        return;
    }
    if (canvas.width != width || canvas.height != height || !canvas.valid()) {
        canvas.width = width;
        canvas.height = height;
        canvas.rgba.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
    }
    // Cleared to opaque white lazily: a first window that covers the canvas opaquely saves it.
    bool blank = true;
    const PixelBox whole{0, 0, width, height};
    for (const CaptureStep& step : plan.steps) {
        if (step.kind == CaptureStep::Kind::drawWindow) {
            drawWindow(canvas, blank, dots_, plan, step);
            continue;
        }
        if (blank) fillBox(canvas, whole, {255, 255, 255, 255});
        blank = false;
        paintRedaction(canvas, plan, step);
    }
    if (blank) fillBox(canvas, whole, {255, 255, 255, 255});
}

}  // namespace virela::headless
