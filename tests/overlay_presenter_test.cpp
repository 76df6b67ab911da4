// The live overlay drawn on the headless screen: core's LiveOverlay over the headless presenter,
// the customer's drags and navigation that wipe the marks, and what capture and the customer
// each see of it.

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/capture/capture.hpp"
#include "core/live/live_overlay.hpp"
#include "core/ports/manual_clock.hpp"
#include "core/ports/palette.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/overlay_presenter.hpp"
#include "platform/headless/render/customer_view.hpp"
#include "platform/headless/render/renderer.hpp"
#include "platform/headless/runtime.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela::headless {
namespace {

View* findTitled(View& v, std::string_view title) {
    if (v.kind() == ViewKind::button && v.text == title) return &v;
    for (const auto& child : v.subviews()) {
        if (View* found = findTitled(*child, title)) return found;
    }
    return nullptr;
}

View* findId(View& v, std::string_view identifier) {
    if (v.accessibilityIdentifier == identifier) return &v;
    for (const auto& child : v.subviews()) {
        if (View* found = findId(*child, identifier)) return found;
    }
    return nullptr;
}

Rgba8 pixel(const Image& image, int x, int y) {
    const std::uint8_t* p = image.at(x, y);
    return {p[0], p[1], p[2], p[3]};
}

GuidePush guide(std::string kind, double x, double y) {
    GuidePush push;
    push.kind = std::move(kind);
    push.x = x;
    push.y = y;
    return push;
}

// A navigation controller with one screen holding a long list, on a 390 x 844 window.
class OverlayOnScreen : public ::testing::Test {
  protected:
    OverlayOnScreen() {
        window = makeAppWindow(*host, {390, 844});
        navigation =
            std::make_shared<ViewController>("UINavigationController", ControllerKind::navigation);
        navigation->view = add(*window, view({0, 0, 390, 844}));
        first = screen("First");
        navigation->view->addSubview(first->view);
        navigation->children = {first};
        window->rootViewController = navigation;
        list = add(*first->view, scrollView({0, 100, 390, 600}, {390, 2000}));
        overlay->setOnViewChanged([this](std::string_view kind) { changes.emplace_back(kind); });
    }

    std::shared_ptr<ViewController> screen(const std::string& name) {
        auto c = std::make_shared<ViewController>(name);
        c->view = view({0, 0, 390, 844}, rgb(0xFFFFFF));
        return c;
    }

    std::size_t overlayWindows() const {
        std::size_t n = 0;
        for (const auto& w : window->scene()->windows()) n += w->passthrough ? 1 : 0;
        return n;
    }

    bool onScreen(const ViewController& c) const { return c.view && c.view->window(); }

    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    std::shared_ptr<NodeReader> reader = host->actions().reader;
    std::shared_ptr<HeadlessOverlayPresenter> presenter =
        std::make_shared<HeadlessOverlayPresenter>([] { return Appearance::light; });
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<LiveOverlay> overlay = LiveOverlay::create({presenter, host, reader, clock});
    std::shared_ptr<Window> window;
    std::shared_ptr<ViewController> navigation;
    std::shared_ptr<ViewController> first;
    std::shared_ptr<View> list;
    std::vector<std::string> changes;
};

TEST_F(OverlayOnScreen, ShowingTwiceKeepsOneWindowWhoseOnlyTouchTargetIsStop) {
    int stops = 0;
    ASSERT_TRUE(overlay->show(window->handle(), [] {}));
    ASSERT_TRUE(overlay->show(window->handle(), [&] { ++stops; }));
    EXPECT_EQ(overlayWindows(), 1u);
    const auto& ours = presenter->window();
    ASSERT_EQ(ours->targets.size(), 1u);
    EXPECT_GT(ours->level, window->level);
    EXPECT_EQ(presenter->state()->status, "Sharing your screen · live");

    // A touch on "Stop" lands on it; anywhere else falls through to the app.
    View* stop = findTitled(*ours, "Stop");
    ASSERT_NE(stop, nullptr);
    const Rect at = stop->frameInWindow();
    EXPECT_EQ(reader->hitTest(ours->handle(), {at.midX(), at.midY()}), stop->handle());
    EXPECT_EQ(reader->hitTest(ours->handle(), {195, 500}), noHandle);

    EXPECT_TRUE(presenter->press("Stop"));
    EXPECT_EQ(stops, 1);
    EXPECT_FALSE(presenter->press("Take back control"));

    overlay->hide();
    EXPECT_EQ(overlayWindows(), 0u);
    EXPECT_FALSE(presenter->state().has_value());
    EXPECT_FALSE(presenter->press("Stop"));
    EXPECT_EQ(stops, 1);
}

TEST_F(OverlayOnScreen, ToastBannerLaserAndMarksComeAndGoAsViews) {
    ASSERT_TRUE(overlay->show(window->handle(), [] {}));
    ASSERT_TRUE(overlay->showNote(LiveNoteKind::frameSaved, true));
    EXPECT_EQ(presenter->state()->toast,
              (OverlayToast{false, "A snapshot — with support's marks — was saved"}));
    ASSERT_TRUE(overlay->showNote(LiveNoteKind::recordingStarted, false));
    EXPECT_EQ(presenter->state()->toast->text, "Support is recording your screen");

    int takeBacks = 0;
    ASSERT_TRUE(overlay->showControlBanner([&] { ++takeBacks; }));
    EXPECT_TRUE(overlay->isShowingControlBanner());
    EXPECT_EQ(presenter->window()->targets.size(), 2u);
    EXPECT_TRUE(presenter->press("Take back control"));
    EXPECT_EQ(takeBacks, 1);
    overlay->hideControlBanner();
    EXPECT_FALSE(presenter->state()->controlBanner);
    EXPECT_EQ(presenter->window()->targets.size(), 1u);
    EXPECT_FALSE(presenter->press("Take back control"));

    overlay->drawGuide(guide("laser", 0.5, 0.5));
    overlay->drawGuide(guide("laser", 0.25, 0.5));
    EXPECT_EQ(presenter->state()->laser, (Point{97.5, 422}));
    overlay->drawGuide(guide("laser-off", 0.5, 0.5));
    EXPECT_FALSE(presenter->state()->laser.has_value());

    overlay->drawGuide(guide("box", 0.5, 0.5));
    auto label = guide("label", 0.1, 0.3);
    label.text = "Tap the blue button to continue with your order";
    overlay->drawGuide(label);
    auto marks = presenter->state()->marks;
    ASSERT_EQ(marks.size(), 2u);
    EXPECT_EQ(marks[0].kind, GuideKind::box);
    EXPECT_NEAR(marks[0].frame.width, 62.4, 1e-9);
    EXPECT_EQ(marks[1].text, "Tap the blue button to continue with you");
    // Its left edge on the point and centred on it.
    EXPECT_LE(marks[1].frame.width, 390 * 0.7);
    EXPECT_DOUBLE_EQ(marks[1].frame.x, 39);
    EXPECT_DOUBLE_EQ(marks[1].frame.midY(), 844 * 0.3);

    // The toast's 5.5 s and the marks' 3.6 s end with their views gone from the window.
    clock->advance(5.5);
    const auto state = presenter->state();
    EXPECT_FALSE(state->toast.has_value());
    EXPECT_TRUE(state->marks.empty());
    EXPECT_EQ(state->status, "Sharing your screen · live");
    const auto& root = presenter->window()->rootViewController->view->subviews();
    EXPECT_EQ(root.size(), 3u);  // the frame, the pill and the hidden laser
}

TEST_F(OverlayOnScreen, CaptureLeavesTheOverlayOutWhileTheCustomerSeesIt) {
    ASSERT_TRUE(overlay->show(window->handle(), [] {}));
    overlay->drawGuide(guide("box", 0.1, 0.5));
    auto arrow = guide("arrow", 0.5, 0.8);
    arrow.x2 = 0.9;
    arrow.y2 = 0.8;
    arrow.color = "#00ff00";
    overlay->drawGuide(arrow);
    overlay->drawGuide(guide("laser", 0.5, 0.25));

    auto log = std::make_shared<virela::testing::RecordingLog>();
    WindowRegistry registry{host};
    ScreenCapture capture{registry, std::make_shared<HeadlessRenderer>(), log};
    const std::optional<Image> still = decodePng(capture.capture(false));
    ASSERT_TRUE(still.has_value());
    for (const CaptureStep& step : capture.lastPlan().steps) {
        EXPECT_NE(step.window, presenter->window()->handle());
    }

    const Image seen = drawCustomerView(*host);
    ASSERT_EQ(seen.width, 390);
    ASSERT_EQ(seen.height, 844);
    const Rgba8 red{0xDC, 0x38, 0x34, 0xFF};
    const Rgba8 white{0xFF, 0xFF, 0xFF, 0xFF};
    const Rgba8 green{0x00, 0xFF, 0x00, 0xFF};
    struct Probe {
        int x, y;
        Rgba8 customer;
    };
    for (const Probe& p : {
             Probe{1, 1, red},        // the screen frame
             Probe{388, 600, red},    // ...on every edge
             Probe{195, 422, white},  // but not across the screen
             Probe{40, 470, red},     // the box's left border (39 + 2.5)
             Probe{40, 423, white},   // which has round corners
             Probe{60, 440, white},   // and its inside
             Probe{273, 675, green},  // the arrow's shaft
             Probe{195, 211, red},    // the laser dot's centre
             Probe{189, 205, white},  // a dot, not a square: its corner stays clear
         }) {
        SCOPED_TRACE(::testing::Message() << "at " << p.x << "," << p.y);
        EXPECT_EQ(pixel(seen, p.x, p.y), p.customer);
        EXPECT_EQ(pixel(*still, p.x, p.y), white);
    }
    // The pill: a red capsule at the top centre with the status text in white inside it.
    const Rect pill = findId(*presenter->window(), "virela.live.pill")->frameInWindow();
    EXPECT_NEAR(pill.midX(), 195, 0.5);
    EXPECT_EQ(pixel(seen, static_cast<int>(pill.midX()), static_cast<int>(pill.y) + 2), red);
    EXPECT_EQ(pixel(seen, static_cast<int>(pill.x) + 4, static_cast<int>(pill.y) + 2), white);
    int whiteText = 0;
    for (int y = static_cast<int>(pill.y); y < static_cast<int>(pill.maxY()); ++y) {
        for (int x = static_cast<int>(pill.x) + 20; x < static_cast<int>(pill.midX()); ++x) {
            whiteText += pixel(seen, x, y) == white ? 1 : 0;
        }
    }
    EXPECT_GT(whiteText, 50);
}

TEST_F(OverlayOnScreen, ADragWithMarksShowingReportsScrollOnceAndScrollsTheListUnderIt) {
    std::vector<double> offsets;
    list->onContentOffsetChange = [&](Point offset) { offsets.push_back(offset.y); };

    // Without marks a drag scrolls the list and reports nothing.
    ASSERT_TRUE(overlay->show(window->handle(), [] {}));
    window->drag({200, 600}, {200, 500}, 4);
    EXPECT_TRUE(changes.empty());
    EXPECT_EQ(offsets, (std::vector<double>{25, 50, 75, 100}));

    overlay->drawGuide(guide("box", 0.5, 0.5));
    overlay->drawGuide(guide("laser", 0.5, 0.5));
    ASSERT_EQ(window->panRecognizers.size(), 1u);
    window->drag({200, 600}, {200, 300}, 6);
    EXPECT_EQ(changes, (std::vector<std::string>{"scroll"}));
    EXPECT_TRUE(presenter->state()->marks.empty());
    EXPECT_FALSE(presenter->state()->laser.has_value());
    EXPECT_TRUE(window->panRecognizers.empty());
    EXPECT_DOUBLE_EQ(list->boundsOrigin.y, 400);

    // A second drag reports nothing; the list stops at the end of its content, and at its top.
    window->drag({200, 600}, {200, -3000});
    EXPECT_EQ(changes.size(), 1u);
    EXPECT_DOUBLE_EQ(list->boundsOrigin.y, 2000 - 600);
    window->drag({200, 200}, {200, 3000});
    EXPECT_DOUBLE_EQ(list->boundsOrigin.y, 0);
    // A drag that starts outside the list moves nothing.
    window->drag({200, 50}, {200, 20});
    EXPECT_DOUBLE_EQ(list->boundsOrigin.y, 0);
}

TEST_F(OverlayOnScreen, PushPopModalAndTabsChangeTheTopScreenAndReportNav) {
    ASSERT_TRUE(overlay->show(window->handle(), [] {}));
    overlay->drawGuide(guide("box", 0.5, 0.5));
    overlay->checkScreen();
    EXPECT_TRUE(changes.empty());

    auto second = screen("Second");
    navigation->push(second);
    EXPECT_TRUE(onScreen(*second));
    EXPECT_FALSE(onScreen(*first));
    overlay->checkScreen();
    overlay->checkScreen();
    EXPECT_EQ(changes, (std::vector<std::string>{"nav"}));
    EXPECT_TRUE(presenter->state()->marks.empty());

    // A modal over the marked screen is navigation too; dismissing it comes back.
    overlay->drawGuide(guide("box", 0.5, 0.5));
    auto modal = screen("Sheet");
    second->present(modal);
    EXPECT_TRUE(onScreen(*modal));
    EXPECT_EQ(topScreen(*host, reader.get(), window->handle()), modal->handle());
    overlay->checkScreen();
    EXPECT_EQ(changes.size(), 2u);
    EXPECT_EQ(second->dismiss(), modal);
    EXPECT_FALSE(onScreen(*modal));

    EXPECT_EQ(navigation->pop(), second);
    EXPECT_EQ(navigation->pop(), nullptr);  // the root stays
    EXPECT_TRUE(onScreen(*first));
    EXPECT_FALSE(onScreen(*second));
    EXPECT_EQ(topScreen(*host, reader.get(), window->handle()), first->handle());

    // Tabs: the selected one is the screen, and its view is the one shown.
    auto tabs = std::make_shared<ViewController>("UITabBarController", ControllerKind::tabBar);
    auto inbox = screen("Inbox");
    auto settings = screen("Settings");
    tabs->children = {inbox, settings};
    tabs->view = view({0, 0, 390, 844});
    tabs->view->addSubview(inbox->view);
    navigation->push(tabs);
    EXPECT_EQ(topScreen(*host, reader.get(), window->handle()), inbox->handle());
    tabs->selectTab(1);
    EXPECT_TRUE(onScreen(*settings));
    EXPECT_FALSE(onScreen(*inbox));
    EXPECT_EQ(topScreen(*host, reader.get(), window->handle()), settings->handle());
}

TEST(RuntimeOverlay, IsInstalledAndTheCustomerViewRendersIt) {
    const auto file = std::filesystem::temp_directory_path() /
                      ("virela-overlay-" + std::to_string(::getpid()) + ".json");
    RuntimeOptions options;
    options.defaultsFile = file;
    options.install = false;
    {
        Runtime runtime(options);
        EXPECT_EQ(runtime.platform()->overlay, runtime.overlay());
        EXPECT_TRUE(runtime.renderCustomerView().empty());  // nothing on screen yet
        const bool shown = runtime.runOnMain([&] {
            auto window = makeAppWindow(*runtime.host(), {200, 300});
            return runtime.overlay()->show(window->handle(), "Sharing", [] {});
        });
        ASSERT_TRUE(shown);
        const std::optional<Image> png = decodePng(runtime.renderCustomerView());
        ASSERT_TRUE(png.has_value());
        EXPECT_EQ(png->width, 200);
        EXPECT_EQ(pixel(*png, 0, 150), (Rgba8{0xDC, 0x38, 0x34, 0xFF}));
        runtime.runOnMain([&] { runtime.overlay()->hide(); });
    }
    std::filesystem::remove(file);
}

}  // namespace
}  // namespace virela::headless
