// Arbitrary bytes as a sequence of remote inputs (taps, scrolls, text, keys, and the customer
// focusing a field) on a fixed headless screen: whatever the agent sends, no redacted view and
// no secure field may change its value, text, focus or selection, receive a control event, or
// be activated. Aborts on the first input that breaks that.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/control/input_engine.hpp"
#include "core/control/windows.hpp"
#include "platform/headless/host/builder.hpp"

namespace {

using namespace virela;
using namespace virela::headless;

class Bytes {
  public:
    Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    std::uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }

    // A fraction of the window: mostly on screen, sometimes missing, far outside or not a number.
    std::optional<double> fraction() {
        const std::uint8_t kind = next();
        const double raw = (next() << 8 | next()) / 65535.0;
        switch (kind % 16) {
            case 0:
                return std::nullopt;
            case 1:
                return std::numeric_limits<double>::quiet_NaN();
            case 2:
                return kind & 0x80 ? std::numeric_limits<double>::infinity() : -1e308;
            case 3:
                return raw * 40 - 20;
            default:
                return raw * 1.2 - 0.1;
        }
    }
    std::string text() {
        std::string out(next() % 24, '\0');
        for (char& c : out) c = static_cast<char>(next());
        return out;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

// Whether any locked view was touched: set by their own handlers.
bool touched = false;

struct Screen {
    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    WindowRegistry registry{host};
    std::shared_ptr<Window> window = makeAppWindow(*host, {390, 844});
    std::vector<std::shared_ptr<View>> locked;  // every view that must never change
    std::vector<std::shared_ptr<View>> fields;  // what the customer may focus by hand

    struct State {
        bool isOn, firstResponder;
        double value;
        long segment;
        std::string text;
        std::optional<IndexPath> row;
    };
    std::vector<State> before;

    template <class V>
    std::shared_ptr<V> lock(std::shared_ptr<V> v) {
        v->onActions = [](std::uint64_t) { touched = true; };
        v->onActivate = [] { return touched = true; };
        locked.push_back(v);
        return v;
    }

    Screen() {
        // What may be operated.
        add(*window, switchControl({20, 60, 51, 31}, false));
        add(*window, slider({100, 60, 200, 30}, 0.5));
        fields.push_back(add(*window, textField({20, 110, 350, 40}, "name")));
        fields.push_back(add(*window, textView({20, 160, 350, 80}, "notes")));
        auto menuButton = add(*window, button({300, 250, 70, 40}, "More"));
        menuButton->menu = MenuNode::menu("", {MenuNode::action("Copy", "copy")});
        menuButton->showsMenuAsPrimaryAction = true;
        auto scroller = add(*window, scrollView({0, 300, 390, 200}, {390, 900}));
        scroller->contentInset = {.top = 20, .bottom = 20};
        add(*scroller, segmented({20, 20, 300, 30}, 3, 0));
        auto row = add(*scroller, std::make_shared<View>(ViewKind::view, "_UIContextMenuCell"));
        row->frame = {20, 100, 200, 44};
        add(*row, label({10, 10, 150, 24}, "Copy"))->isAccessibilityElement = false;
        auto list = add(*window, std::make_shared<View>(ViewKind::tableView));
        list->frame = {0, 250, 290, 50};
        auto cell = add(*list, std::make_shared<View>(ViewKind::tableCell));
        cell->frame = {0, 0, 290, 50};
        cell->indexPath = IndexPath{0, 0};

        // What may not: a redacted card with controls, a list and elements inside it.
        auto card = add(*window, view({0, 500, 390, 200}, rgb(0xFFFFFF)));
        card->setVirelaRedacted(true);
        locked.push_back(card);
        lock(add(*card, switchControl({20, 10, 51, 31}, true)));
        lock(add(*card, slider({100, 10, 200, 30}, 0.25)));
        fields.push_back(lock(add(*card, textField({20, 50, 350, 40}, "4111 1111"))));
        auto table = lock(add(*card, std::make_shared<View>(ViewKind::tableView)));
        table->frame = {0, 100, 390, 100};
        table->delegate = std::make_shared<ListDelegate>();
        table->delegate->willSelect = [](IndexPath p) {
            touched = true;
            return std::optional<IndexPath>(p);
        };
        auto lockedCell = lock(add(*table, std::make_shared<View>(ViewKind::tableCell)));
        lockedCell->frame = {0, 0, 390, 50};
        lockedCell->indexPath = IndexPath{0, 0};
        auto chart = lock(add(*card, view({200, 50, 190, 50})));
        chart->accessibilityElementsPresent = true;
        auto element = std::make_shared<AccessibilityElement>();
        element->frame = {0, 0, 190, 50};
        element->container = chart;
        element->onActivate = [] { return touched = true; };
        chart->accessibilityElements.push_back(element);

        // A secure field, a control named for redaction, and a redacted element in plain view.
        fields.push_back(lock(add(*window, textField({20, 710, 350, 40}, "hunter2", true))));
        lock(add(*window, stepperLike({20, 760, 100, 30})))->accessibilityIdentifier =
            "pay.virela-redact.count";
        auto plain = add(*window, view({150, 760, 220, 60}));
        plain->accessibilityElementsPresent = true;
        auto named = std::make_shared<AccessibilityElement>();
        named->frame = {0, 0, 220, 60};
        named->identifier = "virela-redact-pin";
        named->container = plain;
        named->onActivate = [] { return touched = true; };
        plain->accessibilityElements.push_back(named);

        for (const auto& v : locked) {
            before.push_back({v->isOn, v->firstResponder, v->value, v->selectedSegment, v->text,
                              v->selectedRow});
        }
    }

    static std::shared_ptr<View> stepperLike(Rect frame) {
        auto v = std::make_shared<View>(ViewKind::stepper);
        v->frame = frame;
        v->isAccessibilityElement = true;
        v->maximumValue = 10;
        return v;
    }

    // Focus may leave a locked field (the customer's own tap elsewhere does that); it may never
    // arrive, and nothing else may change.
    bool intact() {
        for (std::size_t i = 0; i < locked.size(); ++i) {
            const View& v = *locked[i];
            State& was = before[i];
            if (v.isOn != was.isOn || v.value != was.value || v.selectedSegment != was.segment ||
                v.text != was.text || v.selectedRow != was.row ||
                (v.firstResponder && !was.firstResponder)) {
                return false;
            }
            was.firstResponder = v.firstResponder;
        }
        return !touched;
    }
    void customerFocuses(std::size_t index) {
        View& field = *fields[index % fields.size()];
        host->becomeFirstResponder(field.handle());
        // The field's own editing events are the customer's doing, not the agent's.
        touched = false;
        for (std::size_t i = 0; i < locked.size(); ++i) {
            before[i].firstResponder = locked[i]->firstResponder;
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    touched = false;
    Screen screen;
    InputEngine engine{{screen.host, screen.host, nullptr}, screen.registry};
    const WindowFacts target = *screen.host->readWindow(screen.window->handle());
    static const char* const keys[] = {"backspace", "enter", "BACKSPACE", ""};
    Bytes in(data, size);
    for (int step = 0; step < 64 && !in.empty(); ++step) {
        ControlInputPush input{.sessionId = "s"};
        switch (in.next() % 6) {
            case 0:
                input.action = "tap";
                input.x = in.fraction();
                input.y = in.fraction();
                break;
            case 1:
                input.action = "scroll";
                input.x = in.fraction();
                input.y = in.fraction();
                input.dx = in.fraction();
                input.dy = in.fraction();
                break;
            case 2:
                input.action = "type";
                input.text = in.text();
                break;
            case 3:
                input.action = "key";
                input.key = keys[in.next() % 4];
                break;
            case 4:
                input.action = in.text();
                break;
            default:
                screen.customerFocuses(in.next());
                continue;
        }
        engine.route(input, target);
        if (!screen.intact()) {
            std::fprintf(stderr, "input %d (%s) changed a locked view\n", step,
                         input.action.c_str());
            std::abort();
        }
    }
    return 0;
}
