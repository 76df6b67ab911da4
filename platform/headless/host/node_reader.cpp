#include "platform/headless/host/node_reader.hpp"

#include "platform/headless/host/headless_host.hpp"
#include "platform/headless/host/passthrough.hpp"
#include "platform/headless/host/screen.hpp"

namespace virela::headless {
namespace {

// One view's facts; `frame` is its bounds in its window, which a tree walk knows already.
void readView(View& v, const Rect& frame, NodeFacts& n) {
    n.handle = v.handle();
    n.isView = true;
    n.kind = v.kind();
    n.typeName = v.typeName();
    n.superview = v.superview() ? v.superview()->handle() : noHandle;
    n.window = v.window() ? v.window()->handle() : noHandle;
    n.frame = frame;
    n.bounds = v.bounds();
    n.hidden = v.hidden;
    n.alpha = v.alpha;
    n.secureTextField = v.isSecureTextInput();
    n.hasMark = v.isVirelaRedacted();
    n.isAccessibilityElement = v.isAccessibilityElement;
    n.accessibilityTraits = v.accessibilityTraits;
    n.accessibilityIdentifier = v.accessibilityIdentifier;
    n.accessibilityLabel = v.accessibilityLabel;
    n.accessibilityContainer = noHandle;
    if (v.accessibilityElementsPresent) {
        if (!n.accessibilityElements) n.accessibilityElements.emplace();
        n.accessibilityElements->clear();
        for (const auto& e : v.accessibilityElements)
            n.accessibilityElements->push_back(e->handle());
        n.accessibilityElementCount = -1;
    } else {
        n.accessibilityElements.reset();
        // Elements the view only counts and hands out by index, as a container that implements
        // the count-and-index protocol does.
        n.accessibilityElementCount = v.accessibilityElements.empty()
                                          ? -1
                                          : static_cast<long>(v.accessibilityElements.size());
    }
    n.enabled = v.enabled;
    n.editable = v.editable;
    n.keyInput = v.keyInput;
    n.firstResponder = v.firstResponder;
    n.isOn = v.isOn;
    n.value = v.value;
    n.minimumValue = v.minimumValue;
    n.maximumValue = v.maximumValue;
    n.stepValue = v.stepValue;
    n.wraps = v.wraps;
    n.trackRect =
        v.kind() == ViewKind::slider ? Rect{0, 0, v.frame.width, v.frame.height} : Rect::null();
    n.numberOfSegments = v.numberOfSegments;
    n.selectedSegment = v.selectedSegment;
    n.hasMenu = v.menu != nullptr;
    n.showsMenuAsPrimaryAction = v.showsMenuAsPrimaryAction;
    if (v.kind() == ViewKind::label) {
        n.text = v.text;
    } else {
        n.text.reset();
    }
    n.scrollEnabled = isScrollView(v.kind()) && v.scrollEnabled;
    n.contentOffset = v.boundsOrigin;
    n.contentSize = v.contentSize;
    n.adjustedContentInset = v.contentInset;
}

void readTree(View& v, Point top, std::uint32_t depth, std::vector<NodeFacts>& out,
              std::size_t& count) {
    if (count == out.size()) out.emplace_back();
    NodeFacts& n = out[count++];
    readView(v, {top.x, top.y, v.frame.width, v.frame.height}, n);
    n.depth = depth;
    for (const auto& child : v.subviews()) {
        readTree(
            *child,
            {top.x + child->frame.x - v.boundsOrigin.x, top.y + child->frame.y - v.boundsOrigin.y},
            depth + 1, out, count);
    }
}

}  // namespace

std::optional<NodeFacts> HeadlessNodeReader::readNode(HostHandle handle) {
    if (auto* element = resolve<AccessibilityElement>(handle)) {
        NodeFacts n;
        n.handle = handle;
        n.isView = false;
        n.typeName = "UIAccessibilityElement";
        auto container = element->container.lock();
        const Rect base = container ? container->frameInWindow() : Rect::null();
        n.frame = base.isNull() ? base : element->frame.offsetBy(base.x, base.y);
        n.isAccessibilityElement = element->isAccessibilityElement;
        n.accessibilityTraits = element->traits;
        n.accessibilityIdentifier = element->identifier;
        n.accessibilityLabel = element->label;
        n.accessibilityContainer = container ? container->handle() : noHandle;
        return n;
    }
    View* v = resolve<View>(handle);
    if (!v) return std::nullopt;
    NodeFacts n;
    readView(*v, v->frameInWindow(), n);
    return n;
}

void HeadlessNodeReader::readViews(HostHandle window, std::vector<NodeFacts>& out) {
    Window* w = resolve<Window>(window);
    std::size_t count = 0;
    if (w) readTree(*w, w->boundsOrigin, 0, out, count);
    out.resize(count);
}

void HeadlessNodeReader::subviews(HostHandle handle, std::vector<HostHandle>& out) {
    out.clear();
    if (View* v = resolve<View>(handle)) {
        for (const auto& child : v->subviews()) out.push_back(child->handle());
    }
}

HostHandle HeadlessNodeReader::elementAt(HostHandle node, long index) {
    View* v = resolve<View>(node);
    if (!v || index < 0 || static_cast<std::size_t>(index) >= v->accessibilityElements.size()) {
        return noHandle;
    }
    return v->accessibilityElements[static_cast<std::size_t>(index)]->handle();
}

namespace {

Point intoView(const View& v, Point inWindow) {
    const Rect f = v.frameInWindow();
    return {inWindow.x - f.x + v.boundsOrigin.x, inWindow.y - f.y + v.boundsOrigin.y};
}

}  // namespace

HostHandle HeadlessNodeReader::hitTest(HostHandle handle, Point point) {
    Window* w = resolve<Window>(handle);
    if (!w) return noHandle;
    if (!w->passthrough) {
        View* hit = w->hitTest(point);
        return hit ? hit->handle() : noHandle;
    }
    std::vector<std::shared_ptr<View>> targets;
    for (const auto& target : w->targets) targets.push_back(target ? target() : nullptr);
    const auto index = passthroughTarget(targets.size(), [&](std::size_t i) {
        const auto& view = targets[i];
        if (!view) return PassthroughTarget{};
        return PassthroughTarget{true, view->hidden,
                                 view->bounds().contains(intoView(*view, point))};
    });
    if (!index) return noHandle;
    View& target = *targets[*index];
    View* hit = target.hitTest(intoView(target, point));
    return (hit ? hit : &target)->handle();
}

HostHandle HeadlessNodeReader::nextResponder(HostHandle responder) {
    View* v = resolve<View>(responder);
    if (!v) return noHandle;
    return v->superview() ? v->superview()->handle() : noHandle;
}

bool HeadlessNodeReader::platformVersionAtLeast(int major) {
    return host_.platformMajorVersion >= major;
}

std::optional<ControllerFacts> HeadlessNodeReader::readController(HostHandle handle) {
    ViewController* c = resolve<ViewController>(handle);
    if (!c) return std::nullopt;
    ControllerFacts facts;
    facts.handle = handle;
    facts.kind = c->kind;
    facts.typeName = c->typeName;
    facts.presented = c->presented ? c->presented->handle() : noHandle;
    if (c->kind == ControllerKind::navigation && !c->children.empty()) {
        facts.top = c->children.back()->handle();
    } else if (c->kind == ControllerKind::tabBar && c->selectedIndex < c->children.size()) {
        facts.top = c->children[c->selectedIndex]->handle();
    }
    return facts;
}

}  // namespace virela::headless
