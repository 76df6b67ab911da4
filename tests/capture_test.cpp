// Capture end to end on the headless host: which windows are drawn, where the boxes go, the
// scale, and the failures that must never produce an image.

#include <gtest/gtest.h>

#include "core/base/errors.hpp"
#include "core/capture/capture.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/render/image.hpp"
#include "platform/headless/render/renderer.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela::headless {
namespace {

class Capture : public ::testing::Test {
  protected:
    std::string errorCode(bool live) {
        try {
            capture.capture(live);
        } catch (const VirelaError& e) {
            return e.code() + ": " + e.message();
        }
        return "no error";
    }

    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    std::shared_ptr<virela::testing::RecordingLog> log =
        std::make_shared<virela::testing::RecordingLog>();
    std::shared_ptr<HeadlessRenderer> renderer = std::make_shared<HeadlessRenderer>();
    WindowRegistry registry{host};
    ScreenCapture capture{registry, renderer, log};
};

TEST_F(Capture, NothingToCaptureIsAnErrorNeverABlankImage) {
    EXPECT_EQ(errorCode(false), "no_window: No visible window to capture.");
    auto window = makeAppWindow(*host, {390, 844});
    window->scene()->activation = SceneActivation::background;
    EXPECT_EQ(errorCode(true), "no_window: No visible window to capture.");

    // Found, but too faint to draw: nothing would be in the image.
    window->scene()->activation = SceneActivation::foregroundActive;
    window->alpha = 0.01;
    EXPECT_EQ(errorCode(false), "no_window: No visible window to capture.");
    window->alpha = 0.02;
    EXPECT_EQ(errorCode(false), "no error");
}

TEST_F(Capture, ATreeThatCannotBeReadFailsTheCaptureAndSaysWhy) {
    auto window = makeAppWindow(*host, {390, 844});
    auto secret = add(*window, textField({0, 0, 100, 40}, "pin", true));
    auto other = add(*window, view({0, 100, 100, 40}));
    other->onRead = [&] { secret->removeFromSuperview(); };  // freed halfway through
    EXPECT_EQ(errorCode(false), "encode_failed: Couldn't encode the capture.");
    ASSERT_EQ(log->lines.size(), 1u);
    EXPECT_EQ(log->lines[0].first, LogLevel::error);
    EXPECT_EQ(
        log->lines[0].second.rfind("capture failed: the screen could not be read completely — ", 0),
        0u);

    other->onRead = [] { throw std::runtime_error("platform exception"); };
    EXPECT_EQ(errorCode(true), "encode_failed: Couldn't encode the capture.");
}

TEST_F(Capture, StillsAreOnePixelPerPointAndLargeLiveFramesShrink) {
    EXPECT_EQ(captureScale({0, 0, 390, 844}, true), 1.0);
    EXPECT_EQ(captureScale({0, 0, 1366, 1024}, false), 1.0);
    EXPECT_DOUBLE_EQ(captureScale({0, 0, 1366, 1024}, true), 1280.0 / 1366);

    makeAppWindow(*host, {1366, 1024});
    const auto still = decodePng(capture.capture(false));
    ASSERT_TRUE(still);
    EXPECT_EQ(still->width, 1366);
    EXPECT_EQ(still->height, 1024);
    const auto frame = decodeJpeg(capture.capture(true));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width, 1280);
    EXPECT_EQ(frame->height, 960);
}

TEST_F(Capture, EachWindowIsPaintedRightAfterItIsDrawn) {
    auto app = makeAppWindow(*host, {390, 844});
    auto secret = add(*app, view({20, 100, 200, 60}, rgb(0x01FE03)));
    secret->setVirelaRedacted(true);
    auto alert = addWindow(*app, 2000);  // transparent, above the app
    add(*alert, view({0, 400, 390, 200}, rgb(0x1C2620, 0.4)));
    auto peer = addWindow(*app, 0);  // same level as the app: drawn after it
    auto keyboard = addWindow(*app, 10, "UITextEffectsWindow");
    add(*keyboard, textField({20, 100, 200, 60}, "typed"));
    auto overlay = addWindow(*app, 2001);
    overlay->passthrough = true;

    const auto png = capture.capture(false);
    const auto& steps = capture.lastPlan().steps;
    ASSERT_EQ(steps.size(), 4u);
    EXPECT_EQ(steps[0].window, app->handle());
    EXPECT_EQ(steps[1].kind, CaptureStep::Kind::paintRedaction);
    EXPECT_EQ(steps[1].rect, (Rect{19.5, 99.5, 201, 61}));
    EXPECT_EQ(steps[2].window, peer->handle());
    EXPECT_EQ(steps[3].window, alert->handle());

    const auto image = decodePng(png);
    ASSERT_TRUE(image);
    const std::uint8_t* inside = image->at(22, 102);  // inside the box, clear of its label
    const Rgba8 red = toRgba8(defaultRedactionStyle().color);
    EXPECT_EQ(inside[0], red.r);
    EXPECT_EQ(inside[1], red.g);
    EXPECT_EQ(inside[2], red.b);
}

}  // namespace
}  // namespace virela::headless
