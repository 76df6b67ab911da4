#pragma once

// Which windows exist and in which order: the active window, the capture window, the windows a
// remote input may reach, and the registry of windows the platform reported visible (scene
// window lists miss some, such as the system's menu windows).

#include <memory>
#include <optional>
#include <vector>

#include "core/ports/host.hpp"

namespace virela {

class WindowRegistry {
  public:
    // Starts observing the host's window notifications; stops when destroyed.
    explicit WindowRegistry(std::shared_ptr<HostInterface> host);
    ~WindowRegistry();
    WindowRegistry(const WindowRegistry&) = delete;
    WindowRegistry& operator=(const WindowRegistry&) = delete;

    HostInterface& host() const noexcept { return *host_; }
    const std::vector<HostHandle>& tracked() const noexcept { return tracked_; }

    void windowBecameVisible(HostHandle window);
    void windowBecameHidden(HostHandle window);

    // Appends the tracked windows that still exist, are not hidden and are not in the list yet.
    void merge(std::vector<WindowFacts>& windows) const;

  private:
    void dropGoneAnd(HostHandle window);

    std::shared_ptr<HostInterface> host_;
    std::vector<HostHandle> tracked_;
    std::unique_ptr<Subscription> subscription_;
};

// The window input goes to and overlays anchor on: the key window of a foreground scene that is
// not one of ours, else the first visible window of any scene that is not one of ours.
std::optional<WindowFacts> findActiveWindow(HostInterface& host);

// The window a capture is drawn over: in foreground-active scenes (foreground-inactive ones when
// no active scene has one), the first key window, else the first visible one; never ours.
std::optional<WindowFacts> findCaptureWindow(HostInterface& host);
// The same over scenes already read (a capture reads them once for both lookups).
std::optional<WindowFacts> findCaptureWindow(HostInterface& host,
                                             const std::vector<SceneFacts>& scenes);

// The windows a capture draws, lowest level first; equal levels keep their order. `scenes` are
// the host's scenes as read for this capture.
void captureWindowList(WindowRegistry& registry, const WindowFacts& captureWindow,
                       const std::vector<SceneFacts>& scenes, std::vector<WindowFacts>& out);

// The windows a remote input hit-tests, front to back: higher levels first, and for equal
// levels the later window first.
std::vector<WindowFacts> inputWindowList(WindowRegistry& registry, const WindowFacts& target);

}  // namespace virela
