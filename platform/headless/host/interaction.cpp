// The customer's own hands on the headless screen: navigating between screens and dragging.

#include <algorithm>
#include <utility>

#include "platform/headless/host/screen.hpp"

namespace virela::headless {

namespace {

// Puts `shown` where `gone` is on screen. A view without a frame of its own takes the old one's,
// as a navigation or tab bar controller sizes its child to its content area.
void swapShown(const std::shared_ptr<View>& gone, const std::shared_ptr<View>& shown) {
    if (!gone || !shown || gone == shown) return;
    View* parent = gone->superview();
    if (!parent) return;
    if (shown->frame.width <= 0 || shown->frame.height <= 0) shown->frame = gone->frame;
    gone->removeFromSuperview();
    parent->addSubview(shown);
}

}  // namespace

void ViewController::push(std::shared_ptr<ViewController> controller) {
    if (!controller) return;
    const std::shared_ptr<ViewController> previous = children.empty() ? nullptr : children.back();
    children.push_back(controller);
    if (previous) swapShown(previous->view, controller->view);
}

std::shared_ptr<ViewController> ViewController::pop() {
    if (children.size() < 2) return nullptr;
    std::shared_ptr<ViewController> popped = children.back();
    children.pop_back();
    swapShown(popped->view, children.back()->view);
    return popped;
}

void ViewController::present(std::shared_ptr<ViewController> modal) {
    if (!modal) return;
    presented = modal;
    Window* window = view ? view->window() : nullptr;
    if (!window || !modal->view) return;
    if (modal->view->frame.width <= 0 || modal->view->frame.height <= 0) {
        modal->view->frame = {0, 0, window->frame.width, window->frame.height};
    }
    window->addSubview(modal->view);
}

std::shared_ptr<ViewController> ViewController::dismiss() {
    std::shared_ptr<ViewController> modal = std::move(presented);
    if (!modal) return nullptr;
    // Whatever the modal presented in turn goes with it.
    modal->dismiss();
    if (modal->view) modal->view->removeFromSuperview();
    return modal;
}

View* View::hitTest(Point p) {
    if (hidden || !userInteractionEnabled || alpha < 0.01) return nullptr;
    if (!bounds().contains(p)) return nullptr;
    for (auto it = subviews_.rbegin(); it != subviews_.rend(); ++it) {
        View& child = **it;
        const Point q{p.x - child.frame.x + child.boundsOrigin.x,
                      p.y - child.frame.y + child.boundsOrigin.y};
        if (View* hit = child.hitTest(q)) return hit;
    }
    return this;
}

void ViewController::selectTab(std::size_t index) {
    if (index >= children.size()) return;
    const std::shared_ptr<ViewController> previous =
        selectedIndex < children.size() ? children[selectedIndex] : nullptr;
    selectedIndex = index;
    if (previous) swapShown(previous->view, children[index]->view);
}

namespace {

// The furthest a scroll view's content offset may go on one axis.
double clampOffset(double offset, double content, double size, double before, double after) {
    const double lowest = -before;
    const double highest = std::max(lowest, content + after - size);
    return std::clamp(offset, lowest, highest);
}

}  // namespace

void Window::drag(Point from, Point to, int steps) {
    steps = std::max(steps, 1);
    const std::shared_ptr<View> keep = weak_from_this().lock();
    View* hit = hitTest(from);
    if (!hit) hit = this;

    // Who sees the drag is settled when the finger lands, innermost first, as on the platform.
    struct Watcher {
        std::weak_ptr<View> view;
        std::shared_ptr<PanRecognizer> recognizer;
    };
    std::vector<Watcher> watchers;
    std::shared_ptr<View> scroller;
    for (View* v = hit; v; v = v->superview()) {
        if (!scroller && isScrollView(v->kind()) && v->scrollEnabled) {
            scroller = v->weak_from_this().lock();
        }
        for (const auto& r : v->panRecognizers) watchers.push_back({v->weak_from_this(), r});
    }
    auto deliver = [&](PanRecognizer::State state, Point translation) {
        for (const Watcher& w : watchers) {
            // A recogniser removed during the drag (by its own action, say) sees no more of it.
            const std::shared_ptr<View> owner = w.view.lock();
            if (!owner || !w.recognizer->action) continue;
            const auto& attached = owner->panRecognizers;
            if (std::find(attached.begin(), attached.end(), w.recognizer) == attached.end()) {
                continue;
            }
            w.recognizer->action(state, translation);
        }
    };

    const Point start = scroller ? scroller->boundsOrigin : Point{};
    deliver(PanRecognizer::State::began, {0, 0});
    Point translation;
    for (int i = 1; i <= steps; ++i) {
        const double f = static_cast<double>(i) / steps;
        translation = {(to.x - from.x) * f, (to.y - from.y) * f};
        if (scroller) {
            View& s = *scroller;
            // Content follows the finger: dragging up shows what is further down.
            const Point offset{
                clampOffset(start.x - translation.x, s.contentSize.width, s.frame.width,
                            s.contentInset.left, s.contentInset.right),
                clampOffset(start.y - translation.y, s.contentSize.height, s.frame.height,
                            s.contentInset.top, s.contentInset.bottom)};
            if (offset.x != s.boundsOrigin.x || offset.y != s.boundsOrigin.y) {
                s.boundsOrigin = offset;
                if (s.onContentOffsetChange) s.onContentOffsetChange(offset);
            }
        }
        deliver(PanRecognizer::State::changed, translation);
    }
    deliver(PanRecognizer::State::ended, translation);
}

}  // namespace virela::headless
