#include "platform/headless/host/headless_host.hpp"

#include <algorithm>
#include <atomic>

#include "platform/headless/host/notifier.hpp"

namespace virela::headless {
namespace {

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

HostActions HeadlessHost::actions() {
    // Each role shares the host's ownership: the roles live as long as it does.
    const std::shared_ptr<HeadlessHost> self = shared_from_this();
    return {std::shared_ptr<NodeReader>(self, &reader_),
            std::shared_ptr<ResponderActions>(self, &responders_),
            std::shared_ptr<ControlActions>(self, &controls_),
            std::shared_ptr<ListActions>(self, &lists_),
            std::shared_ptr<MenuActions>(self, &menus_)};
}

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

}  // namespace virela::headless
