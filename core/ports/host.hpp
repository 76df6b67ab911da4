#pragma once

// The host interface: how core reads the host app's scenes, windows and views for capture.
// Remote input reads and acts through the roles in host_actions.hpp. The platform only
// translates: it reads live objects into the plain facts below, addressed by opaque handles.
// Every rule (which window is active, which view is redacted, which rung of the tap ladder
// acts) lives in core and runs over these facts.
//
// Everything here is called on the main thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/base/geometry.hpp"
#include "core/base/handles.hpp"
#include "core/base/records.hpp"
#include "core/ports/lifecycle.hpp"

namespace virela {

// The platform could not read its interface completely (an object freed while it was read, an
// exception from the platform). Whatever needed the read fails: an image is never produced from
// a partly read tree.
class HostReadError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class SceneActivation { unattached, foregroundActive, foregroundInactive, background };

struct SceneFacts {
    HostHandle handle = noHandle;
    SceneActivation activation = SceneActivation::unattached;
    std::vector<HostHandle> windows;  // the scene's own window list, in its order
};

struct WindowFacts {
    HostHandle handle = noHandle;
    HostHandle scene = noHandle;  // the window's scene; noHandle when it has none
    double level = 0;
    bool key = false;
    bool hidden = false;
    double alpha = 1;
    bool passthrough = false;  // one of the library's own overlay windows
    std::string typeName;      // the platform's class name ("UITextEffectsWindow")
    Rect bounds;               // in the window's own coordinates
    Point screenOrigin;        // where the bounds' origin lies in screen coordinates
    HostHandle rootViewController = noHandle;
};

// Converts between two windows' coordinate spaces through the screen.
inline Point convertPoint(Point p, const WindowFacts& from, const WindowFacts& to) noexcept {
    return {p.x - from.bounds.x + from.screenOrigin.x - to.screenOrigin.x + to.bounds.x,
            p.y - from.bounds.y + from.screenOrigin.y - to.screenOrigin.y + to.bounds.y};
}
inline Rect convertRect(const Rect& r, const WindowFacts& from, const WindowFacts& to) noexcept {
    const Point origin = convertPoint({r.x, r.y}, from, to);
    return r.isNull() ? r : Rect{origin.x, origin.y, r.width, r.height};
}

// The facts of one view that the redaction walk reads. Strings and the mark are valid only
// during the visitor call that receives them.
struct ViewFacts {
    HostHandle handle = noHandle;
    std::uint32_t depth = 0;           // 0 for the window itself
    Rect frame = Rect::null();         // the view's bounds in the window's coordinates
    Rect presentation = Rect::null();  // its presentation layer there; null without one
    double alpha = 1;                  // its own opacity; the walk multiplies in its ancestors'
    double backgroundAlpha = 0;        // alpha of its background colour; 0 without one
    bool hidden = false;
    bool clipsToBounds = false;
    // Its layer's corner radius: rounds its background and, when it clips, its subviews.
    double cornerRadius = 0;
    bool masked = false;                 // its layer draws through a mask layer
    bool transformIsTranslation = true;  // its view and layer transforms only move it
    bool animating = false;              // its own layer has running animations
    bool secureTextField = false;        // a text field with secure entry on
    std::string_view accessibilityIdentifier;
    const RedactionMark* mark = nullptr;
};

class ViewVisitor {
  public:
    virtual ~ViewVisitor() = default;
    // Called for the window and then for its views, depth first, subviews in order (back to
    // front). Return true to have the view's subviews visited.
    virtual bool visit(const ViewFacts& view) = 0;
};

// Reading the interface, and the window notifications. Capture, redaction, the prompts, the
// overlay and the banner need no more than this.
class HostInterface {
  public:
    virtual ~HostInterface() = default;

    // The application's connected scenes, in its order. `out` is cleared first.
    virtual void readScenes(std::vector<SceneFacts>& out) = 0;
    // The window's facts, or nothing once the window is freed.
    virtual std::optional<WindowFacts> readWindow(HostHandle window) = 0;
    // Depth first over the window's view tree. Throws HostReadError when the tree cannot be read
    // completely.
    virtual void walkViews(HostHandle window, ViewVisitor& visitor) = 0;
    // Calls `handler(window, visible)` whenever a window becomes visible or hidden, as the
    // platform reports it, until the subscription is destroyed.
    virtual std::unique_ptr<Subscription> observeWindowVisibility(
        std::function<void(HostHandle window, bool visible)> handler) = 0;
};

}  // namespace virela
