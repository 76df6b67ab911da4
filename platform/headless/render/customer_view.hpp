#pragma once

// What the customer sees on the headless screen: the app's windows and the library's own
// overlays above them, unredacted. Captures leave the overlays out and paint redactions over
// what is sensitive; this is the other side of the glass, for tests and the demo.

#include <cstdint>
#include <vector>

#include "platform/headless/host/headless_host.hpp"
#include "platform/headless/render/image.hpp"

namespace virela::headless {

// Every visible window of the capture window's scene, passthrough windows included, lowest
// level first, drawn over the capture window's bounds at one pixel per point. An empty image
// when there is no window to draw over. Main thread only.
Image drawCustomerView(HeadlessHost& host);
// The same, encoded as PNG; empty when there is nothing to draw.
std::vector<std::uint8_t> renderCustomerView(HeadlessHost& host);

}  // namespace virela::headless
