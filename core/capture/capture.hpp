#pragma once

// Renders what the customer sees into one image with every redacted view painted over: PNG for
// a screenshot, JPEG for a live frame.

#include <cstdint>
#include <memory>
#include <vector>

#include "core/control/windows.hpp"
#include "core/ports/host.hpp"
#include "core/ports/platform.hpp"
#include "core/ports/renderer.hpp"
#include "core/redaction/redaction_walk.hpp"

namespace virela {

inline constexpr double liveFrameLongestSide = 1280;
inline constexpr double liveFrameJpegQuality = 0.7;

// Pixels per point: one for stills; live frames shrink to 1280 points on the longest side and
// are never enlarged.
double captureScale(const Rect& bounds, bool live) noexcept;

class ScreenCapture {
  public:
    ScreenCapture(WindowRegistry& registry, std::shared_ptr<Renderer> renderer,
                  std::shared_ptr<Log> log);

    // The encoded image. Throws VirelaError: "no_window" when there is nothing to capture,
    // "encode_failed" when no image could be produced (including a screen that could not be
    // read completely: an image never leaves with part of its masking missing).
    std::vector<std::uint8_t> capture(bool live);

    // The plan of the last capture: windows drawn and boxes painted, in order.
    const CapturePlan& lastPlan() const noexcept { return plan_; }

  private:
    void prepare(const WindowFacts& captureWindow, bool live);

    WindowRegistry& registry_;
    std::shared_ptr<Renderer> renderer_;
    std::shared_ptr<Log> log_;
    RedactionFinder finder_;
    std::vector<SceneFacts> scenes_;
    std::vector<WindowFacts> windows_;
    CapturePlan plan_;
};

}  // namespace virela
