#pragma once

// The live overlay on the headless screen: a passthrough window above the app's windows with the
// red screen frame, the pill and its "Stop" button, toasts, the control banner, the laser dot and
// the agent's marks, all as real views that the customer view renders. What is on screen is
// also kept readable, and its buttons pressable, for tests and the demo.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ports/overlay.hpp"
#include "core/ports/platform.hpp"
#include "platform/headless/host/screen.hpp"

namespace virela::headless {

struct OverlayMarkState {
    std::uint64_t id = 0;
    GuideKind kind = GuideKind::box;
    Rect frame;  // in the overlay's root view, which covers the screen
    Color color;
    std::string text;  // a label's text; "REDACTED" for fills
};

// What the overlay shows.
struct OverlayState {
    std::string status;  // the pill's text
    std::optional<OverlayToast> toast;
    bool controlBanner = false;
    std::optional<Point> laser;           // the dot's centre while it is visible
    std::vector<OverlayMarkState> marks;  // bottom to top
};

class HeadlessOverlayPresenter final : public OverlayPresenter {
  public:
    // `appearance` says which side of the palette the views take.
    explicit HeadlessOverlayPresenter(std::function<Appearance()> appearance);
    ~HeadlessOverlayPresenter() override;

    bool show(HostHandle anchor, const std::string& status, std::function<void()> onStop) override;
    void hide() override;
    bool isShowing() override;
    void setStatus(const std::string& text) override;
    Size rootSize() override;
    bool showToast(const OverlayToast& toast) override;
    void fadeOutToast() override;
    bool showControlBanner(std::function<void()> onTakeBack) override;
    void hideControlBanner() override;
    bool isShowingControlBanner() override;
    void moveLaser(Point to) override;
    void hideLaser() override;
    bool addMark(std::uint64_t id, const MarkGeometry& mark,
                 const std::optional<Color>& color) override;
    void fadeOutMark(std::uint64_t id) override;
    void removeMarks() override;
    std::unique_ptr<Subscription> watchScrolls(HostHandle anchor,
                                               std::function<void()> onScroll) override;

    // Main thread only. What is on screen; nullopt while the overlay is hidden.
    std::optional<OverlayState> state() const;
    // The overlay window; null while hidden.
    const std::shared_ptr<Window>& window() const noexcept { return window_; }
    // Taps the button titled `title` ("Stop", "Take back control") as a finger would: only a
    // visible button among the window's touch targets takes it. False when none did.
    bool press(std::string_view title);
    // Called after every change of what is shown.
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

  private:
    struct Mark {
        std::uint64_t id;
        GuideKind kind;
        Color color;
        std::string text;
        std::shared_ptr<View> view;
    };

    Appearance look() const;
    void layOutPill();
    Point underPill() const;  // where the toast and banner hang: the pill's centre, 10 below
    void removeToast();
    void changed();

    std::function<Appearance()> appearance_;
    std::shared_ptr<Window> window_;
    std::shared_ptr<View> root_;
    std::shared_ptr<View> pill_;
    std::shared_ptr<View> pillContent_;
    std::shared_ptr<View> statusLabel_;
    std::shared_ptr<View> stopButton_;
    std::shared_ptr<View> toast_;
    std::optional<OverlayToast> toastState_;
    std::shared_ptr<View> banner_;
    std::shared_ptr<View> takeBackButton_;
    std::shared_ptr<View> laser_;
    std::vector<Mark> marks_;
    std::function<void()> onStop_;
    std::function<void()> onTakeBack_;
    std::function<void()> onChange_;
};

}  // namespace virela::headless
