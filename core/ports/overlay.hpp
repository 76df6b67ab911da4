#pragma once

// The live overlay's platform side: a transparent window above the host app with the screen
// frame, the pill with its "Stop" button, toasts, the control banner, the laser dot and the
// agent's marks. Core's LiveOverlay decides what is on it and for how long; a presenter only
// builds and draws. Main thread only.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "core/base/geometry.hpp"
#include "core/base/handles.hpp"
#include "core/base/records.hpp"
#include "core/ports/lifecycle.hpp"

namespace virela {

enum class GuideKind { laser, laserOff, arrow, box, fill, label };

// "box" and "fill": the frame, x and y giving its top-left corner, and the corner radius.
struct BoxMark {
    Rect frame;
    double cornerRadius = 0;
    friend bool operator==(const BoxMark&, const BoxMark&) = default;
};

// "arrow": the view's frame, and in the view's own coordinates the shaft from `start` to `end`
// and the two head strokes from `end` to `headLeft` and `headRight`.
struct ArrowMark {
    Rect frame;
    Point start;
    Point end;
    Point headLeft;
    Point headRight;
    friend bool operator==(const ArrowMark&, const ArrowMark&) = default;
};

// "label": the text, the widest its lines may be, and where the bubble goes: its left edge at
// anchor.x and its vertical centre at anchor.y. The bubble's size follows from the text as laid
// out.
struct LabelMark {
    std::string text;
    double maxWidth = 0;
    Point anchor;
    friend bool operator==(const LabelMark&, const LabelMark&) = default;
};

struct MarkGeometry {
    GuideKind kind = GuideKind::box;
    std::variant<BoxMark, ArrowMark, LabelMark> shape;
    friend bool operator==(const MarkGeometry&, const MarkGeometry&) = default;
};

// How the presenter draws the agent's guides: the laser dot, the marks' strokes and the label's
// bubble, and how marks come and go.
namespace guide {
inline constexpr double laserSize = 15;
inline constexpr double laserMoveSeconds = 0.12;
inline constexpr double boxBorderWidth = 2.5;
inline constexpr double arrowLineWidth = 4.5;
inline constexpr double labelFontSize = 12;
inline constexpr double labelPaddingX = 16;  // the bubble is this much wider than its text
inline constexpr double labelPaddingY = 6;
inline constexpr double markStartScale = 0.86;
inline constexpr double popInSeconds = 0.35;
inline constexpr double fadeSeconds = 1.4;
}  // namespace guide

// A toast under the pill.
struct OverlayToast {
    bool recording = false;  // a pulsing dot; otherwise a check mark
    std::string text;
    friend bool operator==(const OverlayToast&, const OverlayToast&) = default;
};

class OverlayPresenter {
  public:
    virtual ~OverlayPresenter() = default;

    // Builds the overlay window in the scene of `anchor`, above every host window, with the
    // screen frame and the pill showing `status`; the pill's "Stop" calls `onStop`. True when
    // the window is visible with the pill in it. Replaces an overlay already shown.
    virtual bool show(HostHandle anchor, const std::string& status,
                      std::function<void()> onStop) = 0;
    // Takes everything down, marks and laser included; safe at any time.
    virtual void hide() = 0;
    // The window exists, is visible, has a scene, and the pill is in it.
    virtual bool isShowing() = 0;
    virtual void setStatus(const std::string& text) = 0;
    // The overlay's full-screen root view, which guide fractions refer to.
    virtual Size rootSize() = 0;

    // Puts `toast` under the pill, replacing any toast at once; false without a pill.
    virtual bool showToast(const OverlayToast& toast) = 0;
    // Fades the toast on screen out (0.2 s) and removes it.
    virtual void fadeOutToast() = 0;

    // The "Support is controlling your screen" banner; its button calls `onTakeBack`. True when
    // it is in the view tree.
    virtual bool showControlBanner(std::function<void()> onTakeBack) = 0;
    virtual void hideControlBanner() = 0;
    virtual bool isShowingControlBanner() = 0;

    // The laser dot: made once, then glided to each new point; hidden, not destroyed.
    virtual void moveLaser(Point to) = 0;
    virtual void hideLaser() = 0;
    // Adds mark `id` above the others and pops it in; `color` nullopt means the palette's
    // liveRed. False when it could not be drawn.
    virtual bool addMark(std::uint64_t id, const MarkGeometry& mark,
                         const std::optional<Color>& color) = 0;
    // Fades mark `id` out (1.4 s) and removes it; nothing when it is gone already.
    virtual void fadeOutMark(std::uint64_t id) = 0;
    // Removes every mark at once.
    virtual void removeMarks() = 0;

    // Calls `onScroll` whenever a pan on `anchor` moves, without taking the gesture from the
    // app, until the subscription is destroyed.
    virtual std::unique_ptr<Subscription> watchScrolls(HostHandle anchor,
                                                       std::function<void()> onScroll) = 0;
};

}  // namespace virela
