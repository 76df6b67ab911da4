#pragma once

// What the tap ladder, the menu lookup and the scroll and text branches share: the host they
// read and the roles they act through, the log, the locked-view test, tree reading and the
// accessibility candidates under a point. Internal to the input engine.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ports/host.hpp"
#include "core/ports/host_actions.hpp"
#include "core/ports/log.hpp"
#include "core/redaction/redaction_walk.hpp"

namespace virela {

class WindowRegistry;

namespace input {

// An accessibility element under the point: a view, or a virtual element (not a view).
struct Candidate {
    HostHandle handle = noHandle;
    Rect frame;  // in the hit window's coordinates
    double area = 0;
    bool isView = true;
    std::uint64_t traits = 0;
    std::optional<std::string> label;
    std::string identifier;
    HostHandle container = noHandle;  // virtual elements
};

// Where one window's redactions lie during the current input.
struct WindowRedactions {
    HostHandle window = noHandle;
    bool readable = true;  // false: the tree could not be read, so all of it counts as covered
    std::vector<Rect> rects;
};

// Per engine, reused from input to input so that a tap allocates little once they have grown.
struct Context {
    // `actions` must be complete.
    Context(HostInterface& h, const HostActions& a, Log* l, WindowRegistry& w)
        : host(h),
          reader(*a.reader),
          responders(*a.responders),
          controls(*a.controls),
          lists(*a.lists),
          menus(*a.menus),
          log(l),
          windows(w) {}

    HostInterface& host;
    NodeReader& reader;
    ResponderActions& responders;
    ControlActions& controls;
    ListActions& lists;
    MenuActions& menus;
    Log* log;  // may be null
    WindowRegistry& windows;

    std::vector<NodeFacts> tree;   // the hit window's views, as last read
    std::vector<NodeFacts> other;  // any other window's views
    std::vector<Candidate> found;  // candidates under the tap, smallest first
    std::vector<SceneFacts> scenes;
    std::size_t elementVisits = 0;  // nodes read one by one in the current collection

    // The redaction rectangles of each window met, found once per input.
    RedactionFinder finder;
    std::vector<WindowRedactions> redactions;

    // Forgets what the last input read: the screen may have changed since.
    void beginInput() { redactions.clear(); }

    void write(LogLevel level, std::string_view line) const {
        if (log) log->write(level, line);
    }
    bool logs() const noexcept { return log != nullptr; }
};

// A chain of superviews or responders longer than this is a circle or garbage; a walk that
// reaches it treats the view as locked.
inline constexpr int maximumChainLength = 1000;

// A node that is redacted or a secure field by itself: a redaction mark, an accessibility
// identifier containing "virela-redact", or a text field with secure entry.
bool lockedItself(const NodeFacts& node) noexcept;
// The same test on the view and then each superview. A view that cannot be read counts as
// locked: nothing is done to what cannot be checked.
bool isLocked(NodeReader& reader, HostHandle view);

// Whether `rect` (in `window`'s coordinates) overlaps a redaction rectangle of that window, as
// the capture paints them: a view the customer sees covered is covered for input too, and one
// that a cover hides is hidden from both. A window whose tree cannot be read is all covered, as
// is a null rectangle or no window: what cannot be placed cannot be cleared.
bool touchesRedaction(Context& ctx, HostHandle window, const Rect& rect);
bool pointInRedaction(Context& ctx, HostHandle window, Point point);
// Whether an input may not act on this node: locked itself or through a superview, or lying
// over a redaction of its window.
bool isProtected(Context& ctx, const NodeFacts& node);

// The view holding the keyboard focus: the first window of the input window list, front to
// back, with one; noHandle without.
HostHandle focusedResponder(Context& ctx, const WindowFacts& target);

// "%.2f"-style formatting for log lines.
std::string fixed(double value, int decimals);

// The candidates under `point` (hit window coordinates) in `tree`, the hit window's views as
// read by readViews, in collection order. Hidden and transparent views are skipped with
// everything beneath them.
void collectCandidates(Context& ctx, const WindowFacts& hitWindow, Point point,
                       const std::vector<NodeFacts>& tree, std::vector<Candidate>& out);
// Smallest area first; equal areas keep collection order.
void sortByArea(std::vector<Candidate>& candidates);

// The frame of a node in `window`'s coordinates, converting from the node's own window when it
// lies in another.
Rect frameIn(Context& ctx, const NodeFacts& node, const WindowFacts& window);

}  // namespace input
}  // namespace virela
