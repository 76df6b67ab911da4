#include "apps/demo/sample_app.hpp"

#include <cstdint>
#include <fstream>
#include <functional>
#include <vector>

#include "apps/demo/transcript.hpp"
#include "core/api/diagnostics.hpp"

namespace demo {

using namespace virela::headless;
using virela::Color;
using virela::ControllerKind;
using virela::Point;
using virela::Rect;
using virela::Size;
using virela::ViewKind;

namespace {

constexpr Size appSize{390, 844};
constexpr double barHeight = 96;
// The checkout's scroll area ends above the pinned Pay button, the toast and the keyboard, so
// that neither extra window ever lies over an element of the checkout.
constexpr Rect checkoutArea{0, barHeight, 390, 472};
constexpr Rect payFrame{16, 576, 358, 44};
constexpr Rect toastFrame{60, 624, 270, 36};
constexpr Rect keyboardFrame{0, 664, 390, 180};
constexpr double menuRowHeight = 44;

// UIKit's editing events: a text field sends them through its actions when it gains focus and
// after each change of its text.
constexpr std::uint64_t editingDidBegin = virela::controlEventEditingDidBegin;
constexpr std::uint64_t editingChanged = virela::controlEventEditingChanged;

// The kind a driver knows an interactive view by; empty for anything else.
std::string_view kindOf(const View& v) {
    switch (v.kind()) {
        case ViewKind::button:
            return v.menu && v.showsMenuAsPrimaryAction ? "menu-button" : "button";
        case ViewKind::switchControl:
            return "switch";
        case ViewKind::slider:
            return "slider";
        case ViewKind::stepper:
            return "stepper";
        case ViewKind::segmentedControl:
            return "segments";
        case ViewKind::textField:
            return v.secureTextEntry ? "secure-field" : "field";
        case ViewKind::textView:
            return "text-view";
        case ViewKind::tableCell:
        case ViewKind::collectionCell:
            return "row";
        case ViewKind::scrollView:
        case ViewKind::tableView:
        case ViewKind::collectionView:
            // A list that does not scroll is only the frame of its rows.
            return v.scrollEnabled ? "scroll" : "";
        default:
            return "";
    }
}

std::string nameOf(const View& v) {
    return v.accessibilityLabel.value_or("");
}

// Runs before the app reacts to anything: an open menu goes away when the customer (or the
// agent) does something else, as the system's menus do.
std::function<void()>& beforeEvent() {
    static std::function<void()> hook;
    return hook;
}

void event(const View& v, const std::string& what) {
    if (beforeEvent()) beforeEvent()();
    say("app: " + std::string(kindOf(v)) + " \"" + nameOf(v) + "\" " + what);
}

void printLayout(const View& v, const Window& window) {
    if (v.hidden) return;
    const auto kind = kindOf(v);
    if (!kind.empty() && !nameOf(v).empty()) {
        const Rect r = v.frameInWindow();
        say("app: layout: " + std::string(kind) + " \"" + nameOf(v) + "\" at " +
            fixed((r.x + r.width / 2) / window.frame.width, 3) + "," +
            fixed((r.y + r.height / 2) / window.frame.height, 3));
    }
    for (const auto& child : v.subviews()) printLayout(*child, window);
}

std::shared_ptr<View> findIn(const std::shared_ptr<View>& v, std::string_view label) {
    if (!v) return nullptr;
    if (v->accessibilityLabel == label) return v;
    for (const auto& child : v->subviews()) {
        if (auto found = findIn(child, label)) return found;
    }
    return nullptr;
}

// Prints what the view's own action handlers see, then runs `then` for a tapped button. The
// handler lives in the view, so it holds the view by plain pointer.
void printEvents(View& v, std::function<void()> then = {}) {
    View* self = &v;
    v.onActions = [self, then = std::move(then)](std::uint64_t events) {
        switch (self->kind()) {
            case ViewKind::button:
                if ((events & virela::controlEventTouchUpInside) == 0) return;
                event(*self, "tapped");
                if (then) then();
                return;
            case ViewKind::switchControl:
                if (events & virela::controlEventValueChanged) {
                    event(*self, self->isOn ? "on" : "off");
                }
                return;
            case ViewKind::slider:
            case ViewKind::stepper:
                if (events & virela::controlEventValueChanged) {
                    event(*self, "value " + oneDecimal(self->value));
                }
                return;
            case ViewKind::segmentedControl:
                if (events & virela::controlEventValueChanged) {
                    event(*self, "selected " + std::to_string(self->selectedSegment));
                }
                return;
            case ViewKind::textField:
            case ViewKind::textView:
                if (events & editingDidBegin) event(*self, "focused");
                if (events & editingChanged) event(*self, "text \"" + self->text + "\"");
                return;
            default:
                return;
        }
    };
}

// A caption beside a control. The control carries the name, so that looking up "Name" finds
// the field, and a touch on the caption goes to what lies under it, as on a UILabel.
std::shared_ptr<View> caption(Rect frame, std::string text, Color color = rgb(0x5E6B60)) {
    auto v = label(frame, std::move(text), color);
    v->isAccessibilityElement = false;
    v->accessibilityLabel.reset();
    v->userInteractionEnabled = false;
    return v;
}

std::shared_ptr<View> named(std::shared_ptr<View> v, std::string name) {
    v->accessibilityLabel = std::move(name);
    return v;
}

std::shared_ptr<View> field(Rect frame, std::string name, std::string text, bool secure = false) {
    auto v = named(textField(frame, std::move(text), secure), std::move(name));
    v->keyInput = true;  // UITextField adopts UIKeyInput
    printEvents(*v);
    return v;
}

std::shared_ptr<View> stepper(Rect frame, std::string name, double value, double minimum,
                              double maximum) {
    auto v = std::make_shared<View>(ViewKind::stepper, "UIStepper");
    v->frame = frame;
    v->isAccessibilityElement = true;
    v->accessibilityLabel = std::move(name);
    v->value = value;
    v->minimumValue = minimum;
    v->maximumValue = maximum;
    v->stepValue = 1;
    v->background = rgb(0xE9E5D9);
    add(*v, caption({0, 0, frame.width / 2, frame.height}, "  -", rgb(0x1C2620)));
    add(*v, caption({frame.width / 2, 0, frame.width / 2, frame.height}, "  +", rgb(0x1C2620)));
    printEvents(*v);
    return v;
}

// The bar above a screen: its title, and a back button when there is somewhere to go back to.
std::shared_ptr<View> navigationBar(const std::string& title) {
    auto bar = view({0, 0, appSize.width, barHeight}, rgb(0x0C6B57));
    add(*bar, caption({100, 52, 190, 32}, "    " + title, rgb(0xFFFFFF)));
    return bar;
}

std::string titleOf(const SampleApp& app, const ViewController& controller) {
    return &controller == app.orderDetails().get() ? "Order details" : "Checkout";
}

}  // namespace

std::shared_ptr<SampleApp> SampleApp::show(HeadlessHost& host) {
    std::shared_ptr<SampleApp> app(new SampleApp());
    app->build(host);
    app->screenShown();
    return app;
}

void SampleApp::build(HeadlessHost& host) {
    window_ = makeAppWindow(host, appSize, rgb(0xF3F0E6));

    checkout_ = std::make_shared<ViewController>("CheckoutViewController");
    checkout_->view = buildCheckout();
    orderDetails_ = std::make_shared<ViewController>("OrderDetailsViewController");
    orderDetails_->view = buildOrderDetails();
    navigation_ =
        std::make_shared<ViewController>("UINavigationController", ControllerKind::navigation);
    window_->rootViewController = navigation_;
    window_->addSubview(checkout_->view);
    navigation_->push(checkout_);
    beforeEvent() = [weak = std::weak_ptr<SampleApp>(shared_from_this())] {
        if (auto app = weak.lock(); app && !app->menu_->hidden) app->menu_->hide();
    };

    // A toast in a window of its own, above the app, only as large as the toast.
    toast_ = addWindow(*window_, 1);
    toast_->frame = toastFrame;
    toast_->screenOrigin = {toastFrame.x, toastFrame.y};
    add(*toast_, caption({0, 0, toastFrame.width, toastFrame.height}, "  Saved to your wallet",
                         rgb(0xFFFFFF)))
        ->background = rgb(0x1C2620, 0.92);

    // The system keyboard's window is never part of a capture.
    keyboard_ = addWindow(*window_, 10, "UITextEffectsWindow");
    keyboard_->frame = keyboardFrame;
    keyboard_->screenOrigin = {keyboardFrame.x, keyboardFrame.y};
    add(*keyboard_, view({0, 0, keyboardFrame.width, keyboardFrame.height}, rgb(0xD1D5DB)));

    buildMenuWindow();
}

std::shared_ptr<View> SampleApp::buildCheckout() {
    auto screen = view({0, 0, appSize.width, appSize.height});
    add(*screen, navigationBar("Checkout"));

    // Everything the customer fills in sits in the first 472 points, visible without
    // scrolling; the billing details below make the area scroll.
    auto form = add(*screen, named(scrollView(checkoutArea, {390, 900}), "Checkout"));
    View* area = form.get();
    form->onContentOffsetChange = [area](Point offset) {
        event(*area, "offset " + oneDecimal(offset.x) + "," + oneDecimal(offset.y));
    };
    auto row = [](int index) { return 8 + 40 * static_cast<double>(index); };
    auto line = [&](int index, const std::string& text) {
        add(*form, caption({16, row(index), 110, 36}, text));
    };

    line(0, "Name");
    add(*form, field({130, row(0), 244, 36}, "Name", ""));
    line(1, "Password");
    add(*form, field({130, row(1), 244, 36}, "Password", "hunter22", /*secure=*/true));
    line(2, "Card no.");
    auto number = add(*form, field({130, row(2), 244, 36}, "Card number", "4111 1111 1111 1111"));
    number->virelaRedact(std::nullopt, std::string("CARD"));
    line(3, "CVC");
    auto cvc = add(*form, field({130, row(3), 100, 36}, "Security code", "123"));
    cvc->accessibilityIdentifier = "checkout.virela-redact.cvc";
    // A button whose title the app marked, as apps mark a label that will show a secret: the
    // label takes no touches, so a finger on it presses the button.
    auto reveal = add(*form, named(button({244, row(3), 130, 36}, ""), "Reveal"));
    add(*reveal, caption({8, 4, 114, 28}, "    Reveal", rgb(0xFFFFFF)))->setVirelaRedacted(true);
    printEvents(*reveal);

    // Marked the way the SwiftUI modifier marks: a marker view drawn behind the field, its
    // sibling, not its ancestor.
    line(4, "Gift code");
    add(*form, view({130, row(4), 244, 36}))->virelaRedact(std::nullopt, std::string("GIFT"));
    add(*form, field({130, row(4), 244, 36}, "Gift code", "GC-7731-0042"));

    line(5, "Save card");
    printEvents(*add(*form, named(switchControl({322, row(5) + 2, 52, 32}, false), "Save card")));
    line(6, "Tip");
    printEvents(*add(*form, named(segmented({130, row(6) + 2, 244, 32}, 4, 0), "Tip")));
    line(7, "Amount");
    printEvents(*add(*form, named(slider({130, row(7) + 2, 244, 32}, 0, 0, 100), "Amount")));
    line(8, "Quantity");
    add(*form, stepper({274, row(8) + 2, 100, 32}, "Quantity", 1, 1, 10));

    line(9, "Delivery");
    delivery_ = add(*form, named(button({130, row(9), 244, 36}, "Standard"), "Delivery"));
    const std::weak_ptr<SampleApp> weak = weak_from_this();
    auto action = [weak](const std::string& title) {
        return [weak, title] {
            if (auto app = weak.lock()) app->choose(title);
        };
    };
    delivery_->menu =
        MenuNode::menu("", {MenuNode::action("Standard", "delivery.standard", action("Standard")),
                            MenuNode::action("Express", "delivery.express", action("Express"))});
    delivery_->showsMenuAsPrimaryAction = true;
    delivery_->hasContextMenuInteraction = true;
    delivery_->onActions = [weak](std::uint64_t events) {
        if ((events & virela::controlEventPrimaryActionTriggered) == 0) return;
        if (auto app = weak.lock()) app->openMenu();
    };

    // The list shows all its rows and leaves scrolling to the form around it.
    auto list = add(*form, std::make_shared<View>(ViewKind::tableView, "UITableView"));
    list->frame = {16, row(10), 358, 44};
    list->contentSize = {358, 44};
    list->scrollEnabled = false;
    list->clipsToBounds = true;
    list->background = rgb(0xFFFFFF);
    auto cell = add(*list, std::make_shared<View>(ViewKind::tableCell, "UITableViewCell"));
    cell->frame = {0, 0, 358, 44};
    cell->indexPath = virela::IndexPath{0, 0};
    cell->isAccessibilityElement = true;
    cell->accessibilityLabel = "Order details";
    cell->accessibilityTraits = 0x1;  // button
    add(*cell, caption({16, 4, 300, 36}, "Order details", rgb(0x1C2620)));
    add(*cell, caption({330, 4, 20, 36}, ">", rgb(0x5E6B60)));
    auto delegate = std::make_shared<ListDelegate>();
    delegate->typeName = "CheckoutViewController";
    View* table = list.get();
    View* orderRow = cell.get();
    delegate->didSelect = [weak, table, orderRow](virela::IndexPath path) {
        if (path != virela::IndexPath{0, 0}) return;
        event(*orderRow, "selected");
        table->selectedRow.reset();  // deselected as the next screen comes in
        if (auto app = weak.lock()) app->openOrderDetails();
    };
    list->delegate = std::move(delegate);

    add(*form, caption({16, 480, 358, 24}, "Billing address"));
    add(*form, caption({16, 512, 358, 24}, "Ana Demo, 1 Harbour Street", rgb(0x1C2620)));
    add(*form, caption({16, 540, 358, 24}, "Lisbon, Portugal", rgb(0x1C2620)));
    add(*form, caption({16, 840, 358, 24}, "By paying you accept the terms of sale."));

    auto pay = add(*screen, named(button(payFrame, "Pay 42.00 EUR"), "Pay"));
    printEvents(*pay);
    return screen;
}

std::shared_ptr<View> SampleApp::buildOrderDetails() {
    auto screen = view({0, 0, appSize.width, appSize.height});
    auto bar = add(*screen, navigationBar("Order details"));
    const std::weak_ptr<SampleApp> weak = weak_from_this();
    printEvents(*add(*bar, button({8, 52, 80, 32}, "Back")), [weak] {
        if (auto app = weak.lock()) app->back();
    });

    auto card = add(*screen, view({16, barHeight + 16, 358, 132}, rgb(0xFFFFFF)));
    add(*card, caption({16, 12, 326, 24}, "Linen tote x 1          38.00 EUR", rgb(0x1C2620)));
    add(*card, caption({16, 48, 326, 24}, "Delivery                 4.00 EUR", rgb(0x1C2620)));
    add(*card, caption({16, 92, 326, 24}, "Total                   42.00 EUR", rgb(0x1C2620)));
    return screen;
}

// The delivery menu, drawn in a window of its own while it is open, as the system draws a
// button's menu; its rows are menu cells that run their action when activated.
void SampleApp::buildMenuWindow() {
    menu_ = addWindow(*window_, 5);
    menu_->hide();
    const std::weak_ptr<SampleApp> weak = weak_from_this();
    const std::vector<std::string> titles{"Standard", "Express"};
    for (std::size_t i = 0; i < titles.size(); ++i) {
        auto cell = add(*menu_, std::make_shared<View>(ViewKind::view, "_UIContextMenuCell"));
        cell->frame = {0, menuRowHeight * static_cast<double>(i), 244, menuRowHeight};
        cell->background = rgb(0xFFFFFF);
        cell->isAccessibilityElement = true;
        cell->accessibilityLabel = titles[i];
        cell->onActivate = [weak, title = titles[i]] {
            auto app = weak.lock();
            if (!app || app->menu_->hidden) return false;
            app->choose(title);
            return true;
        };
        add(*cell, caption({12, 4, 220, 36}, titles[i], rgb(0x1C2620)));
    }
}

void SampleApp::openMenu() {
    if (!menu_->hidden) return;
    const Rect button = delivery_->frameInWindow();
    const double height = menuRowHeight * static_cast<double>(menu_->subviews().size());
    menu_->frame = {button.x, button.y + button.height + 4, button.width, height};
    menu_->screenOrigin = {menu_->frame.x, menu_->frame.y};
    menu_->show();
}

void SampleApp::choose(const std::string& title) {
    event(*delivery_, "chose \"" + title + "\"");
    delivery_->text = title;
    if (!menu_->hidden) menu_->hide();  // choosing an item closes the menu
}

void SampleApp::screenShown() const {
    if (!menu_->hidden) menu_->hide();
    const auto& top = navigation_->children.back();
    say("app: screen \"" + titleOf(*this, *top) + "\" shown");
    printLayout(*top->view, *window_);
}

std::shared_ptr<View> SampleApp::find(std::string_view label) const {
    if (auto found = findIn(navigation_->children.back()->view, label)) return found;
    for (const auto& controller : {checkout_, orderDetails_}) {
        if (auto found = findIn(controller->view, label)) return found;
    }
    // The delivery menu's rows, while it is open.
    if (!menu_->hidden) return findIn(menu_, label);
    return nullptr;
}

void SampleApp::openOrderDetails() {
    if (navigation_->children.back() == orderDetails_) return;
    navigation_->push(orderDetails_);
    screenShown();
}

bool SampleApp::back() {
    if (!navigation_->pop()) return false;
    screenShown();
    return true;
}

std::shared_ptr<SampleApp> showAndCaptureSampleApp(Runtime& runtime,
                                                   const std::filesystem::path& outDir) {
    return runtime.runOnMain([&] {
        auto app = SampleApp::show(*runtime.host());
        const auto path = outDir / "live-frame.jpg";
        try {
            const auto shot = virela::VirelaDiagnostics::captureScreen(/*live=*/true);
            std::ofstream file(path, std::ios::binary);
            file.write(reinterpret_cast<const char*>(shot.bytes.data()),
                       static_cast<std::streamsize>(shot.bytes.size()));
            if (file) {
                say("app: live frame with " + std::to_string(shot.redactionBoxes) +
                    " redaction boxes written to " + path.string() + " (" +
                    std::to_string(shot.bytes.size()) + " bytes)");
            } else {
                say("app: could not write " + path.string());
            }
        } catch (...) {
            say("app: capture failed: " + failureText(std::current_exception()));
        }
        return app;
    });
}

}  // namespace demo
