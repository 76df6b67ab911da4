#pragma once

// The headless platform's Renderer: draws a capture plan's windows from the headless host's
// view objects with a small software rasteriser, paints the redactions over them, and encodes
// the result as PNG or JPEG.

#include <cstdint>
#include <string>
#include <vector>

#include "core/ports/host.hpp"
#include "core/ports/renderer.hpp"
#include "platform/headless/render/image.hpp"

namespace virela::headless {

class HeadlessRenderer final : public virela::Renderer {
  public:
    HeadlessRenderer();
    ~HeadlessRenderer() override;

    std::vector<std::uint8_t> render(const CapturePlan& plan) override;
    // The pixels that render() encodes. Throws HostReadError as render() does.
    Image draw(const CapturePlan& plan);

  private:
    void drawInto(Image& canvas, const CapturePlan& plan);

    Image canvas_;      // reused from frame to frame
    std::string dots_;  // a secure field's text, as drawn
};

}  // namespace virela::headless
