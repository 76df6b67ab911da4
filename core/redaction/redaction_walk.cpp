#include "core/redaction/redaction_walk.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace virela {
namespace {

constexpr double minimumViewAlpha = 0.01;
constexpr double opaqueAlpha = 0.99;
constexpr double growth = 0.5;
constexpr double huge = 1e15;

const Rect unclipped{-huge / 2, -huge / 2, huge, huge};

Rect finiteOrNull(const Rect& r) noexcept {
    return r.isFinite() ? r : Rect::null();
}

// A view can only hide a redaction where it is actually drawn: inside every clipping ancestor.
Rect clipped(const Rect& r, const Rect& clip) noexcept {
    const Rect c = r.intersection(clip);
    return c.isEmpty() ? Rect::null() : c;
}

// What a rounded rectangle surely covers: its corners are transparent, so only the part inset
// by the radius on every side counts. Nothing for a radius we cannot trust.
Rect withinCorners(const Rect& r, double radius) noexcept {
    if (radius == 0) return r;
    if (!(radius > 0) || !std::isfinite(radius)) return Rect::null();
    return r.insetBy(radius, radius);
}

}  // namespace

const VirelaRedaction* redactionStyleFor(const RedactionMark* mark,
                                         std::string_view accessibilityIdentifier,
                                         bool secureTextField,
                                         const VirelaRedaction& defaultStyle) noexcept {
    if (mark) return &mark->style;
    if (accessibilityIdentifier.find("virela-redact") != std::string_view::npos) {
        return &defaultStyle;
    }
    if (secureTextField) return &defaultStyle;
    return nullptr;
}

const std::vector<Redaction>& RedactionFinder::find(HostInterface& host,
                                                    const WindowFacts& window) {
    defaultStyle_ = defaultRedactionStyle();
    windowBounds_ = finiteOrNull(window.bounds);
    order_ = 0;
    chain_.clear();
    occluders_.clear();
    foundOrder_.clear();
    found_.clear();
    redacting_ = false;
    host.walkViews(window.handle, *this);
    if (redacting_) finishRedaction();
    applyOcclusion();
    return found_;
}

bool RedactionFinder::visit(const ViewFacts& view) {
    if (view.depth > chain_.size()) {
        throw HostReadError("the view tree was reported out of order");
    }
    chain_.resize(view.depth);
    if (redacting_ && view.depth <= redactingDepth_) finishRedaction();

    if (view.hidden || view.alpha < minimumViewAlpha || !std::isfinite(view.alpha)) return false;

    const Rect visible = finiteOrNull(view.frame).unionWith(finiteOrNull(view.presentation));
    const Ancestor parent =
        chain_.empty() ? Ancestor{unclipped, unclipped, false, 1} : chain_.back();
    const std::uint32_t order = order_++;
    const bool animating = parent.animating || view.animating;
    const double alpha = parent.alpha * view.alpha;
    const Rect clip = view.clipsToBounds ? parent.clip.intersection(visible) : parent.clip;
    // A mask or a rotation, scale or shear leaves parts of the bounding box undrawn, for the
    // view and everything inside it; a rounded clip, the corners of its subviews.
    const bool boxShaped = !view.masked && view.transformIsTranslation;
    Rect cover = boxShaped ? parent.cover : Rect::null();
    if (boxShaped && view.clipsToBounds) {
        cover = cover.intersection(withinCorners(visible, view.cornerRadius));
    }
    const Rect nothing{0, 0, 0, 0};
    chain_.push_back(
        {clip.isNull() ? nothing : clip, cover.isNull() ? nothing : cover, animating, alpha});

    if (redacting_) {
        // Content of a redacted view is covered wherever it is drawn, even where a subview
        // reaches outside its parent's rectangle.
        const Rect drawn = clipped(visible, parent.clip);
        if (!drawn.isNull()) redactingRect_ = redactingRect_.unionWith(drawn);
        return true;
    }

    const VirelaRedaction* style = redactionStyleFor(view.mark, view.accessibilityIdentifier,
                                                     view.secureTextField, defaultStyle_);
    if (!style) {
        if (alpha > opaqueAlpha && view.backgroundAlpha > opaqueAlpha && !animating && boxShaped) {
            const Rect drawn = clipped(withinCorners(visible, view.cornerRadius),
                                       parent.clip.intersection(parent.cover));
            if (!drawn.isNull()) occluders_.push_back({drawn, order});
        }
        return true;
    }
    redacting_ = true;
    redactingDepth_ = view.depth;
    redactingOrder_ = order;
    redactingClip_ = parent.clip;
    redactingRect_ = visible;
    redactingView_ = view.handle;
    redactingStyle_ = *style;  // the mark is only valid during this call
    return true;
}

void RedactionFinder::finishRedaction() {
    redacting_ = false;
    // Scrolled or clipped out of sight, or outside the window: nothing to paint.
    Rect rect = redactingRect_.intersection(redactingClip_);
    if (rect.isEmpty()) return;
    rect = rect.intersection(windowBounds_);
    if (rect.isEmpty()) return;
    found_.push_back({redactingView_, rect, redactingStyle_});
    foundOrder_.push_back(redactingOrder_);
}

RedactionFinder::CellSpan RedactionFinder::cellsOf(const Rect& r) const noexcept {
    auto cell = [this](double v, double origin, double size) {
        return std::clamp(static_cast<int>(std::floor((v - origin) / size)), 0, gridSide_ - 1);
    };
    return {
        cell(r.minX(), windowBounds_.x, cellWidth_), cell(r.maxX(), windowBounds_.x, cellWidth_),
        cell(r.minY(), windowBounds_.y, cellHeight_), cell(r.maxY(), windowBounds_.y, cellHeight_)};
}

void RedactionFinder::buildOccluderGrid() {
    // About one occluder per cell: deep trees stack many small views in a small area, and a
    // coarse grid would make each redaction there meet all of them.
    const auto side = static_cast<int>(
        std::clamp(std::ceil(std::sqrt(static_cast<double>(occluders_.size()))), 1.0, 256.0));
    gridSide_ = side;
    cellWidth_ = std::max(windowBounds_.width / side, 1.0);
    cellHeight_ = std::max(windowBounds_.height / side, 1.0);
    const auto cells = static_cast<std::size_t>(side * side);
    cellStart_.assign(cells + 1, 0);
    spans_.resize(occluders_.size());
    seen_.assign(occluders_.size(), 0);
    wide_.clear();
    // An occluder over more cells than there are redactions costs less met by every redaction
    // than filed in every cell: a full-screen container stays one entry.
    const auto spanLimit = static_cast<long>(found_.size());
    for (std::uint32_t i = 0; i < occluders_.size(); ++i) {
        const CellSpan span = cellsOf(occluders_[i].rect);
        spans_[i] = span;
        const long count =
            static_cast<long>(span.column1 - span.column0 + 1) * (span.row1 - span.row0 + 1);
        if (count > spanLimit) {
            wide_.push_back(i);
            spans_[i].column0 = -1;  // not in the grid
            continue;
        }
        for (int row = span.row0; row <= span.row1; ++row) {
            for (int col = span.column0; col <= span.column1; ++col) {
                ++cellStart_[static_cast<std::size_t>(row * side + col + 1)];
            }
        }
    }
    for (std::size_t i = 1; i <= cells; ++i) cellStart_[i] += cellStart_[i - 1];
    cellItems_.resize(cellStart_[cells]);
    std::vector<std::uint32_t>& fill = nearby_;  // reused as per-cell write cursors
    fill.assign(cellStart_.begin(), cellStart_.end() - 1);
    // Filed in visit order, so each cell's list is sorted by it.
    for (std::uint32_t i = 0; i < occluders_.size(); ++i) {
        const CellSpan& span = spans_[i];
        if (span.column0 < 0) continue;
        for (int row = span.row0; row <= span.row1; ++row) {
            for (int col = span.column0; col <= span.column1; ++col) {
                cellItems_[fill[static_cast<std::size_t>(row * side + col)]++] = i;
            }
        }
    }
}

namespace {

enum class Cover { none, partial, whole };

// Removes from `uncovered` (what is left of the redacted rectangle) the band that `o` covers
// along one edge, and trims `paint` the same way. Comparisons are exact against what is left,
// so a band is only removed where `o` really lies over every point of it.
Cover removeBand(const Rect& o, Rect& uncovered, Rect& paint) {
    const bool fullWidth = o.minX() <= uncovered.minX() && o.maxX() >= uncovered.maxX();
    const bool fullHeight = o.minY() <= uncovered.minY() && o.maxY() >= uncovered.maxY();
    if (fullWidth && fullHeight) return Cover::whole;
    if (fullWidth && o.minY() <= uncovered.minY() && o.maxY() > uncovered.minY()) {
        const double edge = o.maxY();
        uncovered = Rect::make(uncovered.x, edge, uncovered.width, uncovered.maxY() - edge);
        paint = Rect::make(paint.x, edge, paint.width, paint.maxY() - edge);
        return Cover::partial;
    }
    if (fullWidth && o.maxY() >= uncovered.maxY() && o.minY() < uncovered.maxY()) {
        const double edge = o.minY();
        uncovered = Rect::make(uncovered.x, uncovered.y, uncovered.width, edge - uncovered.y);
        paint = Rect::make(paint.x, paint.y, paint.width, edge - paint.y);
        return Cover::partial;
    }
    if (fullHeight && o.minX() <= uncovered.minX() && o.maxX() > uncovered.minX()) {
        const double edge = o.maxX();
        uncovered = Rect::make(edge, uncovered.y, uncovered.maxX() - edge, uncovered.height);
        paint = Rect::make(edge, paint.y, paint.maxX() - edge, paint.height);
        return Cover::partial;
    }
    if (fullHeight && o.maxX() >= uncovered.maxX() && o.minX() < uncovered.maxX()) {
        const double edge = o.minX();
        uncovered = Rect::make(uncovered.x, uncovered.y, edge - uncovered.x, uncovered.height);
        paint = Rect::make(paint.x, paint.y, edge - paint.x, paint.height);
        return Cover::partial;
    }
    return Cover::none;
}

}  // namespace

void RedactionFinder::applyOcclusion() {
    if (found_.empty()) return;
    // Few pairs: compare directly. Many: only the occluders that share a grid cell.
    const bool useGrid = !windowBounds_.isEmpty() && occluders_.size() * found_.size() > 4096;
    if (useGrid) buildOccluderGrid();

    // Kept redactions move to the front, in visit order; the rest is cut off at the end.
    std::size_t kept = 0;
    for (std::size_t index = 0; index < found_.size(); ++index) {
        const std::uint32_t order = foundOrder_[index];
        const Rect grown = found_[index].rect.insetBy(-growth, -growth);
        Rect uncovered = found_[index].rect;
        Rect paint = grown;
        bool whole = false;
        auto consider = [&](const Occluder& o) {
            if (o.order <= order || grown.contains(o.rect) || !o.rect.intersects(uncovered)) {
                return;
            }
            if (removeBand(o.rect, uncovered, paint) == Cover::whole) whole = true;
        };
        if (!useGrid) {
            for (const Occluder& o : occluders_) {
                consider(o);
                if (whole || uncovered.isEmpty()) break;
            }
        } else {
            // Only occluders drawn after the redaction, each met once. One that is not wholly
            // inside the redaction reaches past its edge, so it is filed in a cell on the rim of
            // the redaction's cells: the cells within hold nothing that can count.
            const auto later = static_cast<std::uint32_t>(
                std::upper_bound(occluders_.begin(), occluders_.end(), order,
                                 [](std::uint32_t o, const Occluder& x) { return o < x.order; }) -
                occluders_.begin());
            const auto stamp = static_cast<std::uint32_t>(index + 1);
            nearby_.clear();
            auto gather = [&](std::uint32_t candidate) {
                const Rect& r = occluders_[candidate].rect;
                if (!grown.contains(r) && r.intersects(uncovered)) nearby_.push_back(candidate);
            };
            for (auto it = std::lower_bound(wide_.begin(), wide_.end(), later); it != wide_.end();
                 ++it) {
                gather(*it);
            }
            const CellSpan span = cellsOf(grown);
            for (int row = span.row0; row <= span.row1; ++row) {
                const bool rim = row == span.row0 || row == span.row1;
                const int step = rim ? 1 : std::max(span.column1 - span.column0, 1);
                for (int col = span.column0; col <= span.column1; col += step) {
                    const auto c = static_cast<std::size_t>(row * gridSide_ + col);
                    const auto first = cellItems_.begin() + cellStart_[c];
                    const auto last = cellItems_.begin() + cellStart_[c + 1];
                    for (auto it = std::lower_bound(first, last, later); it != last; ++it) {
                        if (seen_[*it] == stamp) continue;
                        seen_[*it] = stamp;
                        gather(*it);
                    }
                }
            }
            // Applied in visit order, as without the grid.
            std::sort(nearby_.begin(), nearby_.end());
            for (auto candidate : nearby_) {
                consider(occluders_[candidate]);
                if (whole || uncovered.isEmpty()) break;
            }
        }
        if (whole || uncovered.isEmpty() || paint.isEmpty()) continue;
        found_[index].rect = paint;
        if (kept != index) std::swap(found_[kept], found_[index]);
        ++kept;
    }
    found_.resize(kept);
}

}  // namespace virela
