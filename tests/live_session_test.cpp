// Live sharing on the headless screen with a hand-driven clock and scripted backend replies: the
// consent, frames, their end, notes and the indicator confirmations.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <functional>

#include "core/client/client.hpp"
#include "core/ports/manual_clock.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/presenters.hpp"
#include "platform/headless/render/renderer.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/recording_overlay.hpp"

namespace virela {
namespace {

using nlohmann::json;
using testing::FakePlatform;
using testing::RecordingPresenter;

using testing::kRegisteredReply;

class LiveSessionTest : public ::testing::Test {
  protected:
    FakePlatform fake;
    std::shared_ptr<headless::HeadlessHost> host = std::make_shared<headless::HeadlessHost>();
    std::shared_ptr<headless::HeadlessPromptPresenter> prompts =
        std::make_shared<headless::HeadlessPromptPresenter>([] { return Appearance::light; });
    std::shared_ptr<RecordingPresenter> overlay = std::make_shared<RecordingPresenter>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<VirelaClient> client;
    std::shared_ptr<headless::Window> window;
    std::vector<std::string> events;

    void SetUp() override {
        fake.platform->host = host;
        fake.platform->actions = host->actions();
        fake.platform->renderer = std::make_shared<headless::HeadlessRenderer>();
        fake.platform->prompts = prompts;
        fake.platform->overlay = overlay;
        makeClient();
    }

    void makeClient() {
        client = VirelaClient::create(fake.platform, {clock, {}});
        if (!window) window = headless::makeAppWindow(*host, {390, 844});
        client->setCallbacks(VirelaCallbacks{
            .onRequestShown = [this] { events.push_back("shown"); },
            .onError = [this](const VirelaErrorValue&) { events.push_back("error"); },
            .onLiveEnded =
                [this](const LiveSession& s) {
                    events.push_back("ended " + s.sessionId);
                    // Told after the teardown: the frames have stopped.
                    EXPECT_FALSE(clock->isScheduled(TimerId::liveFrame));
                },
        });
        fake.http->reply("/v1/sdk/devices", 200, kRegisteredReply);
        client->configure(*Url::parse("https://backend.test"), "key", std::nullopt, false,
                          [](std::exception_ptr) {});
        fake.executor->drain();
        ASSERT_TRUE(client->registration());
    }

    void push(const json& message) {
        client->channel().dispatch(message.dump());
        fake.executor->drain();
    }
    void live(const std::string& id, const std::string& state,
              std::optional<std::string> generation = std::nullopt) {
        json payload = {{"sessionId", id}, {"state", state}};
        if (generation) payload["generation"] = *generation;
        push({{"type", "live"}, {"payload", payload}});
    }
    void note(const std::string& id, const std::string& kind, json extra = json::object()) {
        extra["sessionId"] = id;
        extra["kind"] = kind;
        push({{"type", "live-note"}, {"payload", extra}});
    }
    std::vector<HttpRequest> to(const std::string& path) const {
        return fake.http->requestsTo(path);
    }
    // Answers the oldest pending request to `path`.
    void answer(const std::string& path, int status, std::string body = "{}") {
        auto index = fake.http->pendingIndex(path);
        ASSERT_TRUE(index) << path;
        HttpResponse response;
        response.status = status;
        response.body = std::move(body);
        fake.http->completePending(*index, HttpOutcome{response, nullptr});
        fake.executor->drain();
    }
};

TEST_F(LiveSessionTest, AnAllowedRequestStartsFramesUnderTheOverlay) {
    push({{"type", "live"},
          {"payload",
           {{"sessionId", "s1"},
            {"state", "requested"},
            {"promptId", "p1"},
            {"agentName", "Dana"},
            {"workspaceName", "Acme"}}}});
    EXPECT_EQ(events, std::vector<std::string>{"shown"});
    ASSERT_TRUE(prompts->sheet());
    EXPECT_EQ(prompts->sheet()->title, "Share your screen live?");
    EXPECT_EQ(prompts->sheet()->body, liveDefaultConsentCopy);
    EXPECT_EQ(to("/v1/sdk/prompts/p1/shown").size(), 1u);

    fake.http->reply("/v1/sdk/live/s1/respond", 200, "{}");
    ASSERT_TRUE(prompts->press("Start sharing"));
    fake.executor->drain();
    ASSERT_EQ(to("/v1/sdk/live/s1/respond").size(), 1u);
    EXPECT_EQ(to("/v1/sdk/live/s1/respond")[0].body, R"({"allow":true})");
    EXPECT_TRUE(overlay->showing);
    EXPECT_EQ(client->liveSession().sessionId(), "s1");

    // One frame at once, then one per third of a second: a JPEG in the one multipart part.
    ASSERT_EQ(to("/v1/sdk/live/s1/frame").size(), 1u);
    const std::string body = to("/v1/sdk/live/s1/frame")[0].body;
    EXPECT_NE(body.find("filename=\"capture.png\""), std::string::npos);
    EXPECT_NE(body.find("\xFF\xD8\xFF"), std::string::npos);
    answer("/v1/sdk/live/s1/frame", 200);
    clock->advance(1.0 / 3);
    answer("/v1/sdk/live/s1/frame", 200);
    clock->advance(1.0 / 3);
    EXPECT_EQ(to("/v1/sdk/live/s1/frame").size(), 3u);

    // An "active" that follows our own start changes nothing but the generation.
    live("s1", "active", "g7");
    EXPECT_EQ(client->liveSession().sharingGeneration(), "g7");
    ASSERT_EQ(to("/v1/sdk/live/s1/indicator").size(), 1u);
    EXPECT_EQ(to("/v1/sdk/live/s1/indicator")[0].body, R"({"kind":"sharing","generation":"g7"})");
    EXPECT_EQ(overlay->windowsShown, 1);
    EXPECT_EQ(events, std::vector<std::string>{"shown"});
}

TEST_F(LiveSessionTest, ASlowBackendNeverDelaysTheNextTickAndTheBackgroundSendsNothing) {
    live("s1", "active");
    clock->advance(5);  // no upload ever answers: every tick still sends a fresh frame
    EXPECT_EQ(to("/v1/sdk/live/s1/frame").size(), 16u);
    answer("/v1/sdk/live/s1/frame", 500);  // any failure but 404/410 keeps sharing
    clock->advance(1.0 / 3);
    EXPECT_EQ(to("/v1/sdk/live/s1/frame").size(), 17u);
    EXPECT_EQ(client->liveSession().sessionId(), "s1");

    fake.lifecycle->send(AppEvent::didEnterBackground);
    clock->advance(2);
    EXPECT_EQ(to("/v1/sdk/live/s1/frame").size(), 17u);
    fake.lifecycle->send(AppEvent::willEnterForeground);
    clock->advance(1.0 / 3);
    EXPECT_EQ(to("/v1/sdk/live/s1/frame").size(), 18u);
}

TEST_F(LiveSessionTest, EveryEndingTearsDownOnceAndTellsTheHostOnce) {
    // A 410 for a frame: the backend no longer knows the session.
    live("s1", "active");
    answer("/v1/sdk/live/s1/frame", 410);
    EXPECT_EQ(events, std::vector<std::string>{"ended s1"});
    EXPECT_FALSE(overlay->showing);
    clock->advance(2);
    EXPECT_EQ(to("/v1/sdk/live/s1/frame").size(), 1u);

    // Another session's "active" ends the first one before it starts.
    live("s2", "active");
    live("s3", "active");
    EXPECT_EQ(events, (std::vector<std::string>{"ended s1", "ended s2"}));
    EXPECT_EQ(client->liveSession().sessionId(), "s3");

    // The customer taps Stop: told first, then the backend hears "allow": false.
    overlay->stop();
    fake.executor->drain();
    EXPECT_EQ(events.back(), "ended s3");
    ASSERT_EQ(to("/v1/sdk/live/s3/respond").size(), 1u);
    EXPECT_EQ(to("/v1/sdk/live/s3/respond")[0].body, R"({"allow":false})");

    // "ended" with nothing shared only closes the sheet.
    live("s4", "ended");
    EXPECT_EQ(events.size(), 3u);

    // stop() takes a running session down like any other ending.
    live("s5", "active");
    client->stop();
    fake.executor->drain();
    EXPECT_EQ(events.back(), "ended s5");
    EXPECT_EQ(events.size(), 4u);
}

TEST_F(LiveSessionTest, NotesShowToastsAndOnlyAShownRecordingIsConfirmed) {
    live("s1", "active");
    note("s1", "frameSaved", {{"promptId", "p9"}});
    ASSERT_EQ(overlay->toasts.size(), 1u);
    EXPECT_EQ(overlay->toasts[0].text, "A snapshot of your screen was saved");
    EXPECT_EQ(to("/v1/sdk/prompts/p9/shown").size(), 1u);

    note("s1", "recordingStarted");
    EXPECT_TRUE(overlay->toasts.back().recording);
    EXPECT_FALSE(client->liveSession().recordingGeneration());
    EXPECT_TRUE(to("/v1/sdk/live/s1/indicator").empty());

    note("other", "recordingStarted", {{"generation", "r1"}});
    EXPECT_EQ(overlay->toasts.size(), 2u);

    note("s1", "recordingStarted", {{"generation", "r2"}});
    ASSERT_EQ(to("/v1/sdk/live/s1/indicator").size(), 1u);
    EXPECT_EQ(to("/v1/sdk/live/s1/indicator")[0].body, R"({"kind":"recording","generation":"r2"})");

    // Every 10 s what is still on screen is confirmed again; a stopped recording no longer.
    clock->advance(10);
    EXPECT_EQ(to("/v1/sdk/live/s1/indicator").size(), 2u);
    note("s1", "recordingStopped");
    clock->advance(10);
    EXPECT_EQ(to("/v1/sdk/live/s1/indicator").size(), 2u);
}

TEST_F(LiveSessionTest, ARefusedOrFailedConfirmationIsLoggedAndChangesNothing) {
    live("s1", "active", "g1");
    answer("/v1/sdk/live/s1/indicator", 409,
           R"({"error":"lease_mismatch","message":"Lease moved on."})");
    const std::pair<LogLevel, std::string> refused{
        LogLevel::error,
        "indicator confirm 'sharing' refused: 409 lease_mismatch — the backend does not hold "
        "this lease; input/frames of this kind are being dropped"};
    EXPECT_NE(std::find(fake.log->lines.begin(), fake.log->lines.end(), refused),
              fake.log->lines.end());
    EXPECT_EQ(client->liveSession().sessionId(), "s1");

    // The overlay went away under us: the next check ends sharing.
    overlay->showing = false;
    clock->advance(10);
    EXPECT_EQ(events, std::vector<std::string>{"ended s1"});
}

TEST_F(LiveSessionTest, NoOverlayMeansNoSharingAndNoQuestion) {
    fake.platform->overlay = nullptr;
    makeClient();
    live("s1", "requested");
    EXPECT_FALSE(prompts->sheet());
    EXPECT_TRUE(events.empty());
    live("s1", "active");
    EXPECT_FALSE(client->liveSession().sessionId());
    EXPECT_TRUE(to("/v1/sdk/live/s1/frame").empty());
}

TEST_F(LiveSessionTest, AnAnswerWhoseReasonIsGoneStartsNothing) {
    auto endings = testing::epochEndings(fake, client);
    endings.insert(endings.end(), {
                                      {"ended push", [&] { live("s1", "ended"); }},
                                      {"newer request", [&] { live("s2", "requested"); }},
                                  });
    for (const auto& [name, end] : endings) {
        SCOPED_TRACE(name);
        makeClient();
        events.clear();
        live("s1", "requested");
        ASSERT_TRUE(prompts->press("Start sharing"));
        fake.executor->drain();
        end();
        fake.executor->drain();
        answer("/v1/sdk/live/s1/respond", 200);
        clock->advance(1);
        EXPECT_FALSE(overlay->showing);
        EXPECT_FALSE(client->liveSession().sessionId());
        EXPECT_FALSE(clock->isScheduled(TimerId::liveFrame));
        EXPECT_FALSE(clock->isScheduled(TimerId::visibleState));
        EXPECT_TRUE(to("/v1/sdk/live/s1/frame").empty());
        EXPECT_TRUE(std::none_of(events.begin(), events.end(),
                                 [](const std::string& e) { return e != "shown"; }));
    }

    // A failure that comes back after stop() is not reported either.
    makeClient();
    events.clear();
    live("s3", "requested");
    ASSERT_TRUE(prompts->press("Start sharing"));
    fake.executor->drain();
    client->stop();
    fake.executor->drain();
    answer("/v1/sdk/live/s3/respond", 500);
    EXPECT_EQ(events, std::vector<std::string>{"shown"});
}

TEST_F(LiveSessionTest, AnEndedSessionLeavesNoWatchAndNoMarksBehind) {
    const std::vector<std::pair<std::string, std::function<void()>>> endings{
        // First, while the only frame waiting for its reply is this session's.
        {"gone frame", [&] { answer("/v1/sdk/live/s1/frame", 410); }},
        {"ended push", [&] { live("s1", "ended"); }},
        {"customer stop", [&] { overlay->stop(); }},
        {"reset",
         [&] {
             fake.http->reply("/v1/sdk/devices/reset", 200, "{}");
             client->reset();
         }},
        {"stop", [&] { client->stop(); }},
    };
    for (const auto& [name, end] : endings) {
        SCOPED_TRACE(name);
        makeClient();
        events.clear();
        live("s1", "active");
        push({{"type", "guide"},
              {"payload", {{"sessionId", "s1"}, {"kind", "box"}, {"x", 0.1}, {"y", 0.1}}}});
        ASSERT_TRUE(overlay->scroll);  // the marks are watched
        end();
        fake.executor->drain();
        EXPECT_EQ(events, std::vector<std::string>{"ended s1"});
        EXPECT_FALSE(overlay->scroll);
        EXPECT_TRUE(overlay->marks.empty());
        EXPECT_FALSE(clock->isScheduled(TimerId::pointingReset));
    }
}

TEST(ViewMessage, IsConcatenatedAsItStands) {
    EXPECT_EQ(viewMessage("nav", "s-123"), R"({"type":"view","kind":"nav","sessionId":"s-123"})");
    EXPECT_EQ(viewMessage("scroll", "a\"b"),
              R"({"type":"view","kind":"scroll","sessionId":"a"b"})");
}

}  // namespace
}  // namespace virela
