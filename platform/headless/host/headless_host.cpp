#include "platform/headless/host/headless_host.hpp"

#include <algorithm>
#include <atomic>

#include "platform/headless/host/notifier.hpp"
#include "platform/headless/host/passthrough.hpp"

namespace virela::headless {
namespace {

// A text field tells its targets about editing, as UIKit's does; other views send nothing.
void sendEditing(View& v, std::uint64_t event) {
    if (v.kind() == ViewKind::textField && v.onActions) v.onActions(event);
}

std::atomic<std::uint64_t> generation{0};

}  // namespace

void treeChanged() noexcept {
    generation.fetch_add(1, std::memory_order_relaxed);
}
std::uint64_t treeGeneration() noexcept {
    return generation.load(std::memory_order_relaxed);
}

std::unique_ptr<Subscription> HostNotifier::observe(Handler handler) {
    const auto id = next_++;
    handlers_.emplace(id, std::make_shared<Handler>(std::move(handler)));
    std::weak_ptr<HostNotifier> weak = shared_from_this();
    return std::make_unique<CallbackSubscription>([weak, id] {
        if (auto self = weak.lock()) self->handlers_.erase(id);
    });
}

void HostNotifier::post(HostHandle window, bool visible) {
    // Copied first: a handler may subscribe or unsubscribe while it runs.
    std::vector<std::shared_ptr<Handler>> current;
    current.reserve(handlers_.size());
    for (const auto& [id, h] : handlers_) current.push_back(h);
    for (const auto& h : current) (*h)(window, visible);
}

HeadlessHost::HeadlessHost() : notifier_(std::make_shared<HostNotifier>()) {}
HeadlessHost::~HeadlessHost() = default;

std::shared_ptr<Scene> HeadlessHost::addScene(SceneActivation activation) {
    auto scene = std::make_shared<Scene>(activation);
    scene->notifier_ = notifier_;
    scenes_.push_back(scene);
    return scene;
}

void HeadlessHost::removeScene(const Scene& scene) {
    std::erase_if(scenes_, [&](const auto& s) { return s.get() == &scene; });
}

void HeadlessHost::readScenes(std::vector<SceneFacts>& out) {
    out.resize(scenes_.size());
    for (std::size_t i = 0; i < scenes_.size(); ++i) {
        const Scene& scene = *scenes_[i];
        out[i].handle = scene.handle();
        out[i].activation = scene.activation;
        out[i].windows.clear();
        for (const auto& w : scene.windows()) out[i].windows.push_back(w->handle());
    }
}

std::optional<WindowFacts> HeadlessHost::readWindow(HostHandle handle) {
    Window* w = resolve<Window>(handle);
    if (!w) return std::nullopt;
    WindowFacts facts;
    facts.handle = handle;
    facts.scene = w->scene() ? w->scene()->handle() : noHandle;
    facts.level = w->level;
    facts.key = w->key;
    facts.hidden = w->hidden;
    facts.alpha = w->alpha;
    facts.passthrough = w->passthrough;
    facts.typeName = w->typeName();
    facts.bounds = w->bounds();
    facts.screenOrigin = w->screenOrigin;
    facts.rootViewController = w->rootViewController ? w->rootViewController->handle() : noHandle;
    return facts;
}

namespace {

class Walk {
  public:
    explicit Walk(ViewVisitor& visitor) : visitor_(visitor), start_(treeGeneration()) {}

    void view(View& v, std::uint32_t depth, Point top, Point drawnTop, bool moved) {
        if (v.onRead) v.onRead();
        check();
        const bool presented = moved || v.presentationFrame.has_value();
        facts_.handle = v.handle();
        facts_.depth = depth;
        facts_.frame = {top.x, top.y, v.frame.width, v.frame.height};
        if (presented) {
            const Rect& shape = v.presentationFrame ? *v.presentationFrame : v.frame;
            facts_.presentation = {drawnTop.x, drawnTop.y, shape.width, shape.height};
        } else {
            facts_.presentation = Rect::null();
        }
        facts_.alpha = v.alpha;
        facts_.backgroundAlpha = v.background ? v.background->alpha : 0;
        facts_.hidden = v.hidden;
        facts_.clipsToBounds = v.clipsToBounds;
        facts_.cornerRadius = v.cornerRadius;
        facts_.masked = v.masked;
        facts_.transformIsTranslation = v.transform.isTranslation();
        facts_.animating = v.animating;
        facts_.secureTextField = v.isSecureTextInput();
        facts_.accessibilityIdentifier = v.accessibilityIdentifier;
        facts_.mark = v.redactionMark();
        if (!visitor_.visit(facts_)) return;

        const auto& children = v.subviews();
        for (std::size_t i = 0; i < children.size(); ++i) {
            const std::shared_ptr<View> child = children[i];  // kept alive while it is read
            const Rect& drawn = child->presentationFrame ? *child->presentationFrame : child->frame;
            view(*child, depth + 1,
                 {top.x + child->frame.x - v.boundsOrigin.x,
                  top.y + child->frame.y - v.boundsOrigin.y},
                 {drawnTop.x + drawn.x - v.boundsOrigin.x, drawnTop.y + drawn.y - v.boundsOrigin.y},
                 presented);
            check();
        }
    }

  private:
    void check() const {
        if (treeGeneration() != start_) {
            throw HostReadError("a view was added or removed while the tree was read");
        }
    }

    ViewVisitor& visitor_;
    std::uint64_t start_;
    ViewFacts facts_;
};

}  // namespace

void HeadlessHost::walkViews(HostHandle handle, ViewVisitor& visitor) {
    Window* w = resolve<Window>(handle);
    if (!w) throw HostReadError("the window was freed before its views were read");
    Walk(visitor).view(*w, 0, w->boundsOrigin, w->boundsOrigin, false);
}

std::unique_ptr<Subscription> HeadlessHost::observeWindowVisibility(
    std::function<void(HostHandle, bool)> handler) {
    return notifier_->observe(std::move(handler));
}

// ---- Remote input ----

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

std::optional<NodeFacts> HeadlessHost::readNode(HostHandle handle) {
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

void HeadlessHost::readViews(HostHandle window, std::vector<NodeFacts>& out) {
    Window* w = resolve<Window>(window);
    std::size_t count = 0;
    if (w) readTree(*w, w->boundsOrigin, 0, out, count);
    out.resize(count);
}

void HeadlessHost::subviews(HostHandle handle, std::vector<HostHandle>& out) {
    out.clear();
    if (View* v = resolve<View>(handle)) {
        for (const auto& child : v->subviews()) out.push_back(child->handle());
    }
}

HostHandle HeadlessHost::elementAt(HostHandle node, long index) {
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

HostHandle HeadlessHost::hitTest(HostHandle handle, Point point) {
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

HostHandle HeadlessHost::nextResponder(HostHandle responder) {
    View* v = resolve<View>(responder);
    if (!v) return noHandle;
    return v->superview() ? v->superview()->handle() : noHandle;
}

bool HeadlessHost::platformVersionAtLeast(int major) {
    return platformMajorVersion >= major;
}

bool HeadlessHost::accessibilityActivate(HostHandle element) {
    if (auto* e = resolve<AccessibilityElement>(element)) return e->onActivate && e->onActivate();
    if (View* v = resolve<View>(element)) return v->onActivate && v->onActivate();
    return false;
}

namespace {

void resignAll(View& v) {
    v.firstResponder = false;
    for (const auto& child : v.subviews()) resignAll(*child);
}

}  // namespace

bool HeadlessHost::becomeFirstResponder(HostHandle responder) {
    View* v = resolve<View>(responder);
    // A disabled text field cannot take the focus, as on the device.
    if (!v || !v->keyInput || !v->window()) return false;
    if (v->kind() == ViewKind::textField && !v->enabled) return false;
    resignAll(*v->window());
    v->firstResponder = true;
    sendEditing(*v, controlEventEditingDidBegin);
    return true;
}

bool HeadlessHost::resignFirstResponder(HostHandle responder) {
    View* v = resolve<View>(responder);
    if (!v || !v->firstResponder) return false;
    v->firstResponder = false;
    sendEditing(*v, controlEventEditingDidEnd);
    return true;
}

bool HeadlessHost::insertText(HostHandle responder, const std::string& text) {
    View* v = resolve<View>(responder);
    if (!v || !v->keyInput) return false;
    v->text += text;
    sendEditing(*v, controlEventEditingChanged);
    return true;
}

bool HeadlessHost::deleteBackward(HostHandle responder) {
    View* v = resolve<View>(responder);
    if (!v || !v->keyInput) return false;
    // One character, not one byte.
    while (!v->text.empty()) {
        const auto last = static_cast<unsigned char>(v->text.back());
        v->text.pop_back();
        if ((last & 0xC0) != 0x80) break;
    }
    sendEditing(*v, controlEventEditingChanged);
    return true;
}

bool HeadlessHost::sendActions(HostHandle control, std::uint64_t events) {
    View* v = resolve<View>(control);
    if (!v) return false;
    if (v->onActions) v->onActions(events);
    return true;
}

bool HeadlessHost::setOn(HostHandle control, bool on, bool /*animated*/) {
    View* v = resolve<View>(control);
    if (!v) return false;
    v->isOn = on;
    return true;
}

bool HeadlessHost::setValue(HostHandle control, double value, bool /*animated*/) {
    View* v = resolve<View>(control);
    if (!v) return false;
    v->value = std::clamp(value, v->minimumValue, v->maximumValue);
    return true;
}

bool HeadlessHost::setSelectedSegment(HostHandle control, long index) {
    View* v = resolve<View>(control);
    if (!v || index < 0 || index >= v->numberOfSegments) return false;
    v->selectedSegment = index;
    return true;
}

bool HeadlessHost::performPrimaryAction(HostHandle button) {
    View* v = resolve<View>(button);
    if (!v || !v->menu) return false;
    if (v->onActions) v->onActions(controlEventPrimaryActionTriggered);
    return true;
}

namespace {

View* enclosingList(View* cell) {
    for (View* v = cell ? cell->superview() : nullptr; v; v = v->superview()) {
        if (v->kind() == ViewKind::tableView || v->kind() == ViewKind::collectionView) return v;
    }
    return nullptr;
}

}  // namespace

std::optional<std::pair<ListFacts, IndexPath>> HeadlessHost::listOfCell(HostHandle handle) {
    View* cell = resolve<View>(handle);
    View* list = enclosingList(cell);
    if (!list || !cell->indexPath) return std::nullopt;
    ListFacts facts;
    facts.list = list->handle();
    facts.isTable = list->kind() == ViewKind::tableView;
    facts.typeName = list->typeName();
    if (const auto& d = list->delegate) {
        facts.delegateTypeName = d->typeName;
        facts.answersWillSelect = static_cast<bool>(d->willSelect);
        facts.answersDidSelect = static_cast<bool>(d->didSelect);
        facts.answersShouldSelect = static_cast<bool>(d->shouldSelect);
        facts.answersPerformPrimaryAction = static_cast<bool>(d->performPrimaryAction);
    }
    return std::make_pair(facts, *cell->indexPath);
}

std::optional<IndexPath> HeadlessHost::willSelectRow(HostHandle table, IndexPath path) {
    View* v = resolve<View>(table);
    if (!v || !v->delegate || !v->delegate->willSelect) return path;
    return v->delegate->willSelect(path);
}

bool HeadlessHost::selectRow(HostHandle list, IndexPath path) {
    View* v = resolve<View>(list);
    if (!v) return false;
    v->selectedRow = path;
    return true;
}

bool HeadlessHost::didSelectRow(HostHandle list, IndexPath path) {
    View* v = resolve<View>(list);
    if (!v || !v->delegate || !v->delegate->didSelect) return false;
    v->delegate->didSelect(path);
    return true;
}

bool HeadlessHost::shouldSelectItem(HostHandle collection, IndexPath path) {
    View* v = resolve<View>(collection);
    if (!v || !v->delegate || !v->delegate->shouldSelect) return true;
    return v->delegate->shouldSelect(path);
}

bool HeadlessHost::performPrimaryActionForItem(HostHandle collection, IndexPath path) {
    View* v = resolve<View>(collection);
    if (!v || !v->delegate || !v->delegate->performPrimaryAction) return false;
    v->delegate->performPrimaryAction(path);
    return true;
}

namespace {

MenuElement describeMenu(const MenuNode& node) {
    MenuElement e;
    e.isMenu = node.isMenu;
    e.title = node.title;
    e.identifier = node.identifier;
    e.action = node.isMenu ? noHandle : node.handle();
    for (const auto& child : node.children) {
        if (child) e.children.push_back(describeMenu(*child));
    }
    return e;
}

void dismissIn(View& v) {
    if (v.hasContextMenuInteraction) ++v.contextMenuDismissals;
    for (const auto& child : v.subviews()) dismissIn(*child);
}

}  // namespace

std::optional<MenuElement> HeadlessHost::buttonMenu(HostHandle button) {
    View* v = resolve<View>(button);
    if (!v || !v->menu) return std::nullopt;
    return describeMenu(*v->menu);
}

bool HeadlessHost::runMenuAction(HostHandle action) {
    MenuNode* node = resolve<MenuNode>(action);
    if (!node || node->isMenu) return false;
    if (node->handler) node->handler();
    return true;
}

void HeadlessHost::dismissContextMenus(HostHandle view) {
    if (View* v = resolve<View>(view)) dismissIn(*v);
}

bool HeadlessHost::setContentOffset(HostHandle scrollView, Point offset) {
    View* v = resolve<View>(scrollView);
    if (!v || !isScrollView(v->kind())) return false;
    v->boundsOrigin = offset;
    if (v->onContentOffsetChange) v->onContentOffsetChange(offset);
    return true;
}

std::optional<ControllerFacts> HeadlessHost::readController(HostHandle handle) {
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
