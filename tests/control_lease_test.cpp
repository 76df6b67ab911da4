// Remote control on the headless screen with a hand-driven clock: the lease armed only with a
// generation and the banner, its end by every path, and the input intake's drop rules. Inputs
// that pass land in a recording route instead of the engine.

#include "core/lease/control_lease.hpp"
#include "tests/support/live_fixture.hpp"

namespace virela {
namespace {

using ControlLeaseTest = testing::LiveFixture;

constexpr const char* kNotActive =
    "control input 'tap' dropped: control is not active on this device (banner never attached, "
    "or the grant was never confirmed)";

TEST_F(ControlLeaseTest, ArmsOnlyWithAGenerationAndAnAttachedBanner) {
    live("s1", "active");
    control("s1", "active");
    EXPECT_TRUE(logged(LogLevel::error,
                       "control 'active' arrived without a generation — the grant cannot be "
                       "confirmed; the banner stays down and the backend will refuse every tap"));
    overlay->canShowBanner = false;
    control("s1", "active", {{"generation", "g1"}});
    EXPECT_TRUE(logged(LogLevel::error,
                       "control banner FAILED to attach — control not armed, no confirmation "
                       "sent; the backend will drop every tap (this is the fail-closed door)"));
    EXPECT_FALSE(overlay->banner);
    EXPECT_TRUE(controlConfirmations().empty());
    EXPECT_TRUE(events.empty());
    input("s1");
    EXPECT_EQ(fake.log->lines.back(), std::pair(LogLevel::error, std::string(kNotActive)));

    overlay->canShowBanner = true;
    control("s1", "active", {{"generation", "g2"}});
    EXPECT_TRUE(overlay->banner);
    EXPECT_TRUE(logged(LogLevel::info,
                       "control armed (generation g2) — banner attached, confirming the lease"));
    EXPECT_EQ(controlConfirmations(),
              std::vector<std::string>{R"({"kind":"control","generation":"g2"})"});
    EXPECT_EQ(events, std::vector<std::string>{"control on"});
    input("s1");
    EXPECT_EQ(applied, std::vector<std::string>{"s1 tap"});
}

TEST_F(ControlLeaseTest, ARenewedGrantIsConfirmedByTheCheckAndTakeBackEndsAtOnce) {
    armed("g1");
    control("s1", "active", {{"generation", "g2"}});
    EXPECT_EQ(controlConfirmations().size(), 1u);
    clock->advance(10);
    EXPECT_EQ(controlConfirmations().back(), R"({"kind":"control","generation":"g2"})");
    EXPECT_EQ(events, std::vector<std::string>{"control on"});

    overlay->takeBack();
    fake.executor->drain();
    EXPECT_EQ(events, (std::vector<std::string>{"control on", "control off"}));
    EXPECT_FALSE(overlay->banner);
    EXPECT_EQ(bodies("/v1/sdk/live/s1/control/respond"),
              std::vector<std::string>{R"({"allow":false})"});
    control("s1", "ended");
    clock->advance(10);
    EXPECT_EQ(events.size(), 2u);
    EXPECT_EQ(controlConfirmations().size(), 2u);
}

TEST_F(ControlLeaseTest, ALostBannerStopsInputAtOnceAndEndsControlAtTheCheck) {
    armed();
    overlay->banner = false;  // a window change took it away
    input("s1");
    EXPECT_EQ(lastLine(), kNotActive);
    EXPECT_TRUE(applied.empty());
    clock->advance(10);
    EXPECT_TRUE(logged(LogLevel::error,
                       "control banner no longer attached — ending control locally; the backend "
                       "lease lapses and taps stop landing"));
    EXPECT_EQ(events, (std::vector<std::string>{"control on", "control off"}));
    EXPECT_EQ(controlConfirmations().size(), 1u);
    EXPECT_TRUE(sharing("s1"));  // sharing goes on
}

TEST_F(ControlLeaseTest, EveryEndOfTheLiveSessionEndsControlFirst) {
    armed();
    live("s1", "ended");
    EXPECT_EQ(events, (std::vector<std::string>{"control on", "control off", "ended s1"}));

    armed();
    live("s2", "active");  // another session replaces this one
    EXPECT_EQ(events.back(), "ended s1");
    EXPECT_EQ(events[events.size() - 2], "control off");
    control("s1", "active", {{"generation", "g9"}});  // the old session's grant
    EXPECT_FALSE(overlay->banner);
    EXPECT_EQ(events.back(), "ended s1");

    live("s1", "active");
    control("s1", "active", {{"generation", "g1"}});
    client->stop();
    fake.executor->drain();
    EXPECT_EQ(events.back(), "ended s1");
    EXPECT_EQ(events[events.size() - 2], "control off");
    EXPECT_FALSE(overlay->banner);
}

TEST_F(ControlLeaseTest, AFailedAnswerThatComesBackAfterStopIsNotReported) {
    live("s1", "active");
    control("s1", "requested", {{"requestId", "c1"}});
    ASSERT_TRUE(prompts->press("Allow control"));
    fake.executor->drain();
    client->stop();
    fake.executor->drain();
    auto index = fake.http->pendingIndex("/v1/sdk/live/s1/control/respond");
    ASSERT_TRUE(index);
    fake.http->completePending(*index, HttpOutcome{HttpResponse{500, {}, "{}"}, nullptr});
    fake.executor->drain();
    EXPECT_EQ(events, std::vector<std::string>{"ended s1"});
}

TEST_F(ControlLeaseTest, TheRequestIsAskedInItsSessionAndHeldWhileInTheBackground) {
    live("s1", "active");
    control("other", "requested");
    EXPECT_FALSE(prompts->sheet());

    control("s1", "requested", {{"requestId", "r1"}, {"workspaceName", "Acme"}});
    ASSERT_TRUE(prompts->sheet());
    EXPECT_EQ(prompts->sheet()->title, "Let support control your screen?");
    EXPECT_EQ(prompts->sheet()->buttons, (std::vector<std::string>{"Allow control", "Not now"}));
    EXPECT_EQ(prompts->sheet()->body,
              "Support wants to tap, scroll, and type in Acme to help fix your issue. You’ll "
              "watch it happen and can take back control at any time. Fields with sensitive "
              "data stay locked.");
    EXPECT_TRUE(events.empty());  // no onRequestShown for control
    EXPECT_FALSE(clock->isScheduled(TimerId::promptExpiry));
    fake.http->reply("/v1/sdk/live/s1/control/respond", 500, R"({"error":"x","message":"y"})");
    ASSERT_TRUE(prompts->press("Allow control"));
    fake.executor->drain();
    EXPECT_EQ(bodies("/v1/sdk/live/s1/control/respond"),
              std::vector<std::string>{R"({"allow":true,"requestId":"r1"})"});
    EXPECT_EQ(events, std::vector<std::string>{"error"});

    // In the background there is no window: the request waits for the foreground.
    window->key = false;  // a hidden key window still counts
    window->hide();
    fake.lifecycle->send(AppEvent::didEnterBackground);
    control("s1", "requested");
    EXPECT_FALSE(prompts->sheet());
    window->makeKeyAndVisible();
    fake.lifecycle->send(AppEvent::willEnterForeground);
    fake.executor->drain();
    ASSERT_TRUE(prompts->sheet());
    EXPECT_EQ(prompts->sheet()->title, "Let support control your screen?");

    // "ended" takes the sheet down without a choice or a callback.
    control("s1", "ended");
    EXPECT_FALSE(prompts->sheet());
    EXPECT_EQ(events, std::vector<std::string>{"error"});
}

TEST_F(ControlLeaseTest, InputIsDroppedByTheFirstRuleThatFailsAndMenusAreReported) {
    live("s1", "active");
    input("s1");
    EXPECT_EQ(fake.log->lines.back(), std::pair(LogLevel::error, std::string(kNotActive)));

    control("s1", "active", {{"generation", "g1"}});
    input("s0", "scroll");
    EXPECT_EQ(fake.log->lines.back(),
              std::pair(LogLevel::error, std::string("control input dropped: session mismatch "
                                                     "(input for a stale session)")));

    client->showSupportCode();
    window->key = false;  // a hidden key window still counts
    window->hide();       // no window is checked before the prompt
    input("s1", "type");
    EXPECT_EQ(
        fake.log->lines.back(),
        std::pair(LogLevel::error,
                  std::string("control input 'type' dropped: no active window to apply it to")));
    window->makeKeyAndVisible();
    input("s1", "key");
    EXPECT_EQ(fake.log->lines.back(),
              std::pair(LogLevel::info, std::string("control input 'key' dropped: an SDK prompt is "
                                                    "on screen — by design")));
    EXPECT_TRUE(applied.empty());
    ASSERT_TRUE(prompts->sheet());

    ASSERT_TRUE(prompts->press("Done"));
    input("s1", "Tap");  // unknown to the engine: routed, no outcome, nothing reported
    outcome = ControlOutcome::menuOpened;
    input("s1");
    outcome = ControlOutcome::menuItemInert;
    fake.http->reply("/v1/sdk/live/s1/control/feedback", 503, R"({"error":"busy","message":"m"})");
    input("s1");
    EXPECT_EQ(applied, (std::vector<std::string>{"s1 Tap", "s1 tap", "s1 tap"}));
    EXPECT_EQ(
        bodies("/v1/sdk/live/s1/control/feedback"),
        (std::vector<std::string>{R"({"kind":"menuOpened"})", R"({"kind":"menuItemInert"})"}));
    EXPECT_EQ(fake.log->lines.back().first, LogLevel::error);
    EXPECT_EQ(lastLine().rfind("control feedback 'menuItemInert' failed: ", 0), 0u) << lastLine();
}

}  // namespace
}  // namespace virela
