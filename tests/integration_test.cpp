// The real clients over real loopback sockets against the local backend.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>

#include "core/api/diagnostics.hpp"
#include "core/api/virela.hpp"
#include "core/base/errors.hpp"
#include "core/client/client.hpp"
#include "core/ports/manual_clock.hpp"
#include "core/transport/realtime_channel.hpp"
#include "core/transport/transport.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/render/image.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace virela {
namespace {

using nlohmann::json;

// With VIRELA_TRAFFIC_DIR set, every backend a test starts records the device traffic to a file of
// its own there (the process id keeps parallel runs apart), for
// tests/protocol/validate-traffic.mjs.
std::string trafficFile() {
    const char* dir = std::getenv("VIRELA_TRAFFIC_DIR");
    if (dir == nullptr || *dir == '\0') return {};
    static std::atomic<int> backends{0};
    return (std::filesystem::path(dir) / ("integration-" + std::to_string(::getpid()) + "-" +
                                          std::to_string(++backends) + ".jsonl"))
        .string();
}

std::filesystem::path freshStateDir() {
    auto dir = std::filesystem::temp_directory_path() /
               ("virela-it-" + std::to_string(::getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir);
    return dir;
}

class Integration : public ::testing::Test {
  protected:
    void SetUp() override {
        stateDir = freshStateDir();
        headless::RuntimeOptions options;
        options.stateDirectory = stateDir;
        adjust(options);
        runtime = std::make_unique<headless::Runtime>(options);
        devserver::Options served = backendOptions();
        served.trafficLog = traffic;
        backend.start(served);
        base = *Url::parse(serverUrl());
        client = runtime->runOnMain([&] { return VirelaClient::create(runtime->platform()); });
    }
    virtual devserver::Options backendOptions() const { return {}; }
    virtual void adjust(headless::RuntimeOptions&) const {}
    virtual std::string serverUrl() const { return backend.url(); }
    void screenshotAllowedEndToEnd();
    // A client on the runtime's platform whose log lines go to `log`. Main thread.
    std::shared_ptr<VirelaClient> clientLoggingTo(std::shared_ptr<Log> log) const {
        auto platform = std::make_shared<Platform>(*runtime->platform());
        platform->log = std::move(log);
        return VirelaClient::create(platform);
    }
    void TearDown() override {
        runtime->runOnMain([&] { client.reset(); });
        backend.stop();
        runtime.reset();
        std::filesystem::remove_all(stateDir);
    }

    std::exception_ptr configure(const std::string& key = "vk_demo_local",
                                 std::optional<VirelaUser> user = std::nullopt) {
        std::promise<std::exception_ptr> done;
        runtime->runOnMain([&] {
            client->configure(base, key, user, true,
                              [&](std::exception_ptr e) { done.set_value(e); });
        });
        return done.get_future().get();
    }
    SendResult post(const std::string& path) {
        std::promise<SendResult> done;
        runtime->runOnMain([&] {
            client->transport()->postJson(path, {}, false,
                                          [&](SendResult r) { done.set_value(r); });
        });
        return done.get_future().get();
    }
    static VirelaError virelaError(const std::exception_ptr& error) {
        try {
            std::rethrow_exception(error);
        } catch (const VirelaError& e) {
            return e;
        }
    }

    const std::string traffic = trafficFile();
    std::filesystem::path stateDir;
    std::unique_ptr<headless::Runtime> runtime;
    devserver::Server backend;
    Url base;
    std::shared_ptr<VirelaClient> client;
};

TEST_F(Integration, ConfigureRegistersOverHttpWithTheKeyThenUsesTheToken) {
    ASSERT_EQ(configure("vk_demo_local", VirelaUser("u1", "Ana")), nullptr);
    auto registration = backend.requests("/v1/sdk/devices").at(0);
    EXPECT_EQ(registration.method, "POST");
    EXPECT_EQ(registration.header("X-Virela-Key"), "vk_demo_local");
    EXPECT_EQ(registration.header("Content-Type"), "application/json");
    EXPECT_FALSE(registration.header("X-Virela-Device"));
    auto body = json::parse(registration.body);
    EXPECT_EQ(body.size(), 20u);
    EXPECT_EQ(body["userName"], "Ana");
    EXPECT_EQ(body["os"].get<std::string>().rfind("Linux ", 0), 0u);
    EXPECT_TRUE(body["vendorId"].is_string() || body["vendorId"].is_null());

    auto device =
        backend.device(runtime->runOnMain([&] { return client->registration()->deviceId; }));
    ASSERT_TRUE(device);
    EXPECT_EQ(client->supportCode(), device->supportCode);

    std::promise<void> identified;
    runtime->runOnMain(
        [&] { client->identify("u1", "Ana", std::nullopt, [&] { identified.set_value(); }); });
    identified.get_future().get();
    auto identify = backend.requests("/v1/sdk/devices/identify").at(0);
    EXPECT_FALSE(identify.header("X-Virela-Key"));
    EXPECT_EQ(identify.header("X-Virela-Device"), device->token);
    EXPECT_EQ(backend.device(device->deviceId)->user->name, "Ana");

    std::promise<void> reset;
    runtime->runOnMain([&] { client->reset([&] { reset.set_value(); }); });
    reset.get_future().get();
    EXPECT_NE(client->supportCode(), device->supportCode);
    EXPECT_EQ(client->supportCode(), backend.device(device->deviceId)->supportCode);
}

TEST_F(Integration, ErrorModelOverRealHttp) {
    ASSERT_EQ(configure(), nullptr);
    // Any route will do; the reset takes the empty body that post() sends.
    const std::string route = "/v1/sdk/devices/reset";
    backend.queueReply(route, {204, "", ""});
    auto empty = post(route);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty.body, "");

    backend.queueReply(route, {500, R"({"message":"x"})"});
    EXPECT_EQ(virelaError(post(route).error), VirelaError(500, "unknown", "x"));

    backend.queueReply(route, {401, "<html><body>Unauthorized</body></html>", "text/html"});
    EXPECT_EQ(virelaError(post(route).error), VirelaError(401, "unknown", "Request failed."));

    auto rejected = virelaError(configure("not-a-key"));
    EXPECT_EQ(rejected.status(), 401);
    EXPECT_EQ(rejected.code(), "invalid_key");

    // Nothing listens on the port once the backend stops: the platform's refusal passes through.
    backend.stop();
    try {
        std::rethrow_exception(configure());
        FAIL() << "configure succeeded without a backend";
    } catch (const NetworkError& e) {
        EXPECT_EQ(e.kind(), NetworkError::Kind::refused);
    }
}

TEST_F(Integration, FailedReconfigureKeepsTheRegistration) {
    ASSERT_EQ(configure(), nullptr);
    auto first = runtime->runOnMain([&] { return *client->registration(); });
    backend.queueReply("/v1/sdk/devices", {200, R"({"deviceId":"d","deviceToken":"t"})"});
    EXPECT_THROW(std::rethrow_exception(configure()), DecodingError);
    runtime->runOnMain([&] {
        EXPECT_EQ(client->registration()->deviceId, first.deviceId);
        EXPECT_EQ(client->registration()->deviceToken, first.deviceToken);
    });
}

TEST_F(Integration, InstallIdentifierSurvivesARestartAndHealthIsReported) {
    ASSERT_EQ(configure(), nullptr);
    auto installId = json::parse(backend.requests("/v1/sdk/devices").at(0).body)["installId"];

    // A new runtime and client on the same state directory: the next launch of the app.
    runtime->runOnMain([&] { client.reset(); });
    runtime.reset();
    headless::RuntimeOptions options;
    options.stateDirectory = stateDir;
    runtime = std::make_unique<headless::Runtime>(options);
    client = runtime->runOnMain([&] { return VirelaClient::create(runtime->platform()); });
    ASSERT_EQ(configure(), nullptr);
    auto registrations = backend.requests("/v1/sdk/devices");
    ASSERT_EQ(registrations.size(), 2u);
    EXPECT_EQ(json::parse(registrations[1].body)["installId"], installId);
    EXPECT_EQ(backend.devices().size(), 1u);

    // The path watch's first update sends the first health report.
    for (int i = 0; i < 200 && backend.requests("/v1/sdk/devices/health").empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    auto health = backend.requests("/v1/sdk/devices/health");
    ASSERT_FALSE(health.empty());
    EXPECT_EQ(json::parse(health[0].body).size(), 8u);
}

// Waits on the test thread until `ready` holds on the main thread.
template <class F>
bool eventually(headless::Runtime& runtime, F ready) {
    for (int i = 0; i < 500; ++i) {
        if (runtime.runOnMain(ready)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class Channel : public Integration {
  protected:
    void SetUp() override {
        Integration::SetUp();
        runtime->runOnMain([&] { client->setCallbacks({.onDenied = [this] { ++denied; }}); });
        ASSERT_EQ(configure(), nullptr);
        deviceId = runtime->runOnMain([&] { return client->registration()->deviceId; });
        ASSERT_TRUE(backend.waitForConnection(deviceId, std::chrono::seconds(5)));
    }
    std::string deviceId;
    std::atomic<int> denied{0};
};

TEST_F(Channel, ConnectsWithTheCredentialOnlyAndSendsStateMessagesVerbatim) {
    auto upgrade = backend.requests("/sdk/socket").at(0);
    EXPECT_EQ(upgrade.method, "GET");
    EXPECT_EQ(upgrade.header("Sec-WebSocket-Protocol"),
              "virela.device." + backend.device(deviceId)->token);
    EXPECT_FALSE(upgrade.header("X-Virela-Device"));
    EXPECT_FALSE(upgrade.header("X-Virela-Key"));

    runtime->lifecycle().enterBackground();
    runtime->lifecycle().enterForeground();
    ASSERT_TRUE(backend.waitForFrames(deviceId, 2, std::chrono::seconds(5)));
    EXPECT_EQ(backend.framesFrom(deviceId),
              (std::vector<std::string>{R"({"type":"state","state":"background"})",
                                        R"({"type":"state","state":"foreground"})"}));
    EXPECT_EQ(backend.connectionsAccepted(deviceId), 1u);
}

// Device tokens are opaque: base64-style ones carry "/", "+", "=", ":" and even spaces.
class OddToken : public Channel {
  protected:
    devserver::Options backendOptions() const override {
        devserver::Options options;
        options.tokenPrefix = "ab/cd+ef==:gh ij-";
        return options;
    }
};

TEST_F(OddToken, TheCredentialGoesAsItStandsAndTheChannelWorks) {
    const std::string token = backend.device(deviceId)->token;
    ASSERT_EQ(token.rfind("ab/cd+ef==:gh ij-", 0), 0u);
    EXPECT_EQ(backend.requests("/sdk/socket").at(0).header("Sec-WebSocket-Protocol"),
              "virela.device." + token);
    backend.pushText(deviceId, R"({"type":"denied","payload":{}})");
    for (int i = 0; i < 500 && denied == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(denied, 1);
    EXPECT_EQ(backend.connectionsAccepted(deviceId), 1u);
}

// The backend over https and wss, with a certificate made for this run.
class OverTls : public Integration {
  protected:
    static const devserver::TlsIdentity& identity() {
        static const devserver::TlsIdentity made = devserver::makeSelfSignedIdentity();
        return made;
    }
    devserver::Options backendOptions() const override {
        devserver::Options options;
        options.tls = identity();
        return options;
    }
    void adjust(headless::RuntimeOptions& options) const override {
        options.http.caPem = identity().certificatePem;
    }
    std::string serverUrl() const override { return backend.tlsUrl(); }
};

TEST_F(OverTls, AWholeSessionRunsOverHttpsAndWss) {
    ASSERT_EQ(base.scheme(), "https");
    ASSERT_EQ(configure(), nullptr);
    const auto deviceId = runtime->runOnMain([&] { return client->registration()->deviceId; });
    ASSERT_TRUE(backend.waitForConnection(deviceId, std::chrono::seconds(5)));
    EXPECT_EQ(backend.requests("/sdk/socket").at(0).header("Sec-WebSocket-Protocol"),
              "virela.device." + backend.device(deviceId)->token);

    std::atomic<int> denied{0};
    runtime->runOnMain([&] { client->setCallbacks({.onDenied = [&] { ++denied; }}); });
    backend.pushText(deviceId, R"({"type":"denied","payload":{}})");
    runtime->lifecycle().enterBackground();
    ASSERT_TRUE(backend.waitForFrames(deviceId, 1, std::chrono::seconds(5)));
    EXPECT_TRUE(eventually(*runtime, [&] { return denied == 1; }));

    std::promise<void> identified;
    runtime->runOnMain(
        [&] { client->identify("u1", "Ana", std::nullopt, [&] { identified.set_value(); }); });
    identified.get_future().get();
    ASSERT_TRUE(backend.device(deviceId)->user);
}

// Without the test certificate in its trust, the client refuses the backend.
class UntrustedTls : public OverTls {
  protected:
    void adjust(headless::RuntimeOptions&) const override {}
};

TEST_F(UntrustedTls, FailsWithASecureConnectionErrorAndTheSocketOnlyBacksOff) {
    try {
        std::rethrow_exception(configure());
        FAIL() << "configure succeeded against an untrusted certificate";
    } catch (const NetworkError& e) {
        EXPECT_EQ(e.kind(), NetworkError::Kind::secureConnection) << e.what();
    }

    // The channel meets the same certificate: each attempt fails the same clear way and the
    // next one waits its turn; time only moves when the test moves it.
    auto clock = std::make_shared<ManualClock>();
    std::atomic<int> attempts{0};
    std::vector<double> delays;
    std::vector<std::exception_ptr> lost;
    auto channel = runtime->runOnMain([&] {
        auto made = RealtimeChannel::create(runtime->platform(), clock);
        made->setEvents(
            {.onConnecting = [&](const Url&) { ++attempts; },
             .onLost = [&](std::exception_ptr e) { lost.push_back(e); },
             .onReconnectScheduled = [&](double delay, int) { delays.push_back(delay); }});
        made->start(base, "any-token");
        return made;
    });
    ASSERT_TRUE(eventually(*runtime, [&] { return delays.size() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    runtime->runOnMain([&] { clock->advance(1); });
    ASSERT_TRUE(eventually(*runtime, [&] { return delays.size() == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    runtime->runOnMain([&] {
        EXPECT_EQ(attempts, 2);
        EXPECT_EQ(delays, (std::vector<double>{1, 2}));
        try {
            std::rethrow_exception(lost.at(0));
        } catch (const NetworkError& e) {
            EXPECT_EQ(e.kind(), NetworkError::Kind::secureConnection) << e.what();
        }
        channel->stop();
    });
}

TEST_F(Channel, BadFramesAreDroppedWithoutClosingTheSocket) {
    backend.pushText(deviceId, "{not json");
    backend.pushBinary(deviceId, std::string("\x00\xff", 2));
    backend.pushText(deviceId, R"({"type":"denied","payload":7})");
    backend.pushText(deviceId, R"({"type":"denied","payload":{}})");
    for (int i = 0; i < 500 && denied == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(denied, 1);
    EXPECT_TRUE(backend.connected(deviceId));
    EXPECT_EQ(backend.connectionsAccepted(deviceId), 1u);
}

TEST_F(Channel, ComesBackAfterADroppedConnectionAndABackendRestart) {
    backend.dropConnection(deviceId);
    ASSERT_TRUE(backend.waitForConnection(deviceId, std::chrono::seconds(5), 2));

    const auto port = backend.port();
    backend.stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // a retry or two fails
    devserver::Options options;
    options.port = port;
    options.trafficLog = traffic;
    backend.start(options);
    ASSERT_TRUE(backend.waitForConnection(deviceId, std::chrono::seconds(10), 3));
    backend.pushText(deviceId, R"({"type":"denied","payload":{}})");
    for (int i = 0; i < 500 && denied == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(denied, 1);

    // After stop() nothing comes back.
    runtime->runOnMain([&] { client->stop(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(backend.connected(deviceId));
    backend.stop();
    backend.start(options);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(backend.connectionsAccepted(deviceId), 3u);
}

// The agent asks, the customer allows, and the redacted PNG reaches the backend; then a second
// screenshot within the allowed call needs no prompt.
void Integration::screenshotAllowedEndToEnd() {
    std::mutex mutex;
    std::vector<CaptureResult> allowed;
    std::vector<std::string> errors;
    runtime->runOnMain([&] {
        auto window = headless::makeAppWindow(*runtime->host(), {390, 844});
        headless::add(*window, headless::textField({16, 100, 358, 44}, "hunter2", true));
        client->setCallbacks({.onAllowed =
                                  [&](const CaptureResult& r) {
                                      std::lock_guard lock(mutex);
                                      allowed.push_back(r);
                                  },
                              .onError =
                                  [&](const VirelaErrorValue& e) {
                                      std::lock_guard lock(mutex);
                                      errors.push_back(describe(e));
                                  }});
    });
    ASSERT_EQ(configure(), nullptr);
    const auto deviceId = runtime->runOnMain([&] { return client->registration()->deviceId; });
    ASSERT_TRUE(backend.waitForConnection(deviceId, std::chrono::seconds(5)));
    auto uploads = [&] {
        std::lock_guard lock(mutex);
        return allowed.size() + errors.size();
    };

    devserver::ScreenshotRequest request;
    request.mode = "PerSession";
    request.agentName = "Dana";
    request.workspaceName = "Acme";
    request.logoUrl = backend.logoUrl();
    auto asked = backend.askScreenshot(deviceId, request);
    ASSERT_TRUE(asked);
    const auto& prompts = runtime->prompts();
    ASSERT_TRUE(eventually(*runtime, [&] {
        return prompts->sheet() && prompts->sheet()->logo == headless::SheetState::Logo::image;
    }));
    EXPECT_EQ(runtime->runOnMain([&] { return prompts->sheet()->requestLine; }),
              "Requested by Dana from Acme support · only this app’s screen");
    ASSERT_TRUE(runtime->runOnMain([&] { return prompts->press("Allow for this call"); }));
    ASSERT_TRUE(backend.waitForUpload(asked->requestId, std::chrono::seconds(10)));
    ASSERT_TRUE(eventually(*runtime, [&] { return uploads() == 1; }));

    auto record = backend.captureRequest(asked->requestId);
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->promptShown);
    EXPECT_EQ(record->answer, true);
    ASSERT_EQ(allowed.size(), 1u) << (errors.empty() ? "" : errors[0]);
    EXPECT_EQ(allowed[0].captureId, record->captureId);
    EXPECT_EQ(allowed[0].imageUrl, record->imageUrl);
    auto png =
        headless::decodePng(std::vector<std::uint8_t>(record->png.begin(), record->png.end()));
    ASSERT_TRUE(png);
    EXPECT_EQ(png->width, 390);
    const std::uint8_t* box = &png->rgba[(104 * png->width + 20) * 4];
    EXPECT_EQ(std::vector<int>(box, box + 3), (std::vector<int>{226, 59, 55}));
    EXPECT_EQ(runtime->runOnMain([&] { return runtime->banner()->text(); }),
              "Screenshots allowed · 45 min left");

    // Within the allowed call, the agent's next screenshot needs no prompt.
    ASSERT_TRUE(backend.sendCapture(deviceId, asked->requestId));
    ASSERT_TRUE(eventually(*runtime, [&] { return uploads() == 2; }));
    EXPECT_FALSE(runtime->runOnMain([&] { return prompts->sheet().has_value(); }));
    EXPECT_NE(backend.captureRequest(asked->requestId)->captureId, record->captureId);
}

TEST_F(Integration, AScreenshotTheCustomerAllowsReachesTheBackendRedacted) {
    screenshotAllowedEndToEnd();
}

TEST_F(OverTls, AScreenshotTheCustomerAllowsReachesTheBackendOverHttps) {
    screenshotAllowedEndToEnd();
}

TEST_F(Integration, FacadeConfiguresInBothForms) {
    auto environment = VirelaEnvironment::custom(base);
    EXPECT_NO_THROW(Virela::configure("vk_demo_local", environment).get());
    EXPECT_TRUE(Virela::supportCode());

    std::promise<std::pair<std::exception_ptr, bool>> completed;
    Virela::configure("wrong-key", environment, std::nullopt, false, [&](std::exception_ptr e) {
        completed.set_value({e, runtime->executor()->isCurrent()});
    });
    auto [error, onMain] = completed.get_future().get();
    EXPECT_FALSE(onMain);
    EXPECT_EQ(virelaError(error).status(), 401);

    Virela::stop();
    runtime->runOnMain([] {});
    // Stopped: the realtime channel is closed, and the registration is kept.
    const auto device = VirelaDiagnostics::device();
    ASSERT_TRUE(device);
    EXPECT_TRUE(eventually(*runtime, [&] { return !backend.connected(device->deviceId); }));
    EXPECT_TRUE(Virela::supportCode());
}

// Keeps every line the library logs, for the texts a person reads.
class KeptLog final : public Log {
  public:
    void write(LogLevel, std::string_view line) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    }
    bool contains(std::string_view line) const {
        std::lock_guard lock(mutex_);
        return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

TEST_F(Integration, ALiveSessionRunsFromTheSheetToTheBackendsEnd) {
    using namespace std::chrono_literals;
    auto log = std::make_shared<KeptLog>();
    std::mutex mutex;
    std::vector<std::string> ended;
    std::shared_ptr<headless::Window> window;
    runtime->runOnMain([&] {
        client = clientLoggingTo(log);
        window = headless::makeAppWindow(*runtime->host(), {390, 844});
        headless::add(*window, headless::textField({16, 100, 358, 44}, "hunter2", true));
        headless::add(*window, headless::scrollView({0, 200, 390, 600}, {390, 2000}));
        client->setCallbacks({.onLiveEnded = [&](const LiveSession& session) {
            std::lock_guard lock(mutex);
            ended.push_back(session.sessionId);
        }});
    });
    ASSERT_EQ(configure(), nullptr);
    const auto deviceId = runtime->runOnMain([&] { return client->registration()->deviceId; });
    ASSERT_TRUE(backend.waitForConnection(deviceId, 5s));

    // The customer is asked, and sharing starts with the answer.
    devserver::LiveRequest request;
    request.agentName = "Dana";
    const auto asked = backend.requestLive(deviceId, request);
    ASSERT_TRUE(asked);
    const std::string id = asked->sessionId;
    const auto& prompts = runtime->prompts();
    ASSERT_TRUE(eventually(*runtime, [&] { return prompts->sheet().has_value(); }));
    EXPECT_EQ(runtime->runOnMain([&] { return prompts->sheet()->title; }),
              "Share your screen live?");
    ASSERT_TRUE(runtime->runOnMain([&] { return prompts->press("Start sharing"); }));
    ASSERT_TRUE(backend.waitForLiveAnswer(id, 5s));
    EXPECT_EQ(backend.liveSession(id)->answers, std::vector<bool>{true});
    EXPECT_TRUE(backend.waitForLivePromptShown(id, asked->promptId, 5s));

    // JPEG frames arrive with the password painted over, and the customer sees the pill.
    ASSERT_TRUE(backend.waitForLiveFrames(id, 3, 5s));
    const std::string latest = backend.liveSession(id)->latestFrame;
    auto frame = headless::decodeJpeg(std::vector<std::uint8_t>(latest.begin(), latest.end()));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width, 390);
    const std::uint8_t* box = &frame->rgba[(120 * frame->width + 30) * 4];
    EXPECT_GT(box[0], 180);
    EXPECT_LT(box[1], 110);
    EXPECT_LT(box[2], 110);
    EXPECT_EQ(runtime->runOnMain([&] { return runtime->overlay()->state()->status; }),
              "Sharing your screen · live");

    // The generation of "active" is confirmed as it came; a refused lease is logged as such.
    ASSERT_TRUE(backend.activateLive(deviceId, id, "g7"));
    ASSERT_TRUE(backend.waitForIndicator(id, 1, 5s));
    const auto sharing = backend.liveSession(id)->indicators.at(0);
    EXPECT_EQ(sharing.kind, "sharing");
    EXPECT_EQ(sharing.generation, "g7");
    backend.refuseIndicator("recording");
    devserver::LiveNote recording;
    recording.kind = "recordingStarted";
    recording.generation = "r1";
    ASSERT_TRUE(backend.sendLiveNote(deviceId, id, recording));
    ASSERT_TRUE(backend.waitForIndicator(id, 2, 5s));
    ASSERT_TRUE(eventually(*runtime, [&] {
        return log->contains(
            "indicator confirm 'recording' refused: 409 lease_mismatch — the backend does not "
            "hold this lease; input/frames of this kind are being dropped");
    }));

    // A box, then the customer scrolls: the box goes and the agent hears why, once.
    devserver::Guide guide;
    guide.kind = "box";
    ASSERT_TRUE(backend.sendGuide(deviceId, id, guide));
    ASSERT_TRUE(
        eventually(*runtime, [&] { return runtime->overlay()->state()->marks.size() == 1; }));
    runtime->runOnMain([&] { window->drag({195, 600}, {195, 400}); });
    ASSERT_TRUE(backend.waitForViewChanges(deviceId, 1, 5s));
    EXPECT_TRUE(runtime->runOnMain([&] { return runtime->overlay()->state()->marks.empty(); }));
    const auto views = backend.viewChanges(deviceId);
    ASSERT_EQ(views.size(), 1u);
    EXPECT_EQ(views[0].kind, "scroll");
    EXPECT_EQ(views[0].sessionId, id);

    // A 410 for a frame: the backend no longer knows the session, so sharing ends, once.
    backend.queueReply("/v1/sdk/live/" + id + "/frame", {410, R"({"error":"gone"})"});
    ASSERT_TRUE(eventually(*runtime, [&] {
        std::lock_guard lock(mutex);
        return !ended.empty();
    }));
    EXPECT_FALSE(runtime->runOnMain([&] { return runtime->overlay()->state().has_value(); }));
    const std::size_t frames = backend.liveSession(id)->frames;
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(backend.liveSession(id)->frames, frames);
    std::lock_guard lock(mutex);
    EXPECT_EQ(ended, std::vector<std::string>{id});
}

TEST_F(Integration, RemoteControlActsOnlyUnderTheLeaseAndNeverOnASecureField) {
    using namespace std::chrono_literals;
    auto log = std::make_shared<KeptLog>();
    std::mutex mutex;
    std::vector<bool> remote;
    std::shared_ptr<headless::View> toggle;
    std::shared_ptr<headless::View> password;
    std::shared_ptr<headless::View> name;
    runtime->runOnMain([&] {
        client = clientLoggingTo(log);
        auto window = headless::makeAppWindow(*runtime->host(), {390, 844});
        name = headless::add(*window, headless::textField({16, 100, 358, 44}, ""));
        password = headless::add(*window, headless::textField({16, 160, 358, 44}, "pw", true));
        toggle = headless::add(*window, headless::switchControl({300, 240, 52, 32}, false));
        client->setCallbacks({.onRemoteControl = [&](bool active) {
            std::lock_guard lock(mutex);
            remote.push_back(active);
        }});
    });
    ASSERT_EQ(configure(), nullptr);
    const auto deviceId = runtime->runOnMain([&] { return client->registration()->deviceId; });
    ASSERT_TRUE(backend.waitForConnection(deviceId, 5s));
    const std::string id = "s-ctl";
    ASSERT_TRUE(backend.activateLive(deviceId, id, "g1"));
    ASSERT_TRUE(backend.waitForLiveFrames(id, 1, 5s));
    const auto switchOn = [&] { return runtime->runOnMain([&] { return toggle->isOn; }); };
    const auto tapSwitch = [&] {
        return backend.sendInput(deviceId, id,
                                 devserver::ControlInput::tapAt(326.0 / 390, 256.0 / 844));
    };
    // The backend refuses to send input outside a confirmed lease; a rogue one would not.
    const std::string rogueTap = R"({"type":"control-input","payload":{"sessionId":"s-ctl",)"
                                 R"("action":"tap","x":0.8359,"y":0.3033}})";

    // Input before control is granted goes nowhere.
    EXPECT_FALSE(tapSwitch());
    ASSERT_TRUE(backend.pushText(deviceId, rogueTap));
    ASSERT_TRUE(eventually(*runtime, [&] {
        return log->contains(
            "control input 'tap' dropped: control is not active on this device (banner never "
            "attached, or the grant was never confirmed)");
    }));
    EXPECT_FALSE(switchOn());

    // The customer allows; the grant arms the lease once the banner is up, and it is confirmed.
    ASSERT_TRUE(backend.requestControl(deviceId, id));
    const auto& prompts = runtime->prompts();
    ASSERT_TRUE(eventually(*runtime, [&] { return prompts->sheet().has_value(); }));
    ASSERT_TRUE(runtime->runOnMain([&] { return prompts->press("Allow control"); }));
    ASSERT_TRUE(backend.waitForControlAnswer(id, 5s));
    const std::size_t confirmations = backend.liveSession(id)->indicators.size();
    ASSERT_TRUE(backend.grantControl(deviceId, id, "c1"));
    ASSERT_TRUE(backend.waitForIndicator(id, confirmations + 1, 5s));
    const auto control = backend.liveSession(id)->indicators.back();
    EXPECT_EQ(control.kind, "control");
    EXPECT_EQ(control.generation, "c1");
    EXPECT_TRUE(runtime->runOnMain([&] { return runtime->overlay()->state()->controlBanner; }));

    ASSERT_TRUE(tapSwitch());
    ASSERT_TRUE(eventually(*runtime, [&] { return toggle->isOn; }));

    // Text goes to the focused field, never to a secure one, whatever the agent taps: the tap on
    // the secure field ends the focus, so what follows it reaches no field at all.
    ASSERT_TRUE(backend.sendInput(deviceId, id, devserver::ControlInput::tapAt(0.5, 122.0 / 844)));
    ASSERT_TRUE(backend.sendInput(deviceId, id, devserver::ControlInput::typeText("Ana")));
    ASSERT_TRUE(eventually(*runtime, [&] { return name->text == "Ana"; }));
    ASSERT_TRUE(backend.sendInput(deviceId, id, devserver::ControlInput::tapAt(0.5, 182.0 / 844)));
    ASSERT_TRUE(backend.sendInput(deviceId, id, devserver::ControlInput::typeText("x")));
    ASSERT_TRUE(tapSwitch());  // inputs apply in order: once it lands, "x" has been handled
    ASSERT_TRUE(eventually(*runtime, [&] { return !toggle->isOn; }));
    EXPECT_EQ(runtime->runOnMain([&] { return name->text; }), "Ana");
    EXPECT_FALSE(runtime->runOnMain([&] { return name->firstResponder; }));
    EXPECT_EQ(runtime->runOnMain([&] { return password->text; }), "pw");
    EXPECT_FALSE(runtime->runOnMain([&] { return password->firstResponder; }));

    // The customer takes control back: the backend hears it and later input is dropped.
    const std::size_t answers = backend.controlSession(id)->answers.size();
    ASSERT_TRUE(runtime->runOnMain([&] { return runtime->overlay()->press("Take back control"); }));
    ASSERT_TRUE(backend.waitForControlAnswer(id, 5s, answers + 1));
    EXPECT_FALSE(backend.controlSession(id)->answers.back().allow);
    EXPECT_FALSE(tapSwitch());
    ASSERT_TRUE(backend.pushText(deviceId, rogueTap));
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(switchOn());  // still as the last granted tap left it
    std::lock_guard lock(mutex);
    EXPECT_EQ(remote, (std::vector<bool>{true, false}));
}

// The heartbeat runs on the client's clock: a manual one shows it without waiting 25 seconds.
TEST_F(Integration, TheHeartbeatReachesTheBackendAsPlainText) {
    using namespace std::chrono_literals;
    auto clock = std::make_shared<ManualClock>();
    runtime->runOnMain(
        [&] { client = VirelaClient::create(runtime->platform(), {.clock = clock}); });
    ASSERT_EQ(configure(), nullptr);
    const auto deviceId = runtime->runOnMain([&] { return client->registration()->deviceId; });
    ASSERT_TRUE(backend.waitForConnection(deviceId, 5s));
    runtime->runOnMain([&] { clock->advance(24.9); });
    runtime->runOnMain([&] { clock->advance(0.1); });
    ASSERT_TRUE(backend.waitForFrames(deviceId, 1, 5s));
    EXPECT_EQ(backend.framesFrom(deviceId), std::vector<std::string>{"ping"});
}

// What the other tests leave out: an expired prompt, the rarer guides, notes and inputs, and a
// backend that refuses frames or no longer knows the session while the device still shares it.
TEST_F(Integration, RefusalsAndTheRarerPushesOfAScreenshotAndALiveSession) {
    using namespace std::chrono_literals;
    std::mutex mutex;
    std::vector<std::string> heard;
    const auto hear = [&](std::string what) {
        std::lock_guard lock(mutex);
        heard.push_back(std::move(what));
    };
    const auto heardSoFar = [&] {
        std::lock_guard lock(mutex);
        return heard;
    };
    runtime->runOnMain([&] {
        auto window = headless::makeAppWindow(*runtime->host(), {390, 844});
        headless::add(*window, headless::textField({16, 100, 358, 44}, ""));
        client->setCallbacks(
            {.onExpired = [&] { hear("expired"); },
             .onError = [&](const VirelaErrorValue& e) { hear("error: " + describe(e)); },
             .onRemoteControl = [&](bool active) { hear(active ? "control" : "no control"); },
             .onLiveEnded = [&](const LiveSession& s) { hear("ended " + s.sessionId); }});
    });
    ASSERT_EQ(configure(), nullptr);
    const auto deviceId = runtime->runOnMain([&] { return client->registration()->deviceId; });
    ASSERT_TRUE(backend.waitForConnection(deviceId, 5s));
    const auto& prompts = runtime->prompts();

    // The prompt expires at the backend's word.
    ASSERT_TRUE(backend.askScreenshot(deviceId));
    ASSERT_TRUE(eventually(*runtime, [&] { return prompts->sheet().has_value(); }));
    ASSERT_TRUE(backend.sendExpired(deviceId));
    ASSERT_TRUE(eventually(*runtime, [&] { return !prompts->sheet().has_value(); }));
    ASSERT_TRUE(eventually(*runtime, [&] { return heardSoFar().size() == 1; }));
    EXPECT_EQ(heardSoFar(), std::vector<std::string>{"expired"});

    // A live session the backend starts, with a fill and a label it then takes back.
    const std::string id = "s-more";
    ASSERT_TRUE(backend.activateLive(deviceId, id, "g1"));
    ASSERT_TRUE(backend.waitForLiveFrames(id, 1, 5s));
    devserver::Guide fill;
    fill.kind = "fill";
    fill.color = "#00AA00";
    ASSERT_TRUE(backend.sendGuide(deviceId, id, fill));
    devserver::Guide laser;
    laser.x = laser.y = 0.5;
    ASSERT_TRUE(backend.sendGuide(deviceId, id, laser));
    ASSERT_TRUE(eventually(*runtime, [&] {
        auto state = runtime->overlay()->state();
        return state && state->marks.size() == 1 && state->laser;
    }));
    laser.kind = "laser-off";
    ASSERT_TRUE(backend.sendGuide(deviceId, id, laser));
    ASSERT_TRUE(eventually(*runtime, [&] { return !runtime->overlay()->state()->laser; }));
    devserver::LiveNote stopped;
    stopped.kind = "recordingStopped";
    ASSERT_TRUE(backend.sendLiveNote(deviceId, id, stopped));

    // Control granted, a key pressed, then ended by the backend.
    ASSERT_TRUE(backend.requestControl(deviceId, id));
    ASSERT_TRUE(eventually(*runtime, [&] { return prompts->sheet().has_value(); }));
    ASSERT_TRUE(runtime->runOnMain([&] { return prompts->press("Allow control"); }));
    ASSERT_TRUE(backend.waitForControlAnswer(id, 5s));
    const std::size_t confirmed = backend.liveSession(id)->indicators.size();
    ASSERT_TRUE(backend.grantControl(deviceId, id, "c1"));
    ASSERT_TRUE(backend.waitForIndicator(id, confirmed + 1, 5s));
    ASSERT_TRUE(backend.sendInput(deviceId, id, devserver::ControlInput::pressKey("enter")));
    ASSERT_TRUE(backend.endControl(deviceId, id));
    ASSERT_TRUE(eventually(*runtime, [&] { return heardSoFar().back() == "no control"; }));

    // The sharing lease is refused: frames are dropped by the backend, the device shares on.
    backend.refuseIndicator("sharing");
    ASSERT_TRUE(backend.activateLive(deviceId, id, "g2"));
    ASSERT_TRUE(backend.waitForIndicator(id, confirmed + 2, 5s));
    const std::string framePath = "/v1/sdk/live/" + id + "/frame";
    const std::size_t kept = backend.liveSession(id)->frames;
    const std::size_t sent = backend.requests(framePath).size();
    for (int i = 0; i < 500 && backend.requests(framePath).size() < sent + 2; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(backend.liveSession(id)->frames, kept);
    EXPECT_TRUE(runtime->runOnMain([&] { return runtime->overlay()->state().has_value(); }));
    backend.refuseIndicator("sharing", false);

    // The backend ends the session while the device cannot hear it: the next frame's 410 ends
    // sharing on the device.
    backend.refuseConnections(10s);
    backend.dropConnection(deviceId);
    EXPECT_FALSE(backend.endLive(deviceId, id));  // no socket to hear it
    ASSERT_TRUE(eventually(*runtime, [&] { return heardSoFar().back() == "ended " + id; }));
    backend.refuseConnections(0ms);

    // Once back, a session the backend ends with a push.
    ASSERT_TRUE(backend.waitForConnection(deviceId, 10s, 2));
    ASSERT_TRUE(backend.activateLive(deviceId, "s-last", "g1"));
    ASSERT_TRUE(backend.waitForLiveFrames("s-last", 1, 5s));
    ASSERT_TRUE(backend.endLive(deviceId, "s-last"));
    ASSERT_TRUE(eventually(*runtime, [&] { return heardSoFar().back() == "ended s-last"; }));
}

}  // namespace
}  // namespace virela
