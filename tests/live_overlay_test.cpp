// The live overlay's state and timers against a recording presenter, on the manual clock.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/live/live_overlay.hpp"
#include "core/ports/manual_clock.hpp"
#include "tests/support/recording_overlay.hpp"

namespace virela {
namespace {

using testing::RecordingPresenter;

constexpr HostHandle kWindow = 10;

// Windows and a controller tree, as much of the host as the overlay reads.
class FakeHost final : public HostInterface, public NodeReader {
  public:
    std::map<HostHandle, ControllerFacts> controllers;
    HostHandle root = noHandle;
    bool windowAlive = true;

    void readScenes(std::vector<SceneFacts>& out) override { out.clear(); }
    std::optional<WindowFacts> readWindow(HostHandle window) override {
        if (window != kWindow || !windowAlive) return std::nullopt;
        WindowFacts facts;
        facts.handle = kWindow;
        facts.rootViewController = root;
        return facts;
    }
    void walkViews(HostHandle, ViewVisitor&) override {}
    std::unique_ptr<Subscription> observeWindowVisibility(
        std::function<void(HostHandle, bool)>) override {
        return nullptr;
    }

    std::optional<NodeFacts> readNode(HostHandle) override { return std::nullopt; }
    void subviews(HostHandle, std::vector<HostHandle>&) override {}
    HostHandle elementAt(HostHandle, long) override { return noHandle; }
    HostHandle hitTest(HostHandle, Point) override { return noHandle; }
    HostHandle nextResponder(HostHandle) override { return noHandle; }
    bool platformVersionAtLeast(int) override { return true; }
    std::optional<ControllerFacts> readController(HostHandle handle) override {
        auto it = controllers.find(handle);
        if (it == controllers.end()) return std::nullopt;
        return it->second;
    }

    void addController(HostHandle handle, ControllerKind kind = ControllerKind::plain,
                       HostHandle top = noHandle, HostHandle presented = noHandle) {
        controllers[handle] = ControllerFacts{handle, kind, presented, top};
    }
};

class LiveOverlayTest : public ::testing::Test {
  protected:
    void SetUp() override {
        host->addController(1);
        host->root = 1;
        overlay->setOnViewChanged([this](std::string_view kind) { changes.emplace_back(kind); });
    }

    GuidePush guide(const char* kind) {
        GuidePush push;
        push.sessionId = "live-1";
        push.kind = kind;
        return push;
    }

    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<RecordingPresenter> presenter = std::make_shared<RecordingPresenter>();
    std::shared_ptr<FakeHost> host = std::make_shared<FakeHost>();
    std::shared_ptr<LiveOverlay> overlay = LiveOverlay::create({presenter, host, host, clock});
    std::vector<std::string> changes;
};

TEST_F(LiveOverlayTest, ShowingTwiceLeavesOneOverlayAndStopReachesOnlyTheLatestCallback) {
    int firstStops = 0;
    int secondStops = 0;
    ASSERT_TRUE(overlay->show(kWindow, [&] { ++firstStops; }));
    ASSERT_TRUE(overlay->show(kWindow, [&] { ++secondStops; }));
    EXPECT_EQ(presenter->windowsShown, 2);
    EXPECT_EQ(presenter->status, overlay_text::idle);
    presenter->stop();
    EXPECT_EQ(firstStops, 0);
    EXPECT_EQ(secondStops, 1);

    overlay->hide();
    overlay->hide();
    EXPECT_FALSE(overlay->isShowing());
    EXPECT_FALSE(overlay->showNote(LiveNoteKind::frameSaved, false));
    EXPECT_FALSE(overlay->showControlBanner([] {}));

    presenter->canShow = false;
    EXPECT_FALSE(overlay->show(kWindow, [] {}));
    EXPECT_FALSE(overlay->isShowing());
}

TEST_F(LiveOverlayTest, ANewerToastIsNotRemovedByTheOlderOnesTimer) {
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    ASSERT_TRUE(overlay->showNote(LiveNoteKind::recordingStarted, false));
    clock->advance(4);
    ASSERT_TRUE(overlay->showNote(LiveNoteKind::frameSaved, true));
    EXPECT_EQ(presenter->toasts.back().text, overlay_text::snapshotWithMarks);
    EXPECT_TRUE(presenter->toasts.front().recording);
    clock->advance(2);  // the first toast's 5.5 s have passed
    EXPECT_EQ(presenter->toastFades, 0);
    clock->advance(3.5);
    EXPECT_EQ(presenter->toastFades, 1);
    EXPECT_FALSE(clock->isScheduled(TimerId::toastRemoval));
}

TEST_F(LiveOverlayTest, PointingTextReturnsToIdleAfterTheLatestPointingTime) {
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    overlay->notePointing(5.0);
    EXPECT_EQ(presenter->status, overlay_text::pointing);
    clock->advance(1.0);
    overlay->notePointing(1.2);
    clock->advance(1.15);
    EXPECT_EQ(presenter->status, overlay_text::pointing);
    clock->advance(0.1);
    EXPECT_EQ(presenter->status, overlay_text::idle);
    EXPECT_FALSE(overlay->marksShowing());
    clock->advance(10);
    EXPECT_EQ(presenter->status, overlay_text::idle);
}

TEST_F(LiveOverlayTest, ADragWipesTheMarksAndReportsScrollOnce) {
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    overlay->drawGuide(guide("arrow"));
    overlay->drawGuide(guide("box"));
    EXPECT_EQ(presenter->marks.size(), 2u);
    EXPECT_EQ(presenter->watches, 1);  // one watcher for both marks
    ASSERT_TRUE(presenter->scroll);
    presenter->scroll();
    EXPECT_EQ(changes, (std::vector<std::string>{"scroll"}));
    EXPECT_TRUE(presenter->marks.empty());
    EXPECT_FALSE(presenter->scroll);  // the watcher is gone

    // The wiped marks' fade timers find nothing to fade.
    clock->advance(3.6);
    EXPECT_TRUE(presenter->fadedMarks.empty());
    EXPECT_EQ(changes.size(), 1u);
}

TEST_F(LiveOverlayTest, MarksFadeAfterThreeSecondsAndAHalfEachOnItsOwnTimer) {
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    overlay->drawGuide(guide("label"));
    clock->advance(1);
    overlay->drawGuide(guide("fill"));
    clock->advance(2.6);
    EXPECT_EQ(presenter->fadedMarks, (std::vector<std::uint64_t>{1}));
    EXPECT_EQ(overlay->markCount(), 1u);
    clock->advance(1);
    EXPECT_EQ(presenter->fadedMarks, (std::vector<std::uint64_t>{1, 2}));
    EXPECT_EQ(overlay->markCount(), 0u);
}

TEST_F(LiveOverlayTest, NavigationAndAModalCountAsAScreenChangeButAFreedScreenDoesNot) {
    host->addController(1, ControllerKind::navigation, 2);
    host->addController(2);
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    overlay->drawGuide(guide("box"));
    overlay->checkScreen();
    EXPECT_TRUE(changes.empty());

    host->addController(3);
    host->addController(2, ControllerKind::plain, noHandle, 3);  // a modal over the screen
    overlay->checkScreen();
    EXPECT_EQ(changes, (std::vector<std::string>{"nav"}));
    overlay->checkScreen();
    EXPECT_EQ(changes.size(), 1u);

    overlay->drawGuide(guide("arrow"));  // marked on the modal
    host->controllers.erase(3);
    host->addController(2);
    host->addController(1, ControllerKind::navigation, 4);
    host->addController(4);
    overlay->checkScreen();
    EXPECT_EQ(changes.size(), 1u);
    EXPECT_EQ(overlay->markCount(), 1u);
}

TEST_F(LiveOverlayTest, HidingEndsTheWatchSoTheNextShowStartsClean) {
    host->addController(1, ControllerKind::navigation, 2);
    host->addController(2);
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    overlay->drawGuide(guide("box"));
    ASSERT_TRUE(overlay->marksShowing());
    overlay->hide();
    EXPECT_FALSE(presenter->scroll);  // the watcher is gone
    EXPECT_FALSE(overlay->marksShowing());
    EXPECT_EQ(overlay->markCount(), 0u);
    clock->advance(3.6);
    EXPECT_TRUE(presenter->fadedMarks.empty());

    // The next session's first navigation check finds no marks of the last one.
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    host->addController(3);
    host->addController(1, ControllerKind::navigation, 3);
    overlay->checkScreen();
    EXPECT_TRUE(changes.empty());
}

TEST_F(LiveOverlayTest, LaserMovesOneDotAndLaserOffHidesItButStillPoints) {
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    GuidePush laser = guide("laser");
    laser.x = 0.25;
    laser.y = 0.75;
    overlay->drawGuide(laser);
    overlay->drawGuide(guide("laser"));
    EXPECT_EQ(presenter->laserMoves, (std::vector<Point>{{97.5, 633}, {195, 422}}));
    overlay->drawGuide(guide("laser-off"));
    EXPECT_FALSE(presenter->laserVisible);
    EXPECT_EQ(presenter->status, overlay_text::pointing);
    clock->advance(0.2);
    EXPECT_EQ(presenter->status, overlay_text::idle);

    overlay->drawGuide(guide("circle"));
    EXPECT_EQ(presenter->status, overlay_text::idle);
    EXPECT_TRUE(presenter->marks.empty());
}

TEST_F(LiveOverlayTest, TheControlBannerComesAndGoesWithTheOverlay) {
    int takeBacks = 0;
    ASSERT_TRUE(overlay->show(kWindow, [] {}));
    ASSERT_TRUE(overlay->showControlBanner([&] { ++takeBacks; }));
    EXPECT_TRUE(overlay->isShowingControlBanner());
    presenter->takeBack();
    EXPECT_EQ(takeBacks, 1);
    overlay->hideControlBanner();
    EXPECT_FALSE(overlay->isShowingControlBanner());
    presenter->takeBack();  // a tap after the banner went calls nothing
    EXPECT_EQ(takeBacks, 1);

    ASSERT_TRUE(overlay->showControlBanner([&] { ++takeBacks; }));
    overlay->hide();
    EXPECT_FALSE(overlay->isShowingControlBanner());
}

}  // namespace
}  // namespace virela
