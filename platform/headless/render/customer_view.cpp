#include "platform/headless/render/customer_view.hpp"

#include <algorithm>

#include "core/api/diagnostics.hpp"
#include "core/ports/renderer.hpp"
#include "platform/headless/render/renderer.hpp"

namespace virela::headless {

Image drawCustomerView(HeadlessHost& host) {
    const std::optional<WindowFacts> screen = VirelaDiagnostics::captureWindow(host);
    if (!screen || screen->bounds.isEmpty()) return {};
    std::vector<WindowFacts> windows;
    for (const auto& scene : host.scenes()) {
        if (scene->handle() != screen->scene) continue;
        for (const auto& window : scene->windows()) {
            if (auto facts = host.readWindow(window->handle())) windows.push_back(*facts);
        }
    }
    if (windows.empty()) windows.push_back(*screen);
    std::erase_if(windows,
                  [](const WindowFacts& w) { return w.hidden || !(w.alpha > minimumWindowAlpha); });
    std::stable_sort(windows.begin(), windows.end(),
                     [](const WindowFacts& a, const WindowFacts& b) { return a.level < b.level; });
    CapturePlan plan;
    plan.bounds = screen->bounds;
    for (const WindowFacts& window : windows) {
        plan.steps.push_back({CaptureStep::Kind::drawWindow,
                              window.handle,
                              convertRect(window.bounds, window, *screen),
                              {}});
    }
    HeadlessRenderer renderer;
    return renderer.draw(plan);
}

std::vector<std::uint8_t> renderCustomerView(HeadlessHost& host) {
    const Image image = drawCustomerView(host);
    if (!image.valid()) return {};
    return encodePng(image);
}

}  // namespace virela::headless
