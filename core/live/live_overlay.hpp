#pragma once

// What the customer sees while support watches live: the pill with its status text and "Stop",
// the toasts for live notes, the control banner, and the agent's laser and marks, which vanish
// when the screen under them scrolls or changes. Core holds the state and the timers; the
// OverlayPresenter draws. Confined to the main executor.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/base/handles.hpp"
#include "core/lease/control_lease.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/host.hpp"
#include "core/ports/host_actions.hpp"
#include "core/ports/overlay.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

namespace overlay_text {
inline constexpr std::string_view idle = "Sharing your screen · live";
inline constexpr std::string_view pointing = "Sharing your screen · live · support is pointing";
inline constexpr std::string_view recording = "Support is recording your screen";
inline constexpr std::string_view snapshot = "A snapshot of your screen was saved";
inline constexpr std::string_view snapshotWithMarks =
    "A snapshot — with support's marks — was saved";
}  // namespace overlay_text

// The screen the customer is on in `window`: from the root view controller, follow the presented
// controller, else a navigation controller's top one, else a tab bar controller's selected one.
// noHandle without a window or root view controller.
HostHandle topScreen(HostInterface& host, NodeReader* reader, HostHandle window);

class LiveOverlay final : public ControlBanner, public std::enable_shared_from_this<LiveOverlay> {
  public:
    struct Parts {
        std::shared_ptr<OverlayPresenter> presenter;
        std::shared_ptr<HostInterface> host;
        std::shared_ptr<NodeReader> reader;  // may be empty: no screen tracking then
        std::shared_ptr<VirelaClock> clock;
    };
    static std::shared_ptr<LiveOverlay> create(Parts parts);
    LiveOverlay(const LiveOverlay&) = delete;
    LiveOverlay& operator=(const LiveOverlay&) = delete;

    // Shows the overlay over `anchor`, replacing one already shown; "Stop" calls `onStop`. True
    // only when the pill is on screen.
    bool show(HostHandle anchor, std::function<void()> onStop);
    // Safe at any time, also twice. Ends the screen watch and forgets the marks, so that the
    // next session starts with none (their views go with the window).
    void hide();
    bool isShowing() const;

    bool showControlBanner(std::function<void()> onTakeBack) override;
    void hideControlBanner() override;
    bool isShowingControlBanner() const override;

    // A toast for a live note; false, changing nothing, while the overlay is not shown.
    bool showNote(LiveNoteKind kind, bool withMarks);
    // "support is pointing" for `seconds`, and the watch that wipes the marks when the screen
    // under them scrolls or changes.
    void notePointing(double seconds);
    // The navigation check: wipes the marks and reports "nav" when the top screen changed.
    void checkScreen();
    // Called with "scroll" or "nav" when the marks were wiped because the screen changed.
    void setOnViewChanged(std::function<void(std::string_view kind)> onViewChanged);

    // Draws one guide of the current session: moves or hides the laser, or adds a mark that
    // fades 3.6 s later. Unknown kinds, and guides while the overlay is not shown, do nothing.
    void drawGuide(const GuidePush& push);

    const std::string& statusText() const { return status_; }
    bool marksShowing() const { return marksShowing_; }
    std::size_t markCount() const { return marks_.size(); }

  private:
    explicit LiveOverlay(Parts parts);

    void setStatus(std::string_view text);
    void beginWatch();
    void endWatch();
    void clearMarks();
    void scrolled();
    void viewChanged(std::string_view kind);

    Parts parts_;
    bool shown_ = false;
    HostHandle anchor_ = noHandle;
    std::string status_{overlay_text::idle};
    std::function<void()> onStop_;
    std::function<void()> onTakeBack_;
    std::function<void(std::string_view)> onViewChanged_;
    std::shared_ptr<VirelaCancellable> toastRemoval_;
    std::uint64_t toastSerial_ = 0;
    std::shared_ptr<VirelaCancellable> pointingReset_;
    std::vector<std::uint64_t> marks_;
    std::uint64_t nextMark_ = 0;
    bool marksShowing_ = false;
    HostHandle markedScreen_ = noHandle;
    std::unique_ptr<Subscription> scrollWatch_;
};

}  // namespace virela
