// Remote taps, scrolls, text and keys on a headless screen: which mechanism acts, what it does
// to the app, and what it refuses.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "core/control/input_engine.hpp"
#include "core/control/windows.hpp"
#include "platform/headless/host/builder.hpp"
#include "support/fake_platform.hpp"

namespace virela::headless {
namespace {

constexpr double W = 390, H = 844;

class Input : public ::testing::Test {
  protected:
    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    WindowRegistry registry{host};
    std::shared_ptr<testing::RecordingLog> log = std::make_shared<testing::RecordingLog>();
    InputEngine engine{{host, host->actions(), log}, registry};
    std::shared_ptr<Window> app = makeAppWindow(*host, {W, H});
    std::vector<std::uint64_t> events;

    WindowFacts target() { return *host->readWindow(app->handle()); }
    ControlOutcome send(ControlInputPush input) { return engine.route(input, target()); }
    // A tap at a point of the window, in points.
    ControlOutcome tapAt(double px, double py) {
        return send({.action = "tap", .x = px / W, .y = py / H});
    }
    std::shared_ptr<View> recording(std::shared_ptr<View> v) {
        v->onActions = [this](std::uint64_t e) { events.push_back(e); };
        return v;
    }
    bool logged(LogLevel level, const std::string& line) const {
        for (const auto& [l, text] : log->lines) {
            if (l == level && text == line) return true;
        }
        return false;
    }
    bool loggedPrefix(LogLevel level, const std::string& start) const {
        for (const auto& [l, text] : log->lines) {
            if (l == level && text.rfind(start, 0) == 0) return true;
        }
        return false;
    }
};

std::shared_ptr<View> stepper(Rect frame, double value, double minimum, double maximum) {
    auto v = std::make_shared<View>(ViewKind::stepper);
    v->frame = frame;
    v->isAccessibilityElement = true;
    v->value = value;
    v->minimumValue = minimum;
    v->maximumValue = maximum;
    return v;
}

TEST_F(Input, ControlsAreOperatedAsAFingerWould) {
    auto toggle = recording(add(*app, switchControl({20, 100, 51, 31}, false)));
    auto volume = recording(add(*app, slider({20, 200, 200, 30}, 0.1, 0, 10)));
    auto count = recording(add(*app, stepper({20, 300, 100, 30}, 1, 0, 3)));
    auto tabs = recording(add(*app, segmented({20, 400, 200, 30}, 4, 0)));
    auto buy = recording(add(*app, button({20, 500, 100, 44}, "Buy")));

    EXPECT_EQ(tapAt(30, 110), ControlOutcome::none);
    EXPECT_TRUE(toggle->isOn);
    EXPECT_EQ(events, (std::vector<std::uint64_t>{controlEventValueChanged}));
    EXPECT_TRUE(logged(LogLevel::debug, "tap handled by UIControl actuate UISwitch"));

    tapAt(20 + 150, 210);  // three quarters along the track
    EXPECT_DOUBLE_EQ(volume->value, 7.5);
    events.clear();
    tapAt(20 + 150, 210);  // the same value again: nothing set, no event
    EXPECT_TRUE(events.empty());

    tapAt(100, 310);  // right half steps up, to the maximum and no further
    tapAt(100, 310);
    tapAt(100, 310);
    EXPECT_DOUBLE_EQ(count->value, 3);
    count->wraps = true;
    tapAt(100, 310);  // past the maximum wraps to the minimum
    EXPECT_DOUBLE_EQ(count->value, 0);
    tapAt(30, 310);  // left half steps down, wrapping to the maximum
    EXPECT_DOUBLE_EQ(count->value, 3);

    tapAt(20 + 0.99 * 200, 410);
    EXPECT_EQ(tabs->selectedSegment, 3);

    // A button also hears its primary action, as buttons built around one expect.
    events.clear();
    EXPECT_EQ(tapAt(50, 520), ControlOutcome::none);
    EXPECT_EQ(events, (std::vector<std::uint64_t>{controlEventTouchUpInside |
                                                  controlEventPrimaryActionTriggered}));

    events.clear();
    buy->enabled = false;  // a disabled control is not operated
    tapAt(50, 520);
    EXPECT_TRUE(events.empty());
}

TEST_F(Input, ButtonMenusOpenAndMenuRowsRunTheirOneAction) {
    int renamed = 0, deletedA = 0, deletedB = 0;
    auto rename = MenuNode::action("Rename", "rename", [&] { ++renamed; });
    auto more = recording(add(*app, button({300, 40, 60, 44}, "More")));
    more->menu = MenuNode::menu("", {MenuNode::menu("Edit", {rename}),
                                     MenuNode::action("Delete", "delete.a", [&] { ++deletedA; })});
    more->showsMenuAsPrimaryAction = true;
    auto other = add(*app, button({300, 100, 60, 44}, "Other"));
    other->menu =
        MenuNode::menu("", {rename, MenuNode::action("Delete", "delete.b", [&] { ++deletedB; })});
    other->hasContextMenuInteraction = true;

    EXPECT_EQ(tapAt(320, 60), ControlOutcome::menuOpened);
    EXPECT_EQ(events, (std::vector<std::uint64_t>{controlEventPrimaryActionTriggered}));

    // The open menu's rows, drawn in the app's window; their labels are not elements.
    auto row = [&](double y, const std::string& title) {
        auto cell = add(*app, std::make_shared<View>(ViewKind::view, "_UIContextMenuCell"));
        cell->frame = {200, y, 180, 44};
        auto text = add(*cell, label({16, 12, 120, 20}, title));
        text->isAccessibilityElement = false;
    };
    row(200, "Rename");
    row(244, "Delete");

    // One action reachable from two buttons is one action: it runs once, and menus close.
    EXPECT_EQ(tapAt(250, 220), ControlOutcome::none);
    EXPECT_EQ(renamed, 1);
    EXPECT_EQ(other->contextMenuDismissals, 1);
    EXPECT_TRUE(logged(LogLevel::debug, "menu item 'Rename' run via its own UIAction"));

    // Two different actions titled Delete: neither runs.
    tapAt(250, 260);
    EXPECT_EQ(deletedA + deletedB, 0);
    EXPECT_TRUE(logged(LogLevel::error,
                       "menu item 'Delete' is ambiguous (2 distinct actions) — refusing to guess"));

    tapAt(100, 230);  // beside the menu
    EXPECT_TRUE(loggedPrefix(LogLevel::debug,
                             "menu cells present but point (100.0, 230.0) is in "
                             "none: {200.0, 200.0, 180.0, 44.0}"));
}

TEST_F(Input, AMenuCountsAsOpenedOnlyWhenItOpened) {
    auto more = recording(add(*app, button({300, 40, 60, 44}, "More")));
    more->menu = MenuNode::menu("", {MenuNode::action("Rename", "rename")});
    more->showsMenuAsPrimaryAction = true;
    int activations = 0;
    more->onActivate = [&] { return ++activations > 1; };  // refuses the first time

    // Where the platform cannot open a button's menu from code, activation is tried instead,
    // and a tap that fires nothing tells the agent the menu could not be run.
    host->platformMajorVersion = 13;
    EXPECT_EQ(tapAt(320, 60), ControlOutcome::menuItemInert);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(loggedPrefix(LogLevel::error, "tap fired nothing: UIButton in UIWindow"));
    EXPECT_FALSE(logged(LogLevel::debug, "tap handled by UIControl actuate UIButton"));
    EXPECT_EQ(tapAt(320, 60), ControlOutcome::none);
    EXPECT_TRUE(logged(LogLevel::debug, "tap handled by accessibility activation"));
}

TEST_F(Input, ListRowsAreSelectedThroughDelegatesThatMayVeto) {
    auto table = add(*app, std::make_shared<View>(ViewKind::tableView));
    table->frame = {0, 0, W, 400};
    std::vector<IndexPath> didSelect;
    table->delegate = std::make_shared<ListDelegate>();
    table->delegate->willSelect = [](IndexPath p) -> std::optional<IndexPath> {
        if (p.item == 1) return std::nullopt;  // row 1 is not selectable
        if (p.item == 2) return IndexPath{0, 3};
        return p;
    };
    table->delegate->didSelect = [&](IndexPath p) { didSelect.push_back(p); };
    int labelActivations = 0;
    for (long i = 0; i < 3; ++i) {
        auto cell = add(*table, std::make_shared<View>(ViewKind::tableCell));
        cell->frame = {0, 50.0 * static_cast<double>(i), W, 50};
        cell->indexPath = IndexPath{0, i};
        auto title = add(*cell, label({16, 10, 200, 30}, "Row"));
        title->onActivate = [&] { return ++labelActivations > 0; };
    }

    tapAt(50, 25);
    EXPECT_EQ(table->selectedRow, (IndexPath{0, 0}));
    EXPECT_EQ(labelActivations, 0);  // the row is selected, its label is not also activated
    table->selectedRow.reset();
    tapAt(50, 75);  // vetoed
    EXPECT_FALSE(table->selectedRow);
    tapAt(50, 125);  // redirected
    EXPECT_EQ(table->selectedRow, (IndexPath{0, 3}));
    EXPECT_EQ(didSelect, (std::vector<IndexPath>{{0, 0}, {0, 3}}));

    // A collection whose delegate refuses selection.
    auto grid = add(*app, std::make_shared<View>(ViewKind::collectionView));
    grid->frame = {0, 400, W, 200};
    grid->delegate = std::make_shared<ListDelegate>(ListDelegate{.typeName = "Gallery"});
    grid->delegate->shouldSelect = [](IndexPath) { return false; };
    auto tile = add(*grid, std::make_shared<View>(ViewKind::collectionCell, "PhotoCell"));
    tile->frame = {0, 0, 100, 100};
    tile->indexPath = IndexPath{0, 0};
    EXPECT_EQ(tapAt(50, 450), ControlOutcome::none);
    EXPECT_FALSE(grid->selectedRow);
    EXPECT_TRUE(logged(LogLevel::debug,
                       "list-cell candidate: cell PhotoCell in UICollectionView delegate Gallery"));

    // The system's menu list: its rows run through the primary action from version 16 only.
    int ran = 0;
    grid->delegate->typeName = "_UIContextMenuListDelegate";
    grid->delegate->performPrimaryAction = [&](IndexPath) { ++ran; };
    EXPECT_EQ(tapAt(50, 450), ControlOutcome::none);
    EXPECT_EQ(ran, 1);
    host->platformMajorVersion = 15;
    EXPECT_EQ(tapAt(50, 450), ControlOutcome::menuItemInert);
    EXPECT_EQ(ran, 1);
}

TEST_F(Input, AccessibilityElementsAreActivatedSmallestFirst) {
    auto chart = add(*app, view({0, 100, W, 300}));
    std::vector<std::string> asked;
    auto element = [&](Rect frame, std::string name, bool accepts) {
        auto e = std::make_shared<AccessibilityElement>();
        e->frame = frame;
        e->container = chart;
        e->onActivate = [&asked, name, accepts] {
            asked.push_back(name);
            return accepts;
        };
        chart->accessibilityElements.push_back(e);
        return e;
    };
    chart->accessibilityElementsPresent = true;
    element({0, 0, 300, 300}, "large", true);
    auto small = element({50, 50, 40, 40}, "small", false);
    element({0, 0, 10, 10}, "elsewhere", true);

    EXPECT_EQ(tapAt(60, 160), ControlOutcome::none);
    EXPECT_EQ(asked, (std::vector<std::string>{"small", "large"}));
    EXPECT_TRUE(logged(LogLevel::debug, "tap handled by virtual accessibility element"));

    small->traits = 0x10000000000ULL;  // opens a menu
    asked.clear();
    EXPECT_EQ(tapAt(60, 160), ControlOutcome::menuOpened);
}

TEST_F(Input, LockedViewsAreNeverOperatedByAnyMechanism) {
    auto card = add(*app, view({0, 100, W, 200}));
    card->setVirelaRedacted(true);
    auto toggle = recording(add(*card, switchControl({20, 20, 51, 31}, false)));
    toggle->onActivate = [] { return true; };
    auto password = add(*app, textField({20, 400, 300, 44}, "hunter2", true));
    auto pin = recording(add(*app, button({20, 500, 100, 44}, "PIN")));
    pin->accessibilityIdentifier = "form.virela-redact.pin";

    for (const Point p : {Point{30, 130}, Point{40, 420}, Point{40, 520}}) {
        log->lines.clear();
        EXPECT_EQ(tapAt(p.x, p.y), ControlOutcome::none);
        EXPECT_TRUE(logged(LogLevel::info,
                           "tap ignored: locked target (redacted or secure field) — by design"));
    }
    EXPECT_FALSE(toggle->isOn);
    EXPECT_FALSE(password->firstResponder);
    EXPECT_TRUE(events.empty());

    // Elements under an unlocked hit view: one redacted by name, one inside a locked view.
    auto cover = add(*app, view({0, 600, W, 200}));
    int activated = 0;
    for (const auto& [name, container] : {std::pair{"virela-redact", cover}, {"", card}}) {
        auto e = std::make_shared<AccessibilityElement>();
        e->frame = {0, 600 - container->frame.y, 100, 100};
        e->identifier = name;
        e->container = container;
        e->onActivate = [&] { return ++activated > 0; };
        cover->accessibilityElements.push_back(e);
    }
    cover->accessibilityElementsPresent = true;
    tapAt(50, 650);
    EXPECT_EQ(activated, 0);
    EXPECT_TRUE(logged(LogLevel::error,
                       "tap fired nothing: UIView in UIWindow — 2 element(s) under the point but "
                       "every accessibilityActivate() was refused"));
}

// Apps mark sensitive views in ways that a look at the view and its superviews misses: what
// the customer sees covered is locked for input too.
TEST_F(Input, WhatTheCaptureCoversIsLockedWhereverTheMarkSits) {
    const std::string locked = "tap ignored: locked target (redacted or secure field) — by design";
    auto name = add(*app, textField({20, 40, 300, 40}, "Ada"));
    // SwiftUI's marker: a plain view behind the field, its sibling.
    add(*app, view({20, 100, 300, 40}))->virelaRedact();
    auto gift = recording(add(*app, textField({20, 100, 300, 40}, "GC-1")));
    // A button whose marked title label takes no touches, so the tap lands on the button.
    auto reveal = recording(add(*app, button({20, 160, 200, 44}, "")));
    add(*reveal, label({20, 8, 100, 28}, "Reveal"))->setVirelaRedacted(true);
    // A SwiftUI button: an element of its hosting view, with the marker behind it.
    add(*app, view({20, 220, 100, 60}))->setVirelaRedacted(true);
    auto hosting = add(*app, view({20, 220, 300, 60}));
    hosting->accessibilityElementsPresent = true;
    auto swiftButton = std::make_shared<AccessibilityElement>();
    swiftButton->frame = {0, 0, 150, 60};
    swiftButton->container = hosting;
    int activated = 0;
    swiftButton->onActivate = [&] { return ++activated > 0; };
    hosting->accessibilityElements.push_back(swiftButton);

    tapAt(30, 60);
    ASSERT_TRUE(name->firstResponder);
    for (const Point p : {Point{40, 120}, Point{60, 180}, Point{210, 170}, Point{50, 250}}) {
        log->lines.clear();
        EXPECT_EQ(tapAt(p.x, p.y), ControlOutcome::none);
        EXPECT_TRUE(logged(LogLevel::info, locked)) << p.x << "," << p.y;
    }
    tapAt(140, 250);  // beside the marker, but the element reaches under it
    EXPECT_FALSE(gift->firstResponder);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(activated, 0);
    // The refused tap ended the focus: the text meant for the gift code reaches no field.
    EXPECT_FALSE(name->firstResponder);
    send({.action = "type", .text = "1234"});
    EXPECT_EQ(name->text, "Ada");
    EXPECT_EQ(gift->text, "GC-1");
    // Focused by the customer, the field still takes no remote text.
    host->actions().responders->becomeFirstResponder(gift->handle());
    send({.action = "type", .text = "1234"});
    send({.action = "key", .key = "backspace"});
    EXPECT_EQ(gift->text, "GC-1");

    // An opaque sheet over a redaction hides it from the picture and from input alike.
    auto hidden = add(*app, view({20, 300, 300, 40}));
    hidden->setVirelaRedacted(true);
    auto sheet = add(*app, view({0, 290, W, 60}, Color{1, 1, 1, 1}));
    auto ok = recording(add(*sheet, button({20, 10, 300, 40}, "OK")));
    events.clear();
    tapAt(40, 320);
    EXPECT_EQ(events.size(), 1u);
}

TEST_F(Input, ALockedButtonsMenuStaysTheCustomers) {
    int copied = 0;
    auto secret = add(*app, button({20, 40, 100, 44}, "Secret"));
    secret->menu = MenuNode::menu("", {MenuNode::action("Copy", "copy", [&] { ++copied; })});
    secret->showsMenuAsPrimaryAction = true;
    secret->setVirelaRedacted(true);

    // The customer opened it; its rows sit in the system's own window.
    auto menu = std::make_shared<Window>("_UIContextMenuWindow");
    menu->frame = app->frame;
    menu->level = 2000;
    app->scene()->attachUnlisted(menu);
    menu->show();
    auto row = add(*menu, label({0, 400, W, 50}, "Copy"));
    row->userInteractionEnabled = true;
    row->onActivate = [&] { return ++copied > 0; };
    EXPECT_EQ(tapAt(10, 410), ControlOutcome::none);
    EXPECT_TRUE(logged(LogLevel::info,
                       "tap ignored: locked target (redacted or secure field) — by design"));

    // Drawn in the app's window, the row is refused by the menu rung just the same.
    menu->hide();
    auto cell = add(*app, std::make_shared<View>(ViewKind::view, "_UIContextMenuCell"));
    cell->frame = {0, 600, W, 50};
    add(*cell, label({16, 12, 120, 20}, "Copy"))->isAccessibilityElement = false;
    EXPECT_EQ(tapAt(10, 620), ControlOutcome::none);
    EXPECT_EQ(copied, 0);
}

TEST_F(Input, WalksThatDoNotEndCountAsLocked) {
    // A view never becomes its own descendant.
    auto outer = add(*app, view({0, 0, W, 100}));
    auto inner = add(*outer, view({0, 0, W, 100}));
    inner->addSubview(outer);
    EXPECT_EQ(outer->superview(), app.get());

    // Deeper than any real screen: nothing in it is operated.
    View* parent = app.get();
    for (int i = 0; i < 1100; ++i) parent = add(*parent, view({0, 0, W, H})).get();
    auto deep = recording(add(*parent, button({0, 200, W, 50}, "Deep")));
    EXPECT_EQ(tapAt(10, 210), ControlOutcome::none);
    EXPECT_TRUE(logged(LogLevel::info,
                       "tap ignored: locked target (redacted or secure field) — by design"));
    EXPECT_TRUE(events.empty());
}

TEST_F(Input, AnyTextInputThatHidesItsTextIsLocked) {
    auto pin = add(*app, std::make_shared<View>(ViewKind::view, "PinPadView"));
    pin->frame = {20, 100, 300, 60};
    pin->keyInput = true;
    pin->secureTextEntry = true;
    auto notes = add(*app, textView({20, 200, 300, 100}, ""));
    notes->secureTextEntry = true;

    tapAt(30, 120);
    tapAt(30, 220);
    EXPECT_FALSE(pin->firstResponder);
    EXPECT_FALSE(notes->firstResponder);
    host->actions().responders->becomeFirstResponder(pin->handle());  // the customer's own tap
    send({.action = "type", .text = "4321"});
    EXPECT_EQ(pin->text, "");
}

TEST_F(Input, TapsThatActOnNothingSayWhy) {
    add(*app, view({0, 0, W, H}));
    EXPECT_EQ(tapAt(100, 100), ControlOutcome::none);
    EXPECT_TRUE(logged(LogLevel::debug, "tap hit UIView in UIWindow (root VC nil)"));
    EXPECT_TRUE(loggedPrefix(LogLevel::error,
                             "tap fired nothing: UIView in UIWindow — no accessibility element "
                             "under the point — a .onTapGesture-only view"));

    EXPECT_EQ(send({.action = "tap", .x = 5.0, .y = 0.5}), ControlOutcome::none);
    EXPECT_TRUE(logged(LogLevel::error,
                       "tap at (5.00, 0.50) fired nothing: no window claimed the hit-test"));
    EXPECT_EQ(send({.action = "tap", .x = std::numeric_limits<double>::quiet_NaN()}),
              ControlOutcome::none);
    EXPECT_TRUE(logged(LogLevel::error,
                       "tap at (nan, 0.00) fired nothing: no window claimed the hit-test"));

    // A system menu window that its scene does not list: activation only.
    auto menu = std::make_shared<Window>("_UIContextMenuWindow");
    menu->frame = app->frame;
    menu->level = 2000;
    app->scene()->attachUnlisted(menu);
    menu->show();
    auto item = add(*menu, label({0, 0, W, 50}, "Share"));
    EXPECT_EQ(tapAt(10, 10), ControlOutcome::menuItemInert);
    EXPECT_TRUE(logged(LogLevel::error,
                       "tap on OS chrome (_UIContextMenuWindow) fired nothing — no activation"));
    item->onActivate = [] { return true; };
    EXPECT_EQ(tapAt(10, 10), ControlOutcome::none);

    // A missing coordinate counts as 0: this tap lands on the menu's top-left corner too.
    item->accessibilityTraits = 0x10000000000ULL;
    EXPECT_EQ(send({.action = "tap"}), ControlOutcome::menuOpened);
    log->lines.clear();
    EXPECT_EQ(send({.action = "Tap", .x = 0.1, .y = 0.1}), ControlOutcome::none);  // unknown
    EXPECT_TRUE(log->lines.empty());
}

TEST_F(Input, TextGoesToTheFocusedFieldButNeverIntoASecureOne) {
    auto name = add(*app, textField({20, 100, 300, 44}, "Ada"));
    auto password = add(*app, textField({20, 200, 300, 44}, "", true));
    auto notes = add(*app, textView({20, 300, 300, 200}, "one"));

    tapAt(30, 120);
    EXPECT_TRUE(name->firstResponder);
    send({.action = "type", .text = " Lovelace"});
    send({.action = "key", .key = "backspace"});
    send({.action = "key", .key = "BACKSPACE"});  // key names are case-sensitive
    EXPECT_EQ(name->text, "Ada Lovelac");
    const std::string megabyte(1 << 20, 'x');
    send({.action = "type", .text = megabyte});
    EXPECT_EQ(name->text.size(), 11u + megabyte.size());

    name->firstResponder = false;
    password->firstResponder = true;  // focused by the customer
    send({.action = "type", .text = "secret"});
    send({.action = "key", .key = "enter"});
    EXPECT_EQ(password->text, "");
    EXPECT_TRUE(password->firstResponder);

    password->firstResponder = false;
    tapAt(30, 320);
    send({.action = "key", .key = "enter"});  // ends editing, adds no line
    EXPECT_FALSE(notes->firstResponder);
    EXPECT_EQ(notes->text, "one");
}

TEST_F(Input, ScrollsAreClampedToContentAndInsets) {
    auto list = add(*app, scrollView({0, 0, W, H}, {W, 2000}));
    list->contentInset = {.top = 100, .bottom = 34};
    auto small = add(*app, scrollView({0, 700, W, 100}, {W, 50}));
    auto row = add(*list, view({0, 0, W, 60}));

    send({.action = "scroll", .dy = 10.0});  // centre of the window, far past the end
    EXPECT_EQ(list->boundsOrigin, (Point{0, 2000 - H + 34}));
    send({.action = "scroll", .dy = -10.0});
    EXPECT_EQ(list->boundsOrigin, (Point{0, -100}));
    send({.action = "scroll", .dx = std::numeric_limits<double>::infinity()});
    EXPECT_EQ(list->boundsOrigin, (Point{0, -100}));

    // Found by hit-test, a scroll view whose content is smaller still takes the scroll.
    small->boundsOrigin = {0, 5};
    send({.action = "scroll", .x = 0.5, .y = 750 / H, .dy = 0.2});
    EXPECT_EQ(small->boundsOrigin, (Point{0, 0}));

    // Nothing scrollable under the point: the largest overflowing scroll view takes it.
    list->userInteractionEnabled = false;
    send({.action = "scroll", .x = 0.5, .y = 0.3, .dy = 50 / H});
    EXPECT_EQ(list->boundsOrigin, (Point{0, -50}));

    // A scroll moves content, but never starts on a redaction.
    list->userInteractionEnabled = true;
    row->setVirelaRedacted(true);
    send({.action = "scroll", .x = 0.5, .y = 80 / H, .dy = 0.1});  // the row sits at 50..110
    EXPECT_EQ(list->boundsOrigin, (Point{0, -50}));
    send({.action = "scroll", .x = 0.5, .y = 0.3, .dy = 10 / H});
    EXPECT_EQ(list->boundsOrigin, (Point{0, -40}));
    list->setVirelaRedacted(true);
    send({.action = "scroll", .x = 0.5, .y = 0.3, .dy = 0.1});
    EXPECT_EQ(list->boundsOrigin, (Point{0, -40}));
}

TEST_F(Input, AScrollGoesToTheFirstWindowWithAScrollViewUnderThePoint) {
    auto largest = add(*app, scrollView({0, 0, W, 290}, {W, 2000}));
    auto under = add(*app, scrollView({0, 300, W, 200}, {W, 1000}));
    // A banner window in front claims the point but has nothing to scroll.
    auto banner = addWindow(*app, 1);
    add(*banner, view({0, 0, W, H}));
    send({.action = "scroll", .dy = 100 / H});
    EXPECT_EQ(under->boundsOrigin, (Point{0, 100}));
    EXPECT_EQ(largest->boundsOrigin, (Point{0, 0}));
}

}  // namespace
}  // namespace virela::headless
