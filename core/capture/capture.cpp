#include "core/capture/capture.hpp"

#include <algorithm>
#include <exception>
#include <string>

#include "core/base/errors.hpp"

namespace virela {
namespace {

VirelaError noWindow() {
    return {0, "no_window", "No visible window to capture."};
}
VirelaError encodeFailed() {
    return {0, "encode_failed", "Couldn't encode the capture."};
}

}  // namespace

double captureScale(const Rect& bounds, bool live) noexcept {
    const double longest = std::max(bounds.width, bounds.height);
    return live && longest > liveFrameLongestSide ? liveFrameLongestSide / longest : 1.0;
}

ScreenCapture::ScreenCapture(WindowRegistry& registry, std::shared_ptr<Renderer> renderer,
                             std::shared_ptr<Log> log)
    : registry_(registry), renderer_(std::move(renderer)), log_(std::move(log)) {}

void ScreenCapture::prepare(const WindowFacts& captureWindow, bool live) {
    captureWindowList(registry_, captureWindow, scenes_, windows_);
    plan_.bounds = captureWindow.bounds;
    plan_.scale = captureScale(captureWindow.bounds, live);
    plan_.jpeg = live;
    plan_.jpegQuality = liveFrameJpegQuality;
    plan_.steps.clear();
    for (const WindowFacts& window : windows_) {
        const Rect rect = convertRect(window.bounds, window, captureWindow);
        // A window we cannot place is left out whole, its content and its boxes alike.
        if (rect.isEmpty()) continue;
        plan_.steps.push_back({CaptureStep::Kind::drawWindow, window.handle, rect, {}});
        // Painted right after its own window, so that a transparent window above cannot let a
        // redacted view show through.
        for (const Redaction& r : finder_.find(registry_.host(), window)) {
            plan_.steps.push_back({CaptureStep::Kind::paintRedaction, window.handle,
                                   convertRect(r.rect, window, captureWindow), r.style});
        }
    }
}

std::vector<std::uint8_t> ScreenCapture::capture(bool live) {
    registry_.host().readScenes(scenes_);
    const auto captureWindow = findCaptureWindow(registry_.host(), scenes_);
    if (!captureWindow || captureWindow->bounds.isEmpty()) throw noWindow();
    std::vector<std::uint8_t> bytes;
    try {
        prepare(*captureWindow, live);
        // Nothing left to draw would give a blank image that looks like a capture.
        if (plan_.steps.empty()) throw noWindow();
        bytes = renderer_->render(plan_);
    } catch (const VirelaError&) {
        throw;
    } catch (...) {
        log_->write(LogLevel::error, "capture failed: the screen could not be read completely — " +
                                         describe(std::current_exception()));
        throw encodeFailed();
    }
    if (bytes.empty()) throw encodeFailed();
    return bytes;
}

}  // namespace virela
