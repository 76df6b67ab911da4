#pragma once

// The whole client over the headless screen, a recording overlay, a hand-driven clock and
// scripted backend replies, for the live session and the remote control it owns. What the
// tests check is what the customer, the host and the backend see: the sheets, the overlay and
// its banner, the callbacks, the requests and the log. Inputs that pass every rule land in a
// recording route instead of the engine.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/client/client.hpp"
#include "core/ports/manual_clock.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/presenters.hpp"
#include "platform/headless/render/renderer.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/recording_overlay.hpp"

namespace virela::testing {

class LiveFixture : public ::testing::Test {
  protected:
    using json = nlohmann::json;

    FakePlatform fake;
    std::shared_ptr<headless::HeadlessHost> host = std::make_shared<headless::HeadlessHost>();
    std::shared_ptr<headless::HeadlessPromptPresenter> prompts =
        std::make_shared<headless::HeadlessPromptPresenter>([] { return Appearance::light; });
    std::shared_ptr<RecordingPresenter> overlay = std::make_shared<RecordingPresenter>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<VirelaClient> client;
    std::shared_ptr<headless::Window> window;
    std::vector<std::string> events;   // the host's callbacks, in order
    std::vector<std::string> applied;  // "session action" of each input that landed
    ControlOutcome outcome = ControlOutcome::none;

    void SetUp() override {
        fake.platform->host = host;
        fake.platform->actions = host->actions();
        fake.platform->renderer = std::make_shared<headless::HeadlessRenderer>();
        fake.platform->prompts = prompts;
        fake.platform->overlay = overlay;
        makeClient();
    }

    // A new client, configured; the screen stays.
    void makeClient() {
        VirelaClient::Options options{clock, {}};
        options.applyInput = [this](const ControlInputPush& input, const WindowFacts&) {
            applied.push_back(input.sessionId + " " + input.action);
            return outcome;
        };
        client = VirelaClient::create(fake.platform, std::move(options));
        if (!window) window = headless::makeAppWindow(*host, {390, 844});
        client->setCallbacks(VirelaCallbacks{
            .onRequestShown = [this] { events.push_back("shown"); },
            .onError = [this](const VirelaErrorValue&) { events.push_back("error"); },
            .onRemoteControl =
                [this](bool on) { events.push_back(on ? "control on" : "control off"); },
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
    void push(const std::string& type, const json& payload) {
        push(json{{"type", type}, {"payload", payload}});
    }
    void live(const std::string& id, const std::string& state,
              std::optional<std::string> generation = std::nullopt) {
        json payload = {{"sessionId", id}, {"state", state}};
        if (generation) payload["generation"] = *generation;
        push("live", payload);
    }
    void note(const std::string& id, const std::string& kind, json extra = json::object()) {
        extra["sessionId"] = id;
        extra["kind"] = kind;
        push("live-note", extra);
    }
    void control(const std::string& id, const std::string& state, json extra = json::object()) {
        extra["sessionId"] = id;
        extra["state"] = state;
        push("control", extra);
    }
    void input(const std::string& id, const std::string& action = "tap") {
        push("control-input", {{"sessionId", id}, {"action", action}, {"x", 0.5}, {"y", 0.5}});
    }
    // Control armed in session s1 under `generation`.
    void armed(const std::string& generation = "g1") {
        live("s1", "active");
        control("s1", "active", {{"generation", generation}});
        ASSERT_TRUE(overlay->banner);
        ASSERT_EQ(events.back(), "control on");
    }

    // Sharing runs for `id`: the overlay is up and its frames go to that session.
    bool sharing(const std::string& id) const {
        if (!overlay->showing || !clock->isScheduled(TimerId::liveFrame)) return false;
        for (auto it = fake.http->requests.rbegin(); it != fake.http->requests.rend(); ++it) {
            const std::string path = it->url.path();
            if (path.ends_with("/frame")) return path == "/v1/sdk/live/" + id + "/frame";
        }
        return false;
    }

    std::vector<HttpRequest> to(const std::string& path) const {
        return fake.http->requestsTo(path);
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
    bool logged(LogLevel level, const std::string& line) const {
        const auto& lines = fake.log->lines;
        return std::find(lines.begin(), lines.end(), std::pair{level, line}) != lines.end();
    }
    const std::string& lastLine() const { return fake.log->lines.back().second; }
};

}  // namespace virela::testing
