#pragma once

// Finds the redacted views of a window that are actually visible, with the rectangle to paint
// over and the style to paint it with.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "core/base/records.hpp"
#include "core/ports/host.hpp"
#include "core/ports/redaction_style.hpp"

namespace virela {

// The style a view is covered with, or none: its own mark first, then the default style for an
// accessibility identifier containing "virela-redact" or a secure text field.
const VirelaRedaction* redactionStyleFor(const RedactionMark* mark,
                                         std::string_view accessibilityIdentifier,
                                         bool secureTextField,
                                         const VirelaRedaction& defaultStyle) noexcept;

struct Redaction {
    HostHandle view = noHandle;
    Rect rect;  // in the window's coordinates
    VirelaRedaction style;
};

// Reusable between captures so that a walk allocates nothing once its buffers have grown.
class RedactionFinder final : private ViewVisitor {
  public:
    // The redactions of `window` in visit order (back to front). Throws whatever the host
    // throws when it cannot read the tree; the result is then incomplete and must not be used.
    const std::vector<Redaction>& find(HostInterface& host, const WindowFacts& window);

  private:
    bool visit(const ViewFacts& view) override;
    void finishRedaction();
    void applyOcclusion();
    void buildOccluderGrid();

    struct Ancestor {
        Rect clip;       // what clipping ancestors up to here leave visible
        Rect cover;      // where the subviews are drawn as the boxes they report
        bool animating;  // it or an ancestor has running animations
        double alpha;    // the product of the alphas down to here
    };
    struct Occluder {
        Rect rect;
        std::uint32_t order;  // visit order
    };
    struct CellSpan {
        int column0, column1, row0, row1;
    };
    CellSpan cellsOf(const Rect& r) const noexcept;

    VirelaRedaction defaultStyle_;
    Rect windowBounds_;
    std::uint32_t order_ = 0;
    std::vector<Ancestor> chain_;
    // The redacted view whose subtree is being walked.
    bool redacting_ = false;
    std::uint32_t redactingDepth_ = 0;
    std::uint32_t redactingOrder_ = 0;
    Rect redactingClip_;
    Rect redactingRect_;
    HostHandle redactingView_ = noHandle;
    VirelaRedaction redactingStyle_;
    std::vector<Occluder> occluders_;
    std::vector<Redaction> found_;
    std::vector<std::uint32_t> foundOrder_;  // visit order of each redaction in found_
    // Occluders bucketed by grid cell (compressed rows), so that each redaction only meets the
    // views that can overlap it.
    int gridSide_ = 1;  // cells per row and per column
    double cellWidth_ = 1;
    double cellHeight_ = 1;
    std::vector<std::uint32_t> cellStart_;
    std::vector<std::uint32_t> cellItems_;
    std::vector<CellSpan> spans_;      // each occluder's cells; column0 < 0 for a wide one
    std::vector<std::uint32_t> seen_;  // per occluder: the last redaction (index + 1) it met
    std::vector<std::uint32_t> wide_;  // occluders met by every redaction instead, in order
    std::vector<std::uint32_t> nearby_;
};

}  // namespace virela
