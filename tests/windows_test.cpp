// Which windows the library sees, in which order, and which one is "the" window.

#include <gtest/gtest.h>

#include "core/control/windows.hpp"
#include "platform/headless/host/builder.hpp"

namespace virela::headless {
namespace {

std::vector<HostHandle> handles(const std::vector<WindowFacts>& windows) {
    std::vector<HostHandle> out;
    for (const auto& w : windows) out.push_back(w.handle);
    return out;
}

class Windows : public ::testing::Test {
  protected:
    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    WindowRegistry registry{host};
    std::shared_ptr<Window> app = makeAppWindow(*host, {390, 844});
};

TEST_F(Windows, RegistryTracksEachVisibleWindowOnceAndForgetsFreedOnes) {
    auto menu = addWindow(*app, 0, "_UIContextMenuWindow");
    auto sheet = addWindow(*app, 0);
    menu->show();  // visible twice: tracked once, at the end
    EXPECT_EQ(registry.tracked(),
              (std::vector<HostHandle>{app->handle(), sheet->handle(), menu->handle()}));

    sheet->hide();
    EXPECT_EQ(registry.tracked(), (std::vector<HostHandle>{app->handle(), menu->handle()}));

    const HostHandle gone = menu->handle();
    app->scene()->removeWindow(*menu);
    menu.reset();
    app->show();  // any notification sweeps out freed windows
    EXPECT_EQ(registry.tracked(), (std::vector<HostHandle>{app->handle()}));
    EXPECT_FALSE(host->readWindow(gone));
}

TEST_F(Windows, MergeAddsOnlyLiveVisibleWindowsThatAreNotListedYet) {
    // A system menu window belongs to the scene but is not in its list.
    auto chrome = app->scene()->attachUnlisted(std::make_shared<Window>("_UIContextMenuWindow"));
    chrome->level = 2000;
    chrome->show();
    auto hiddenChrome = app->scene()->attachUnlisted(std::make_shared<Window>());
    hiddenChrome->show();
    hiddenChrome->hidden = true;  // hidden without a notification

    std::vector<WindowFacts> list{*host->readWindow(app->handle())};
    registry.merge(list);
    EXPECT_EQ(handles(list), (std::vector<HostHandle>{app->handle(), chrome->handle()}));

    const auto input = inputWindowList(registry, *host->readWindow(app->handle()));
    EXPECT_EQ(handles(input), (std::vector<HostHandle>{chrome->handle(), app->handle()}));
}

TEST_F(Windows, ActiveWindowIsNeverTheOverlay) {
    auto overlay = addWindow(*app, 2001);
    overlay->passthrough = true;
    overlay->makeKeyAndVisible();  // the overlay is key, the app's window is not
    auto active = findActiveWindow(*host);
    ASSERT_TRUE(active);
    EXPECT_EQ(active->handle, app->handle());

    // In the background no scene is foreground: the first visible window of any scene.
    app->scene()->activation = SceneActivation::background;
    active = findActiveWindow(*host);
    ASSERT_TRUE(active);
    EXPECT_EQ(active->handle, app->handle());
    EXPECT_FALSE(findCaptureWindow(*host));

    app->hide();
    EXPECT_FALSE(findActiveWindow(*host));
}

TEST_F(Windows, CaptureWindowPrefersActiveScenesThenInactiveOnes) {
    app->scene()->activation = SceneActivation::foregroundInactive;
    auto other = makeAppWindow(*host, {1024, 768});
    other->key = false;
    auto found = findCaptureWindow(*host);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->handle, other->handle());  // the active scene's visible window

    other->scene()->activation = SceneActivation::background;
    found = findCaptureWindow(*host);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->handle, app->handle());
}

TEST_F(Windows, ListsFilterAndOrderWindows) {
    auto faint = addWindow(*app, 0);
    faint->alpha = 0.01;  // not drawn, not touched
    auto barely = addWindow(*app, 0);
    barely->alpha = 0.011;
    auto keyboard = addWindow(*app, 10, "UITextEffectsWindow");
    auto overlay = addWindow(*app, 2001);
    overlay->passthrough = true;
    auto alert = addWindow(*app, 2000);
    auto peer = addWindow(*app, 0);

    std::vector<SceneFacts> scenes;
    host->readScenes(scenes);
    std::vector<WindowFacts> drawn;
    captureWindowList(registry, *host->readWindow(app->handle()), scenes, drawn);
    EXPECT_EQ(handles(drawn), (std::vector<HostHandle>{app->handle(), barely->handle(),
                                                       peer->handle(), alert->handle()}));

    const auto input = inputWindowList(registry, *host->readWindow(app->handle()));
    EXPECT_EQ(handles(input), (std::vector<HostHandle>{alert->handle(), peer->handle(),
                                                       barely->handle(), app->handle()}));
}

TEST_F(Windows, OverlayLetsTouchesThroughExceptOnItsTargets) {
    auto overlay = addWindow(*app, 2001);
    overlay->passthrough = true;
    auto pill = add(*overlay, view({100, 40, 190, 44}, rgb(0xDC3834)));
    auto stop = add(*pill, button({140, 4, 44, 36}, "Stop"));
    auto hiddenTarget = add(*overlay, view({0, 700, 390, 100}, rgb(0x1C2620)));
    hiddenTarget->hidden = true;
    overlay->targets = {[] { return std::shared_ptr<View>(); },
                        [hiddenTarget] { return hiddenTarget; }, [pill] { return pill; }};

    const std::shared_ptr<NodeReader> reader = host->actions().reader;
    EXPECT_EQ(reader->hitTest(overlay->handle(), {250, 60}), stop->handle());
    EXPECT_EQ(reader->hitTest(overlay->handle(), {110, 60}), pill->handle());
    EXPECT_EQ(reader->hitTest(overlay->handle(), {10, 300}), noHandle);  // falls through
    EXPECT_EQ(reader->hitTest(overlay->handle(), {10, 750}), noHandle);  // hidden target
}

}  // namespace
}  // namespace virela::headless
