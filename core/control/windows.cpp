#include "core/control/windows.hpp"

#include <algorithm>
#include <mutex>

#include "core/ports/platform.hpp"
#include "core/ports/renderer.hpp"

namespace virela {

WindowRegistry::WindowRegistry(std::shared_ptr<HostInterface> host) : host_(std::move(host)) {
    // The registry only ever lives as long as its owner keeps it, so a plain pointer is safe:
    // the subscription ends in the destructor.
    subscription_ = host_->observeWindowVisibility([this](HostHandle window, bool visible) {
        if (visible) {
            windowBecameVisible(window);
        } else {
            windowBecameHidden(window);
        }
    });
}

WindowRegistry::~WindowRegistry() = default;

void WindowRegistry::dropGoneAnd(HostHandle window) {
    std::erase_if(tracked_,
                  [&](HostHandle h) { return h == window || !host_->readWindow(h).has_value(); });
}

void WindowRegistry::windowBecameVisible(HostHandle window) {
    dropGoneAnd(window);
    tracked_.push_back(window);
}

void WindowRegistry::windowBecameHidden(HostHandle window) {
    dropGoneAnd(window);
}

void WindowRegistry::merge(std::vector<WindowFacts>& windows) const {
    for (HostHandle h : tracked_) {
        if (std::any_of(windows.begin(), windows.end(),
                        [&](const WindowFacts& w) { return w.handle == h; })) {
            continue;
        }
        auto facts = host_->readWindow(h);
        if (!facts || facts->hidden) continue;
        windows.push_back(std::move(*facts));
    }
}

namespace {

bool isForeground(SceneActivation a) {
    return a == SceneActivation::foregroundActive || a == SceneActivation::foregroundInactive;
}

void appendWindows(HostInterface& host, const SceneFacts& scene, std::vector<WindowFacts>& out) {
    for (HostHandle h : scene.windows) {
        if (auto facts = host.readWindow(h)) out.push_back(std::move(*facts));
    }
}

std::optional<WindowFacts> firstKeyThenVisible(std::vector<WindowFacts>& keyCandidates,
                                               std::vector<WindowFacts>& visibleCandidates) {
    for (auto& w : keyCandidates) {
        if (!w.passthrough && w.key) return std::move(w);
    }
    for (auto& w : visibleCandidates) {
        if (!w.passthrough && !w.hidden) return std::move(w);
    }
    return std::nullopt;
}

bool isTextEffects(const WindowFacts& w) {
    return w.typeName.find("TextEffects") != std::string::npos;
}

// Visible enough to be drawn or touched, and neither ours nor the keyboard's.
void keepDrawable(std::vector<WindowFacts>& windows) {
    std::erase_if(windows, [](const WindowFacts& w) {
        return w.hidden || !(w.alpha > minimumWindowAlpha) || w.passthrough || isTextEffects(w);
    });
}

void startFromScene(WindowRegistry& registry, const WindowFacts& window,
                    const std::vector<SceneFacts>& scenes, std::vector<WindowFacts>& out) {
    out.clear();
    bool found = false;
    if (window.scene != noHandle) {
        for (const auto& scene : scenes) {
            if (scene.handle != window.scene) continue;
            appendWindows(registry.host(), scene, out);
            found = true;
            break;
        }
    }
    if (!found) out.push_back(window);
    registry.merge(out);
}

}  // namespace

std::optional<WindowFacts> findActiveWindow(HostInterface& host) {
    std::vector<SceneFacts> scenes;
    host.readScenes(scenes);
    std::vector<WindowFacts> foreground;
    std::vector<WindowFacts> all;
    for (const auto& scene : scenes) {
        if (isForeground(scene.activation)) appendWindows(host, scene, foreground);
        appendWindows(host, scene, all);
    }
    return firstKeyThenVisible(foreground, all);
}

std::optional<WindowFacts> findCaptureWindow(HostInterface& host) {
    std::vector<SceneFacts> scenes;
    host.readScenes(scenes);
    return findCaptureWindow(host, scenes);
}

std::optional<WindowFacts> findCaptureWindow(HostInterface& host,
                                             const std::vector<SceneFacts>& scenes) {
    for (auto state : {SceneActivation::foregroundActive, SceneActivation::foregroundInactive}) {
        std::vector<WindowFacts> windows;
        for (const auto& scene : scenes) {
            if (scene.activation == state) appendWindows(host, scene, windows);
        }
        if (auto found = firstKeyThenVisible(windows, windows)) return found;
    }
    return std::nullopt;
}

void captureWindowList(WindowRegistry& registry, const WindowFacts& captureWindow,
                       const std::vector<SceneFacts>& scenes, std::vector<WindowFacts>& out) {
    startFromScene(registry, captureWindow, scenes, out);
    keepDrawable(out);
    std::stable_sort(out.begin(), out.end(),
                     [](const WindowFacts& a, const WindowFacts& b) { return a.level < b.level; });
}

std::vector<WindowFacts> inputWindowList(WindowRegistry& registry, const WindowFacts& target) {
    std::vector<SceneFacts> scenes;
    if (target.scene != noHandle) registry.host().readScenes(scenes);
    std::vector<WindowFacts> windows;
    startFromScene(registry, target, scenes, windows);
    keepDrawable(windows);
    // Front to back: a stable sort by level ascending, reversed, puts the later of two equal
    // levels first.
    std::stable_sort(windows.begin(), windows.end(),
                     [](const WindowFacts& a, const WindowFacts& b) { return a.level < b.level; });
    std::reverse(windows.begin(), windows.end());
    return windows;
}

}  // namespace virela
