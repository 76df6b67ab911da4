#pragma once

// What the tap ladder, the menu lookup and the scroll and text branches share: the host they
// act on, the log, the locked-view test, tree reading and the accessibility candidates under a
// point. Internal to the input engine.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ports/host.hpp"
#include "core/ports/log.hpp"

namespace virela {

class WindowRegistry;

namespace input {

// An accessibility element under the point: a view, or a virtual element (not a view).
struct Candidate {
    HostHandle handle = noHandle;
    double area = 0;
    bool isView = true;
    std::uint64_t traits = 0;
    std::optional<std::string> label;
    std::string identifier;
    HostHandle container = noHandle;  // virtual elements
};

// Per engine, reused from input to input so that a tap allocates little once they have grown.
struct Context {
    HostInterface& host;
    HostActions& actions;
    Log* log;  // may be null
    WindowRegistry& windows;

    std::vector<NodeFacts> tree;   // the hit window's views, as last read
    std::vector<NodeFacts> other;  // any other window's views
    std::vector<Candidate> found;  // candidates under the tap, smallest first
    std::vector<SceneFacts> scenes;
    std::size_t elementVisits = 0;  // nodes read one by one in the current collection

    void write(LogLevel level, std::string_view line) const {
        if (log) log->write(level, line);
    }
    bool logs() const noexcept { return log != nullptr; }
};

// A node that is redacted or a secure field by itself: a redaction mark, an accessibility
// identifier containing "virela-redact", or a text field with secure entry.
bool lockedItself(const NodeFacts& node) noexcept;
// The same test on the view and then each superview. A view that cannot be read counts as
// locked: nothing is done to what cannot be checked.
bool isLocked(HostActions& actions, HostHandle view);

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
