#pragma once

// Remote input's side of the host: reading nodes on demand, and acting on them. One interface
// per role, so that each piece of core names only what it touches: the overlay's screen tracking
// reads, the text branch moves the focus and types, the tap ladder also operates controls, list
// rows and menus. The platform reads live objects into the facts below and performs the effects
// core decides, addressed by the same opaque handles as the host interface. Effects return false
// when the object is gone or declined.
//
// Everything here is called on the main thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/base/geometry.hpp"
#include "core/base/handles.hpp"
#include "core/ports/host.hpp"

namespace virela {

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

enum class ControllerKind { plain, navigation, tabBar };

struct ControllerFacts {
    HostHandle handle = noHandle;
    ControllerKind kind = ControllerKind::plain;
    HostHandle presented = noHandle;
    HostHandle top = noHandle;  // navigation: topViewController; tab bar: selectedViewController
    std::string typeName;       // the controller's class name, for log lines
};

// Reading views, elements, responders and view controllers on demand, for remote input and
// screen-change detection.
class NodeReader {
  public:
    virtual ~NodeReader() = default;

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
    virtual std::optional<ControllerFacts> readController(HostHandle controller) = 0;
};

// The keyboard focus and what is typed into it.
class ResponderActions {
  public:
    virtual ~ResponderActions() = default;

    virtual bool becomeFirstResponder(HostHandle responder) = 0;
    virtual bool resignFirstResponder(HostHandle responder) = 0;
    virtual bool insertText(HostHandle responder, const std::string& text) = 0;
    virtual bool deleteBackward(HostHandle responder) = 0;
};

inline constexpr std::uint64_t controlEventValueChanged = 0x1000;
inline constexpr std::uint64_t controlEventTouchUpInside = 0x40;
// What a text field sends when it gains the focus, when its text changes and when it loses the
// focus.
inline constexpr std::uint64_t controlEventEditingDidBegin = 0x10000;
inline constexpr std::uint64_t controlEventEditingChanged = 0x20000;
inline constexpr std::uint64_t controlEventEditingDidEnd = 0x40000;
inline constexpr std::uint64_t controlEventPrimaryActionTriggered = 0x2000;

// What a finger does to a single view: operating a control, dragging a scroll view's content,
// and accessibility activation, the assistive stand-in for a tap.
class ControlActions {
  public:
    virtual ~ControlActions() = default;

    virtual bool accessibilityActivate(HostHandle element) = 0;
    virtual bool sendActions(HostHandle control, std::uint64_t events) = 0;
    virtual bool setOn(HostHandle control, bool on, bool animated) = 0;
    virtual bool setValue(HostHandle control, double value, bool animated) = 0;
    virtual bool setSelectedSegment(HostHandle control, long index) = 0;
    // Opens a button's menu, as its primary action does.
    virtual bool performPrimaryAction(HostHandle button) = 0;
    virtual bool setContentOffset(HostHandle scrollView, Point offset) = 0;
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

// Table and collection rows, selected through the list's delegate as a tap would.
class ListActions {
  public:
    virtual ~ListActions() = default;

    // The cell's list and index path, if the cell sits in one.
    virtual std::optional<std::pair<ListFacts, IndexPath>> listOfCell(HostHandle cell) = 0;
    // The delegate's willSelect answer: nothing is a veto.
    virtual std::optional<IndexPath> willSelectRow(HostHandle table, IndexPath path) = 0;
    virtual bool selectRow(HostHandle list, IndexPath path) = 0;
    virtual bool didSelectRow(HostHandle list, IndexPath path) = 0;
    virtual bool shouldSelectItem(HostHandle collection, IndexPath path) = 0;
    virtual bool performPrimaryActionForItem(HostHandle collection, IndexPath path) = 0;
};

struct MenuElement {
    bool isMenu = false;
    std::string title;
    std::string identifier;  // actions only
    HostHandle action = noHandle;
    std::vector<MenuElement> children;  // menus only
};

// Button menus: what they hold, running one of their actions, and closing open menus.
class MenuActions {
  public:
    virtual ~MenuActions() = default;

    virtual std::optional<MenuElement> buttonMenu(HostHandle button) = 0;
    // Runs the action's handler as the system would (through a temporary button).
    virtual bool runMenuAction(HostHandle action) = 0;
    virtual void dismissContextMenus(HostHandle view) = 0;
};

// The roles together, as the platform provides them and the input engine takes them. A platform
// may implement several roles with one object.
struct HostActions {
    std::shared_ptr<NodeReader> reader;
    std::shared_ptr<ResponderActions> responders;
    std::shared_ptr<ControlActions> controls;
    std::shared_ptr<ListActions> lists;
    std::shared_ptr<MenuActions> menus;

    bool complete() const noexcept { return reader && responders && controls && lists && menus; }
};

}  // namespace virela
