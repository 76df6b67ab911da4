#include "tests/support/generated_screen.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>

#include "core/redaction/redaction_walk.hpp"

namespace virela::headless::testing {
namespace {

// Colours for everything that is not sensitive.
const std::uint32_t ordinary[] = {0xFFFFFF, 0x172019, 0xE5E1D4, 0x0C6B57, 0x5E6B60,
                                  0x3366CC, 0xF3F0E6, 0x000000, 0x808080, 0xCFE3D4};
// Few titles, so that menus share some and the engine meets ambiguous and locked ones.
const char* const menuTitles[] = {"Copy", "Share", "Delete", "Open"};
constexpr std::uint64_t menuTrait = 0x10000000000ULL;

}  // namespace

ScreenGenerator::ScreenGenerator(unsigned seed, Options options) : options_(options), rng_(seed) {}

double ScreenGenerator::coord(double limit) {
    // Quarter points, so that edges fall between pixels as well as on them.
    return std::round(uniform(-0.1 * limit, limit) * 4) / 4;
}

Color ScreenGenerator::colour(double alpha) {
    return rgb(ordinary[pick(std::size(ordinary))], alpha);
}

void ScreenGenerator::generate() {
    const Size sizes[] = {{390, 844}, {390, 844}, {320, 480}, {1366, 1024}};
    const Size size = sizes[pick(chance(0.12) ? 4 : 3)];
    // Before 14 a button cannot open its menu from code.
    if (options_.interactive && chance(0.2)) host->platformMajorVersion = 13;
    auto main = makeAppWindow(*host, size, colour(1));
    windows.push_back(main);
    budget_ = options_.interactive ? 70 : 1000;
    populate(*main, 0);
    const int extra = pick(3);
    for (int i = 0; i < extra; ++i) {
        const double levels[] = {0, 1, 2000, 10};
        auto w =
            addWindow(*main, levels[pick(4)], chance(0.2) ? "UITextEffectsWindow" : "UIWindow");
        if (options_.interactive) {
            // A banner or a toast: a band of the screen, so the app's window stays reachable.
            const double height = std::max(1.0, coord(size.height / 3));
            w->frame = {0, 0, size.width, height};
            w->screenOrigin = {0, coord(size.height)};
        }
        w->passthrough = chance(0.15);
        const double alphas[] = {1, 1, 0.5, 0.02, 0.005};
        w->alpha = alphas[pick(5)];
        if (chance(0.5)) w->background = colour(chance(0.5) ? 1 : 0.4);  // else see-through
        populate(*w, 0);
        windows.push_back(w);
    }
    // Menus the customer opened, as the system shows them.
    for (const auto& button : menuButtons_) {
        if (chance(0.3)) openMenu(*main, *button);
    }
}

void ScreenGenerator::populate(View& parent, int depth) {
    const int children = depth == 0 ? 3 + pick(6) : (depth < 4 ? pick(4) : 0);
    const Rect area = parent.bounds();
    for (int i = 0; i < children && budget_ > 0; ++i) {
        const double w = std::max(1.0, coord(area.width));
        const double h = std::max(1.0, coord(area.height / 2));
        const Rect frame{area.x + coord(area.width), area.y + coord(area.height), w, h};
        --budget_;
        std::shared_ptr<View> v = makeView(frame, depth);
        const double alphas[] = {1, 1, 1, 0.5, 0.005};
        if (chance(0.7)) v->background = colour(alphas[pick(3)]);
        // Interactive screens hide fewer of their views, so that more of them meet the agent.
        v->alpha = alphas[pick(options_.interactive && chance(0.8) ? 3 : 5)];
        v->hidden = chance(options_.interactive ? 0.03 : 0.08);
        v->clipsToBounds = v->clipsToBounds || chance(0.3);
        if (chance(0.05)) {
            v->animating = true;
            v->presentationFrame = Rect{frame.x + coord(40), frame.y + coord(40), w, h};
        }
        if (chance(0.15)) shape(*v);
        mark(*v);
        if (options_.interactive && chance(0.1)) {
            // SwiftUI's marker: a plain view behind the content, its sibling, not its ancestor.
            auto marker = view(frame);
            marker->virelaRedact();
            parent.addSubview(marker);
        }
        parent.addSubview(v);
        // Interactive screens nest only in containers: a control's insides are its own.
        if (!options_.interactive || v->kind() == ViewKind::view ||
            v->kind() == ViewKind::scrollView) {
            populate(*v, depth + 1);
        }
        if (v->isVirelaRedacted() && chance(0.6)) parent.addSubview(coverOver(frame));
    }
}

std::shared_ptr<View> ScreenGenerator::makeView(const Rect& frame, int depth) {
    if (!options_.interactive) {
        switch (pick(6)) {
            case 0:
                return label(frame, "Card 4111 1111");
            case 1:
                return textField(frame, "secret", chance(0.4));
            case 2: {
                auto v = scrollView(frame, {frame.width, frame.height * 3});
                v->boundsOrigin = {0, coord(frame.height * 2)};
                return v;
            }
            default:
                return view(frame);
        }
    }
    switch (pick(15)) {
        case 0:
            return label(frame, "Card 4111 1111");
        case 1:
            return textField(frame, "secret", chance(0.3));
        case 2: {
            auto v = scrollView(frame, {frame.width * (chance(0.3) ? 2 : 1), frame.height * 3});
            v->boundsOrigin = {0, coord(frame.height * 2)};
            return v;
        }
        case 3: {
            auto v = textView(frame, "notes");
            v->secureTextEntry = chance(0.2);
            v->editable = chance(0.8);
            return v;
        }
        case 4: {
            // A view of the app's own that takes key input, such as a PIN pad.
            auto v = std::make_shared<View>(ViewKind::view, "PinEntryView");
            v->frame = frame;
            v->keyInput = true;
            v->secureTextEntry = chance(0.5);
            return v;
        }
        case 5:
        case 6:
            return makeControl(frame);
        case 7:
            return makeList(frame);
        case 8:
            return makeMenuButton(frame);
        case 9:
            return withElements(view(frame));
        case 10: {
            auto v = std::make_shared<View>(ViewKind::imageView);
            v->frame = frame;
            v->isAccessibilityElement = chance(0.5);
            return v;
        }
        case 11: {
            // A button whose title label the app marked: the label takes no touches, so a tap
            // on it lands on the button.
            auto b = button(frame, "");
            auto title = label(
                {frame.width / 4, frame.height / 4, frame.width / 2, frame.height / 2}, "Reveal");
            title->setVirelaRedacted(true);
            b->addSubview(title);
            return b;
        }
        default:
            return depth < 3 ? view(frame) : label(frame, "Total");
    }
}

std::shared_ptr<View> ScreenGenerator::makeControl(const Rect& frame) {
    std::shared_ptr<View> v;
    switch (pick(6)) {
        case 0:
            v = switchControl(frame, chance(0.5));
            break;
        case 1:
            v = slider(frame, uniform(0, 1));
            break;
        case 2:
            v = std::make_shared<View>(ViewKind::stepper);
            v->frame = frame;
            v->isAccessibilityElement = true;
            v->maximumValue = 10;
            v->value = pick(11);
            v->wraps = chance(0.3);
            break;
        case 3:
            v = segmented(frame, 1 + pick(5), 0);
            break;
        case 4:
            v = std::make_shared<View>(ViewKind::otherControl, "RatingControl");
            v->frame = frame;
            v->isAccessibilityElement = chance(0.5);
            break;
        default:
            v = button(frame, "Pay");
            break;
    }
    v->enabled = chance(0.9);
    return v;
}

std::shared_ptr<View> ScreenGenerator::makeList(const Rect& frame) {
    const bool table = chance(0.6);
    auto list = std::make_shared<View>(table ? ViewKind::tableView : ViewKind::collectionView);
    list->frame = frame;
    list->contentSize = {frame.width, frame.height * 2};
    list->scrollEnabled = chance(0.7);
    list->delegate = std::make_shared<ListDelegate>();
    ListDelegate& d = *list->delegate;
    if (table) {
        d.typeName = "OrdersController";
        if (chance(0.5)) {
            const bool veto = chance(0.2);
            d.willSelect = [veto](IndexPath p) {
                return veto ? std::nullopt : std::optional<IndexPath>(p);
            };
        }
    } else {
        // Some collections are the system's menu lists.
        d.typeName = chance(0.3) ? "_UIContextMenuListDelegate" : "GalleryController";
        if (chance(0.5)) {
            const bool allow = chance(0.8);
            d.shouldSelect = [allow](IndexPath) { return allow; };
        }
        if (chance(0.5)) d.performPrimaryAction = [](IndexPath) {};
    }
    if (chance(0.8)) d.didSelect = [](IndexPath) {};
    const int rows = 1 + pick(4);
    const double rowHeight = std::max(1.0, frame.height / rows);
    for (int r = 0; r < rows; ++r) {
        auto cell = std::make_shared<View>(table ? ViewKind::tableCell : ViewKind::collectionCell);
        cell->frame = {0, r * rowHeight, frame.width, rowHeight};
        cell->indexPath = IndexPath{0, r};
        cell->isAccessibilityElement = chance(0.5);
        if (chance(0.7)) {
            cell->addSubview(label({8, 2, frame.width / 2, rowHeight - 4}, "Row"));
        }
        if (chance(0.3)) {
            cell->addSubview(switchControl({frame.width * 0.7, 2, 51, rowHeight - 4}, false));
        }
        mark(*cell);
        if (chance(0.1)) {
            auto marker = view(cell->frame);
            marker->virelaRedact();
            list->addSubview(marker);
        }
        list->addSubview(cell);
    }
    return list;
}

std::shared_ptr<View> ScreenGenerator::makeMenuButton(const Rect& frame) {
    auto b = button(frame, "More");
    std::vector<std::shared_ptr<MenuNode>> actions;
    const int count = 1 + pick(3);
    const auto id = std::to_string(menuButtons_.size());
    for (int i = 0; i < count; ++i) {
        const std::string title = menuTitles[pick(4)];
        actions.push_back(MenuNode::action(title, "b" + id + "." + title + std::to_string(i)));
    }
    b->menu = MenuNode::menu("", std::move(actions));
    b->showsMenuAsPrimaryAction = chance(0.7);
    b->hasContextMenuInteraction = true;
    if (chance(0.5)) b->accessibilityTraits |= menuTrait;
    menuButtons_.push_back(b);
    return b;
}

std::shared_ptr<View> ScreenGenerator::withElements(std::shared_ptr<View> container) {
    container->accessibilityElementsPresent = chance(0.7);
    const int count = 1 + pick(3);
    for (int i = 0; i < count; ++i) {
        auto e = std::make_shared<AccessibilityElement>();
        const Rect b = container->bounds();
        e->frame = {coord(b.width), coord(b.height), std::max(1.0, coord(b.width)),
                    std::max(1.0, coord(b.height))};
        e->container = container;
        e->label = "Bar " + std::to_string(i);
        if (chance(0.1)) e->identifier = "chart.virela-redact.point";
        if (chance(0.2)) e->traits |= menuTrait;
        const bool accepts = chance(0.7);
        e->onActivate = [accepts] { return accepts; };
        container->accessibilityElements.push_back(e);
    }
    return container;
}

void ScreenGenerator::mark(View& v) {
    if (chance(0.08)) v.setVirelaRedacted(true);
    if (chance(0.03)) v.virelaRedact(rgb(0x222222), std::string("PRIVATE"));
    if (chance(0.04)) v.accessibilityIdentifier = "form.virela-redact.field";
}

// Layer effects that leave parts of a view's box undrawn, or (a translation) none.
void ScreenGenerator::shape(View& v) {
    const double side = std::min(v.frame.width, v.frame.height);
    switch (pick(5)) {
        case 0:
            v.cornerRadius = side * (chance(0.5) ? 0.5 : 0.2);
            break;
        case 1:
            v.masked = true;
            break;
        case 2:
            v.transform = {0.8, 0.6, -0.6, 0.8, 0, 0};  // a rotation
            break;
        case 3:
            v.transform = {0.5, 0, 0, 0.5, 0, 0};
            break;
        default:
            v.transform = {1, 0, 0, 1, 3, -2};
            break;
    }
}

// An opaque sheet over a redacted view's box, a little larger, or over a band of it: the case
// where occlusion removes the box, so a sheet that does not hide all of it leaks.
std::shared_ptr<View> ScreenGenerator::coverOver(const Rect& r) {
    const double grow = pick(3);
    Rect f{r.x - grow, r.y - grow, r.width + 2 * grow, r.height + 2 * grow};
    if (chance(0.4)) f.height = std::max(1.0, r.height / 2 + grow);
    std::shared_ptr<View> sheet = options_.interactive && chance(0.3) ? button(f, "OK") : view(f);
    sheet->background = colour(1);
    shape(*sheet);
    sheet->clipsToBounds = chance(0.5);
    if (chance(0.3)) sheet->alpha = 0.6;
    if (chance(0.4)) {
        auto inner = view({0, 0, f.width, f.height});
        inner->background = colour(1);
        sheet->addSubview(inner);  // drawn through the sheet's own shape
    }
    return sheet;
}

// The system draws an open menu in a window of its own, which its scene does not list, or
// sometimes in one it does; each row runs its action when activated.
void ScreenGenerator::openMenu(const Window& over, const View& button) {
    auto menuWindow = std::make_shared<Window>("_UIContextMenuContainerWindow");
    const double height = 44 * static_cast<double>(button.menu->children.size());
    menuWindow->frame = {0, 0, 200, height};
    menuWindow->screenOrigin = {over.screenOrigin.x + coord(over.frame.width / 2),
                                over.screenOrigin.y + coord(over.frame.height)};
    menuWindow->level = 2000;
    if (Scene* scene = over.scene()) {
        if (chance(0.7)) {
            scene->attachUnlisted(menuWindow);
        } else {
            scene->addWindow(menuWindow);
        }
    }
    auto panel = view({0, 0, 200, height}, rgb(0xF3F0E6));
    double y = 0;
    for (const auto& action : button.menu->children) {
        auto row = std::make_shared<View>(ViewKind::view, "_UIContextMenuCell");
        row->frame = {0, y, 200, 44};
        row->isAccessibilityElement = chance(0.6);
        row->accessibilityLabel = action->title;
        row->onActivate = [weak = std::weak_ptr<MenuNode>(action)] {
            const auto node = weak.lock();
            if (node && node->handler) node->handler();
            return node != nullptr;
        };
        auto title = label({12, 10, 176, 24}, action->title);
        title->isAccessibilityElement = chance(0.5);
        row->addSubview(title);
        panel->addSubview(row);
        y += 44;
    }
    menuWindow->addSubview(panel);
    menuWindow->show();
    windows.push_back(menuWindow);
}

// ---- InputWatch ----

namespace {

bool lockedByChain(const View& v) {
    for (const View* u = &v; u; u = u->superview()) {
        if (u->isVirelaRedacted() ||
            u->accessibilityIdentifier.find("virela-redact") != std::string::npos ||
            u->isSecureTextInput()) {
            return true;
        }
    }
    return false;
}

}  // namespace

struct InputWatch::Impl {
    struct State {
        bool isOn = false;
        double value = 0;
        long segment = -1;
        std::string text;
        bool firstResponder = false;
        std::optional<IndexPath> row;
    };
    struct Tracked {
        View* view;
        State was;
        bool guarded = false;  // protected before the input
    };
    struct TrackedElement {
        AccessibilityElement* element;
        bool guarded = false;
    };

    ScreenGenerator& screen;
    std::vector<Tracked> views;
    std::map<const View*, std::size_t> index;
    std::vector<TrackedElement> elements;
    std::vector<View*> keyInputs;
    std::map<const Window*, std::vector<Rect>> covered;
    RedactionFinder finder;
    std::string reached;

    explicit Impl(ScreenGenerator& s) : screen(s) {}

    static State stateOf(const View& v) {
        return {v.isOn, v.value, v.selectedSegment, v.text, v.firstResponder, v.selectedRow};
    }
    bool guardedView(const View* v) const {
        const auto it = index.find(v);
        return it != index.end() && views[it->second].guarded;
    }
    void note(const std::string& what, const View& v) {
        if (!reached.empty()) reached += "; ";
        reached += what + " reached " + v.typeName() + " at " + describe(v.frameInWindow());
    }
    static std::string describe(const Rect& r) {
        return "{" + std::to_string(r.x) + ", " + std::to_string(r.y) + ", " +
               std::to_string(r.width) + ", " + std::to_string(r.height) + "}";
    }
    bool overRedaction(const Window* w, const Rect& r) const {
        const auto it = covered.find(w);
        if (it == covered.end()) return false;
        return std::any_of(it->second.begin(), it->second.end(),
                           [&](const Rect& c) { return c.intersects(r); });
    }

    void track(View& v) {
        index[&v] = views.size();
        views.push_back({&v, {}, false});
        if (v.keyInput) keyInputs.push_back(&v);
        auto actions = std::move(v.onActions);
        v.onActions = [this, self = &v, actions](std::uint64_t events) {
            // Losing the focus is the one thing that may happen to a protected field.
            if (events != controlEventEditingDidEnd && guardedView(self)) {
                note("control events " + std::to_string(events), *self);
            }
            if (actions) actions(events);
        };
        auto activate = std::move(v.onActivate);
        v.onActivate = [this, self = &v, activate] {
            if (guardedView(self)) note("accessibility activation", *self);
            return activate ? activate() : false;
        };
        if (v.delegate) watchList(v);
        if (v.menu) watchMenu(*v.menu, v);
        for (const auto& e : v.accessibilityElements) {
            elements.push_back({e.get(), false});
            auto own = std::move(e->onActivate);
            e->onActivate = [this, element = e.get(), own] {
                for (const TrackedElement& t : elements) {
                    if (t.element != element || !t.guarded) continue;
                    if (const auto c = element->container.lock()) {
                        note("activation of element '" + element->label.value_or("") + "'", *c);
                    }
                }
                return own ? own() : false;
            };
        }
        for (const auto& child : v.subviews()) track(*child);
    }

    // A selection reaches the row's cell; the list only when it has no such cell.
    void selection(const View& list, IndexPath path) {
        const View* cell = nullptr;
        for (const auto& child : list.subviews()) {
            if (child->indexPath == path) cell = child.get();
        }
        if (cell ? guardedView(cell) : guardedView(&list))
            note("row selection", cell ? *cell : list);
    }

    void watchList(View& list) {
        ListDelegate& d = *list.delegate;
        auto selected = [this, self = &list](IndexPath path) { selection(*self, path); };
        if (d.willSelect) {
            d.willSelect = [selected, own = d.willSelect](IndexPath p) {
                selected(p);
                return own(p);
            };
        }
        if (d.didSelect) {
            d.didSelect = [selected, own = d.didSelect](IndexPath p) {
                selected(p);
                own(p);
            };
        }
        if (d.shouldSelect) {
            d.shouldSelect = [selected, own = d.shouldSelect](IndexPath p) {
                selected(p);
                return own(p);
            };
        }
        if (d.performPrimaryAction) {
            d.performPrimaryAction = [selected, own = d.performPrimaryAction](IndexPath p) {
                selected(p);
                own(p);
            };
        }
    }

    void watchMenu(MenuNode& node, View& button) {
        if (!node.isMenu) {
            node.handler = [this, self = &button, own = node.handler] {
                if (guardedView(self)) note("menu action", *self);
                if (own) own();
            };
            return;
        }
        for (const auto& child : node.children) {
            if (child) watchMenu(*child, button);
        }
    }
};

InputWatch::InputWatch(ScreenGenerator& screen) : impl_(std::make_unique<Impl>(screen)) {
    for (const auto& w : screen.windows) impl_->track(*w);
    // Aim at what a finger can reach: views that the hit-test at their centre lands in, and
    // every marked view, reachable or not.
    for (const Impl::Tracked& t : impl_->views) {
        View& v = *t.view;
        Window* window = v.window();
        if (v.kind() == ViewKind::window || !window) continue;
        const Rect f = v.frameInWindow();
        View* hit = window->hitTest({f.midX(), f.midY()});
        bool reachable = false;
        for (View* u = hit; u && !reachable; u = u->superview()) reachable = u == &v;
        if (!reachable && !lockedByChain(v)) continue;
        // Placed in the app window's coordinates, through the screen.
        const Window& app = *screen.windows.front();
        targets_.push_back(f.offsetBy(window->screenOrigin.x - window->boundsOrigin.x -
                                          app.screenOrigin.x + app.boundsOrigin.x,
                                      window->screenOrigin.y - window->boundsOrigin.y -
                                          app.screenOrigin.y + app.boundsOrigin.y));
    }
}

InputWatch::~InputWatch() = default;

void InputWatch::before() {
    Impl& m = *impl_;
    m.reached.clear();
    m.covered.clear();
    for (const auto& w : m.screen.windows) {
        auto& rects = m.covered[w.get()];
        const auto facts = m.screen.host->readWindow(w->handle());
        if (!facts) continue;
        for (const Redaction& r : m.finder.find(*m.screen.host, *facts)) rects.push_back(r.rect);
    }
    for (Impl::Tracked& t : m.views) {
        t.was = Impl::stateOf(*t.view);
        t.guarded =
            lockedByChain(*t.view) || m.overRedaction(t.view->window(), t.view->frameInWindow());
    }
    for (Impl::TrackedElement& t : m.elements) {
        const auto container = t.element->container.lock();
        if (!container) continue;
        const Rect base = container->frameInWindow();
        t.guarded = t.element->identifier.find("virela-redact") != std::string::npos ||
                    lockedByChain(*container) ||
                    m.overRedaction(container->window(), t.element->frame.offsetBy(base.x, base.y));
    }
}

std::string InputWatch::after() {
    Impl& m = *impl_;
    for (const Impl::Tracked& t : m.views) {
        const View& v = *t.view;
        const Impl::State now = Impl::stateOf(v);
        const bool focused = now.firstResponder && !t.was.firstResponder;
        if (v.isSecureTextInput() && (focused || now.text != t.was.text)) {
            m.note("focus or text of a secure input", v);
        }
        if (now.row != t.was.row && now.row) m.selection(v, *now.row);
        if (!t.guarded) continue;
        if (focused) m.note("the focus", v);
        if (now.isOn != t.was.isOn || now.value != t.was.value || now.segment != t.was.segment ||
            now.text != t.was.text) {
            m.note("a change of value", v);
        }
    }
    return m.reached;
}

void InputWatch::customerFocuses(std::size_t index) {
    if (impl_->keyInputs.empty()) return;
    View& v = *impl_->keyInputs[index % impl_->keyInputs.size()];
    impl_->screen.host->actions().responders->becomeFirstResponder(v.handle());
}

}  // namespace virela::headless::testing
