#pragma once

// The host interface: how core reads the host app's scenes, windows, views and accessibility
// elements, and how it acts on them. The platform only translates: it reads live objects into
// the plain facts below and performs the effects core decides, addressed by opaque handles.
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
#include <utility>
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

enum class ViewKind : std::uint8_t {
    view,
    window,
    label,
    imageView,
    button,
    textField,
    textView,
    switchControl,
    slider,
    stepper,
    segmentedControl,
    otherControl,
    scrollView,
    tableView,
    collectionView,
    tableCell,
    collectionCell,
};

constexpr bool isControl(ViewKind k) noexcept {
    return k == ViewKind::button || k == ViewKind::textField || k == ViewKind::switchControl ||
           k == ViewKind::slider || k == ViewKind::stepper || k == ViewKind::segmentedControl ||
           k == ViewKind::otherControl;
}
constexpr bool isScrollView(ViewKind k) noexcept {
    return k == ViewKind::scrollView || k == ViewKind::tableView || k == ViewKind::collectionView ||
           k == ViewKind::textView;
}

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

// ---- Remote input: facts and effects for the tap ladder, menus, scrolling and text. ----

struct IndexPath {
    long section = 0;
    long item = 0;
    friend bool operator==(const IndexPath&, const IndexPath&) = default;
};

// One node of the tree that remote input reads: a view, or an accessibility element that is not
// a view (a virtual element). Read on demand, not per frame.
struct NodeFacts {
    HostHandle handle = noHandle;
    bool isView = true;
    ViewKind kind = ViewKind::view;
    std::uint32_t depth = 0;  // below the window, when read with readViews
    std::string typeName;
    HostHandle superview = noHandle;  // views only
    HostHandle window = noHandle;     // views only
    Rect frame = Rect::null();        // views: bounds in the window; elements: their frame there
    Rect bounds = Rect::null();       // views: their own bounds
    bool hidden = false;
    double alpha = 1;
    bool secureTextField = false;
    bool hasMark = false;

    // accessibility
    bool isAccessibilityElement = false;
    std::uint64_t accessibilityTraits = 0;
    std::string accessibilityIdentifier;
    std::optional<std::string> accessibilityLabel;
    HostHandle accessibilityContainer = noHandle;
    // The node's `accessibilityElements` when present (may be empty), else its element count
    // (-1 for "not found") read through `elementAt`.
    std::optional<std::vector<HostHandle>> accessibilityElements;
    long accessibilityElementCount = -1;

    // controls and text
    bool enabled = true;
    bool editable = false;  // text views
    bool keyInput = false;  // conforms to the key-input protocol
    bool firstResponder = false;
    bool isOn = false;
    double value = 0;
    double minimumValue = 0;
    double maximumValue = 1;
    double stepValue = 1;
    bool wraps = false;
    Rect trackRect = Rect::null();  // sliders, in their own coordinates
    long numberOfSegments = 0;
    long selectedSegment = -1;
    bool hasMenu = false;
    bool showsMenuAsPrimaryAction = false;
    std::optional<std::string> text;  // labels

    // scroll views
    bool scrollEnabled = false;
    Point contentOffset;
    Size contentSize;
    EdgeInsets adjustedContentInset;
};

struct ListFacts {
    HostHandle list = noHandle;
    bool isTable = true;
    std::string typeName;
    std::string delegateTypeName;  // empty without a delegate
    bool answersWillSelect = false;
    bool answersDidSelect = false;
    bool answersShouldSelect = false;
    bool answersPerformPrimaryAction = false;
};

struct MenuElement {
    bool isMenu = false;
    std::string title;
    std::string identifier;  // actions only
    HostHandle action = noHandle;
    std::vector<MenuElement> children;  // menus only
};

enum class ControllerKind { plain, navigation, tabBar };

struct ControllerFacts {
    HostHandle handle = noHandle;
    ControllerKind kind = ControllerKind::plain;
    HostHandle presented = noHandle;
    HostHandle top = noHandle;  // navigation: topViewController; tab bar: selectedViewController
    std::string typeName;       // the controller's class name, for log lines
};

inline constexpr std::uint64_t controlEventValueChanged = 0x1000;
inline constexpr std::uint64_t controlEventTouchUpInside = 0x40;
// What a text field sends when it gains the focus, when its text changes and when it loses the
// focus.
inline constexpr std::uint64_t controlEventEditingDidBegin = 0x10000;
inline constexpr std::uint64_t controlEventEditingChanged = 0x20000;
inline constexpr std::uint64_t controlEventEditingDidEnd = 0x40000;
inline constexpr std::uint64_t controlEventPrimaryActionTriggered = 0x2000;

// Reading on demand and acting, for remote input and screen-change detection. Effects return
// false when the object is gone or declined.
class HostActions {
  public:
    virtual ~HostActions() = default;

    virtual std::optional<NodeFacts> readNode(HostHandle node) = 0;
    virtual void subviews(HostHandle view, std::vector<HostHandle>& out) = 0;
    virtual HostHandle elementAt(HostHandle node, long index) = 0;
    // The window and every view in it, depth first, subviews in order, each with its depth;
    // hidden views included. A tap reads whole trees, so a platform that can read them in one
    // pass should; this one reads node by node. `out` is overwritten.
    virtual void readViews(HostHandle window, std::vector<NodeFacts>& out) {
        out.clear();
        std::vector<std::pair<HostHandle, std::uint32_t>> stack{{window, 0}};
        std::vector<HostHandle> children;
        while (!stack.empty()) {
            const auto [view, depth] = stack.back();
            stack.pop_back();
            auto node = readNode(view);
            if (!node || !node->isView) continue;
            node->depth = depth;
            out.push_back(std::move(*node));
            subviews(view, children);
            for (auto it = children.rbegin(); it != children.rend(); ++it) {
                stack.emplace_back(*it, depth + 1);
            }
        }
    }
    // The deepest visible, interactive view under a point in the window's coordinates.
    virtual HostHandle hitTest(HostHandle window, Point point) = 0;
    // The next responder and whether it is a view and takes key input.
    virtual HostHandle nextResponder(HostHandle responder) = 0;
    virtual bool platformVersionAtLeast(int major) = 0;

    virtual bool accessibilityActivate(HostHandle element) = 0;
    virtual bool becomeFirstResponder(HostHandle responder) = 0;
    virtual bool resignFirstResponder(HostHandle responder) = 0;
    virtual bool insertText(HostHandle responder, const std::string& text) = 0;
    virtual bool deleteBackward(HostHandle responder) = 0;

    virtual bool sendActions(HostHandle control, std::uint64_t events) = 0;
    virtual bool setOn(HostHandle control, bool on, bool animated) = 0;
    virtual bool setValue(HostHandle control, double value, bool animated) = 0;
    virtual bool setSelectedSegment(HostHandle control, long index) = 0;
    virtual bool performPrimaryAction(HostHandle button) = 0;

    // The cell's list and index path, if the cell sits in one.
    virtual std::optional<std::pair<ListFacts, IndexPath>> listOfCell(HostHandle cell) = 0;
    // The delegate's willSelect answer: nothing is a veto.
    virtual std::optional<IndexPath> willSelectRow(HostHandle table, IndexPath path) = 0;
    virtual bool selectRow(HostHandle list, IndexPath path) = 0;
    virtual bool didSelectRow(HostHandle list, IndexPath path) = 0;
    virtual bool shouldSelectItem(HostHandle collection, IndexPath path) = 0;
    virtual bool performPrimaryActionForItem(HostHandle collection, IndexPath path) = 0;

    virtual std::optional<MenuElement> buttonMenu(HostHandle button) = 0;
    // Runs the action's handler as the system would (through a temporary button).
    virtual bool runMenuAction(HostHandle action) = 0;
    virtual void dismissContextMenus(HostHandle view) = 0;

    virtual bool setContentOffset(HostHandle scrollView, Point offset) = 0;

    virtual std::optional<ControllerFacts> readController(HostHandle controller) = 0;
};

}  // namespace virela
