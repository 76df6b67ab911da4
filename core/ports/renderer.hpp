#pragma once

// The renderer: draws what core planned (windows, then redaction boxes over them) into one
// image and encodes it. Core decides every step; the platform only executes the plan.

#include <cstdint>
#include <vector>

#include "core/base/geometry.hpp"
#include "core/base/handles.hpp"
#include "core/base/records.hpp"

namespace virela {

// One step of drawing a capture, in the capture window's coordinates (points).
struct CaptureStep {
    enum class Kind { drawWindow, paintRedaction } kind = Kind::drawWindow;
    HostHandle window = noHandle;  // drawWindow
    Rect rect;
    VirelaRedaction style;  // paintRedaction
};

// A window this transparent or less shows nothing: captures leave it out, and so does any picture
// of the screen a platform draws for itself.
inline constexpr double minimumWindowAlpha = 0.01;

struct CapturePlan {
    Rect bounds;        // the capture window's bounds
    double scale = 1;   // pixels per point
    bool jpeg = false;  // PNG when false
    double jpegQuality = 0.7;
    std::vector<CaptureStep> steps;  // in order: later steps cover earlier ones
};

// Draws a plan into one image and encodes it. Returns no bytes when the encoder produced
// nothing; throws HostReadError when a window could not be drawn.
class Renderer {
  public:
    virtual ~Renderer() = default;
    virtual std::vector<std::uint8_t> render(const CapturePlan& plan) = 0;
};

}  // namespace virela
