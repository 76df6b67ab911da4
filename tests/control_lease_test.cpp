// Remote control on the headless screen with a hand-driven clock: the lease armed only with a
// generation and the banner, its end by every path, and the input intake's drop rules. Inputs
// that pass land in a recording route instead of the engine.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>

#include "core/client/client.hpp"
#include "core/ports/manual_clock.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/presenters.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/recording_overlay.hpp"

namespace virela {
namespace {

using nlohmann::json;
using testing::FakePlatform;
using testing::kRegisteredReply;
using testing::RecordingPresenter;

constexpr const char* kNotActive =
    "control input 'tap' dropped: control is not active on this device (banner never attached, "
    "or the grant was never confirmed)";

class ControlLeaseTest : public ::testing::Test {
  protected:
    FakePlatform fake;
    std::shared_ptr<headless::HeadlessHost> host = std::make_shared<headless::HeadlessHost>();
    std::shared_ptr<headless::HeadlessPromptPresenter> prompts =
        std::make_shared<headless::HeadlessPromptPresenter>([] { return Appearance::light; });
    std::shared_ptr<RecordingPresenter> overlay = std::make_shared<RecordingPresenter>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<VirelaClient> client;
    std::shared_ptr<headless::Window> window = headless::makeAppWindow(*host, {390, 844});
    std::vector<std::string> events;
    std::vector<std::string> applied;
    ControlOutcome outcome = ControlOutcome::none;

    void SetUp() override {
        fake.platform->host = host;
        fake.platform->actions = host->actions();
        fake.platform->prompts = prompts;
        fake.platform->overlay = overlay;
        VirelaClient::Options options{clock, {}};
        options.applyInput = [this](const ControlInputPush& input, const WindowFacts&) {
            applied.push_back(input.sessionId + " " + input.action);
            return outcome;
        };
        client = VirelaClient::create(fake.platform, std::move(options));
        client->setCallbacks(VirelaCallbacks{
            .onRequestShown = [this] { events.push_back("shown"); },
            .onError = [this](const VirelaErrorValue&) { events.push_back("error"); },
            .onRemoteControl =
                [this](bool on) { events.push_back(on ? "control on" : "control off"); },
            .onLiveEnded =
                [this](const LiveSession& s) { events.push_back("ended " + s.sessionId); },
        });
        fake.http->reply("/v1/sdk/devices", 200, kRegisteredReply);
        client->configure(*Url::parse("https://backend.test"), "key", std::nullopt, false,
                          [](std::exception_ptr) {});
        fake.executor->drain();
        ASSERT_TRUE(client->registration());
    }

    void push(const std::string& type, const json& payload) {
        client->channel().dispatch(json{{"type", type}, {"payload", payload}}.dump());
        fake.executor->drain();
    }
    void live(const std::string& id, const std::string& state) {
        push("live", {{"sessionId", id}, {"state", state}});
    }
    void control(const std::string& id, const std::string& state, json extra = json::object()) {
        extra["sessionId"] = id;
        extra["state"] = state;
        push("control", extra);
    }
    void input(const std::string& id, const std::string& action = "tap") {
        push("control-input", {{"sessionId", id}, {"action", action}, {"x", 0.5}, {"y", 0.5}});
    }
    std::vector<std::string> bodies(const std::string& path) const {
        std::vector<std::string> out;
        for (const auto& request : fake.http->requestsTo(path)) out.push_back(request.body);
        return out;
    }
    std::vector<std::string> controlConfirmations() const {
        std::vector<std::string> out;
        for (const auto& body : bodies("/v1/sdk/live/s1/indicator")) {
            if (body.find(R"("kind":"control")") != std::string::npos) out.push_back(body);
        }
        return out;
    }
    bool logged(LogLevel level, const std::string& line) const {
        const auto& lines = fake.log->lines;
        return std::find(lines.begin(), lines.end(), std::pair{level, line}) != lines.end();
    }
    const std::string& lastLine() const { return fake.log->lines.back().second; }
    void armed(const std::string& generation = "g1") {
        live("s1", "active");
        control("s1", "active", {{"generation", generation}});
        ASSERT_TRUE(client->controlLease().active());
    }
};

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
    EXPECT_FALSE(client->controlLease().active());
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
    EXPECT_EQ(client->controlLease().generation(), "g2");
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
    EXPECT_EQ(client->liveSession().sessionId(), "s1");  // sharing goes on
}

TEST_F(ControlLeaseTest, EveryEndOfTheLiveSessionEndsControlFirst) {
    armed();
    live("s1", "ended");
    EXPECT_EQ(events, (std::vector<std::string>{"control on", "control off", "ended s1"}));
    EXPECT_FALSE(client->controlLease().generation());

    armed();
    live("s2", "active");  // another session replaces this one
    EXPECT_EQ(events.back(), "ended s1");
    EXPECT_EQ(events[events.size() - 2], "control off");
    control("s1", "active", {{"generation", "g9"}});  // the old session's grant
    EXPECT_FALSE(client->controlLease().active());

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
    EXPECT_EQ(client->prompt().showing(), ConsentPrompt::Showing::control);
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
    EXPECT_FALSE(client->controlLease().pending());

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
    EXPECT_EQ(client->prompt().showing(), ConsentPrompt::Showing::supportCode);

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
