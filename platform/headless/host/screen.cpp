#include "platform/headless/host/screen.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <unordered_map>

#include "core/ports/redaction_style.hpp"
#include "platform/headless/host/notifier.hpp"

namespace virela::headless {
namespace {

// Every live object with a handle, so that a handle of a freed object resolves to nothing.
struct HandleTable {
    std::mutex lock;
    std::unordered_map<HostHandle, Handled*> objects;
    HostHandle next = 1;
};

HandleTable& table() {
    static HandleTable instance;
    return instance;
}

}  // namespace

Handled::Handled() {
    auto& t = table();
    std::lock_guard guard(t.lock);
    handle_ = t.next++;
    t.objects.emplace(handle_, this);
}

Handled::~Handled() {
    auto& t = table();
    std::lock_guard guard(t.lock);
    t.objects.erase(handle_);
}

Handled* resolveHandled(HostHandle handle) {
    auto& t = table();
    std::lock_guard guard(t.lock);
    const auto it = t.objects.find(handle);
    return it == t.objects.end() ? nullptr : it->second;
}

template <class T>
T* resolve(HostHandle handle) {
    return dynamic_cast<T*>(resolveHandled(handle));
}

template View* resolve<View>(HostHandle);
template Window* resolve<Window>(HostHandle);
template Scene* resolve<Scene>(HostHandle);
template AccessibilityElement* resolve<AccessibilityElement>(HostHandle);
template MenuNode* resolve<MenuNode>(HostHandle);
template ViewController* resolve<ViewController>(HostHandle);

std::shared_ptr<MenuNode> MenuNode::action(std::string title, std::string identifier,
                                           std::function<void()> handler) {
    auto node = std::make_shared<MenuNode>();
    node->title = std::move(title);
    node->identifier = std::move(identifier);
    node->handler = std::move(handler);
    return node;
}

std::shared_ptr<MenuNode> MenuNode::menu(std::string title,
                                         std::vector<std::shared_ptr<MenuNode>> children) {
    auto node = std::make_shared<MenuNode>();
    node->isMenu = true;
    node->title = std::move(title);
    node->children = std::move(children);
    return node;
}

namespace {

const char* defaultTypeName(ViewKind kind) {
    switch (kind) {
        case ViewKind::view:
            return "UIView";
        case ViewKind::window:
            return "UIWindow";
        case ViewKind::label:
            return "UILabel";
        case ViewKind::imageView:
            return "UIImageView";
        case ViewKind::button:
            return "UIButton";
        case ViewKind::textField:
            return "UITextField";
        case ViewKind::textView:
            return "UITextView";
        case ViewKind::switchControl:
            return "UISwitch";
        case ViewKind::slider:
            return "UISlider";
        case ViewKind::stepper:
            return "UIStepper";
        case ViewKind::segmentedControl:
            return "UISegmentedControl";
        case ViewKind::otherControl:
            return "UIControl";
        case ViewKind::scrollView:
            return "UIScrollView";
        case ViewKind::tableView:
            return "UITableView";
        case ViewKind::collectionView:
            return "UICollectionView";
        case ViewKind::tableCell:
            return "UITableViewCell";
        case ViewKind::collectionCell:
            return "UICollectionViewCell";
    }
    return "UIView";
}

}  // namespace

View::View(ViewKind kind, std::string typeName)
    : kind_(kind), typeName_(typeName.empty() ? defaultTypeName(kind) : std::move(typeName)) {
    keyInput = kind == ViewKind::textField || kind == ViewKind::textView;
    editable = kind == ViewKind::textView;
    // As in UIKit, labels and images take no touches: a tap on one falls through to its parent.
    userInteractionEnabled = kind != ViewKind::label && kind != ViewKind::imageView;
}

View::~View() {
    for (auto& child : subviews_) child->superview_ = nullptr;
}

View& View::addSubview(std::shared_ptr<View> child) {
    if (!child) return *this;
    // A view never becomes its own descendant: UIKit refuses that too, and a circle would make
    // every walk up or down the tree endless.
    for (const View* v = this; v; v = v->superview_) {
        if (v == child.get()) return *this;
    }
    auto keep = child;  // removing it from an old parent may drop the last other reference
    child->removeFromSuperview();
    child->superview_ = this;
    subviews_.push_back(std::move(child));
    treeChanged();
    return *this;
}

void View::removeFromSuperview() {
    View* parent = superview_;
    if (!parent) return;
    superview_ = nullptr;
    auto& siblings = parent->subviews_;
    const auto it = std::find_if(siblings.begin(), siblings.end(),
                                 [this](const auto& v) { return v.get() == this; });
    treeChanged();
    if (it != siblings.end()) siblings.erase(it);  // may free this view: nothing after it
}

Window* View::window() const noexcept {
    const View* v = this;
    while (v->superview_) v = v->superview_;
    return v->ownWindow_;
}

Rect View::inWindow(bool presented) const noexcept {
    const Window* w = window();
    if (!w) return Rect::null();
    // A window's coordinates are its bounds coordinates; each step down adds the child's frame
    // (where it is drawn, for the presentation geometry) and removes the parent's bounds origin
    // (a scroll view's offset).
    auto shape = [presented](const View& v) -> const Rect& {
        return presented && v.presentationFrame && v.superview_ ? *v.presentationFrame : v.frame;
    };
    double x = w->boundsOrigin.x;
    double y = w->boundsOrigin.y;
    for (const View* v = this; v->superview_; v = v->superview_) {
        x += shape(*v).x - v->superview_->boundsOrigin.x;
        y += shape(*v).y - v->superview_->boundsOrigin.y;
    }
    return {x, y, shape(*this).width, shape(*this).height};
}

void View::setVirelaRedacted(bool redacted) {
    mark_ = redacted ? makeRedactionMark() : nullptr;
}

void View::virelaRedact(std::optional<Color> color, std::optional<std::string> label,
                        std::optional<Color> labelColor) {
    mark_ = makeRedactionMark(color, std::move(label), labelColor);
}

Window::Window(std::string typeName) : View(ViewKind::window, std::move(typeName)) {
    ownWindow_ = this;
    hidden = true;  // as a new UIWindow: visible once shown
}

Window::~Window() = default;

void Window::show() {
    hidden = false;
    if (auto n = notifier_.lock()) n->post(handle(), true);
}

void Window::hide() {
    hidden = true;
    if (auto n = notifier_.lock()) n->post(handle(), false);
}

void Window::makeKeyAndVisible() {
    if (scene_) {
        for (const auto& other : scene_->windows()) other->key = false;
    }
    key = true;
    show();
}

Scene::~Scene() {
    for (auto& w : windows_) w->scene_ = nullptr;
    for (auto& weak : unlisted_) {
        if (auto w = weak.lock(); w && w->scene_ == this) w->scene_ = nullptr;
    }
}

std::shared_ptr<Window> Scene::addWindow(std::shared_ptr<Window> window) {
    attachUnlisted(window);
    windows_.push_back(window);
    return window;
}

std::shared_ptr<Window> Scene::attachUnlisted(std::shared_ptr<Window> window) {
    window->scene_ = this;
    window->notifier_ = notifier_;
    unlisted_.push_back(window);
    return window;
}

void Scene::removeWindow(const Window& window) {
    const auto it = std::find_if(windows_.begin(), windows_.end(),
                                 [&](const auto& w) { return w.get() == &window; });
    if (it == windows_.end()) return;
    (*it)->scene_ = nullptr;
    windows_.erase(it);
}

}  // namespace virela::headless
