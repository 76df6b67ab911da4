// The screenshot consent flow on the headless screen, with a hand-driven clock and scripted
// backend replies: the sheet, its expiry, the answer, the banner, capture and upload.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <functional>

#include "core/client/client.hpp"
#include "core/consent/session_banner.hpp"
#include "core/flow/sheets.hpp"
#include "core/ports/manual_clock.hpp"
#include "core/wire/date_time.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/presenters.hpp"
#include "platform/headless/render/image.hpp"
#include "platform/headless/render/renderer.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela {
namespace {

using headless::SheetState;
using nlohmann::json;
using testing::FakePlatform;

using testing::kRegisteredReply;

TEST(Palette, HexIsReadLenientlyAndFollowsTheAppearance) {
    const Color white{1, 1, 1, 1};
    const Color black{0, 0, 0, 1};
    EXPECT_EQ(colorFromHex("FFFFFF"), white);
    EXPECT_EQ(colorFromHex("#FFFFFF"), white);
    EXPECT_EQ(colorFromHex("+ffffff"), white);
    EXPECT_EQ(colorFromHex("#80FFFFFF"), white);  // eight digits carry no alpha
    for (const char* bad : {"#GG0000", "", "#", "#1FFFFFFFF", "-1", "# FFFFFF"}) {
        EXPECT_EQ(colorFromHex(bad), black) << bad;
    }
    EXPECT_EQ(colorFromHex("#0A5A49", 0.5), (Color{10 / 255.0, 90 / 255.0, 73 / 255.0, 0.5}));

    EXPECT_EQ(palette::liveRed.resolve(Appearance::dark), colorFromHex("#FF6A64"));
    EXPECT_EQ(palette::liveRed.resolve(Appearance::unspecified), colorFromHex("#DC3834"));
    EXPECT_EQ(palette::liveRed.resolve(Appearance::light), colorFromHex("#DC3834"));
    EXPECT_EQ(palette::whiteGlass24.resolve(), (Color{1, 1, 1, 0.24}));
}

TEST(ConsentSheet, TextsFollowTheRequest) {
    EXPECT_EQ(consentBody("{company} lets {agent_name} see {company}.", std::nullopt, std::nullopt),
              "This app lets support see This app.");
    EXPECT_EQ(consentBody("{company}/{agent_name}/{Company}", "{company}", "Acme"),
              "Acme/{company}/{Company}");  // names are inserted, never rescanned

    EXPECT_EQ(requestLine("Dana", "Acme"),
              "Requested by Dana from Acme support · only this app’s screen");
    EXPECT_EQ(requestLine("Dana", ""), "Requested by Dana · only this app’s screen");
    EXPECT_EQ(requestLine("", "Acme"), "only this app’s screen");
    EXPECT_EQ(requestLine(std::nullopt, std::nullopt), "only this app’s screen");

    auto session = makeConsentSheet(CaptureMode::perSession, "x", std::nullopt, std::nullopt,
                                    "https://cdn.test/logo.png");
    EXPECT_EQ(session.title, "Allow screenshots for this call?");
    EXPECT_EQ(session.allowTitle, "Allow for this call");
    EXPECT_EQ(session.denyTitle, "Don’t allow");
    ASSERT_TRUE(session.logo);
    EXPECT_EQ(makeConsentSheet(CaptureMode::liveView, "x", {}, {}, {}).denyTitle, "Not now");
    for (const char* bad : {"not a url", "/relative/logo.png", "https://", "ht tp://x/y"}) {
        EXPECT_FALSE(logoAddress(std::string(bad))) << bad;
    }
}

TEST(InternetDateTime, ReadsBothFormsAndRefusesTheRest) {
    EXPECT_EQ(parseInternetDateTime("1970-01-01T00:00:00Z"), 0.0);
    EXPECT_DOUBLE_EQ(*parseInternetDateTime("2030-01-01T00:00:00.123Z"), 1893456000.123);
    EXPECT_EQ(parseInternetDateTime("2030-01-01T00:00:00Z"), 1893456000.0);
    EXPECT_EQ(parseInternetDateTime("2030-01-01T02:30:00+02:30"), 1893456000.0);
    EXPECT_EQ(parseInternetDateTime("2024-02-29T00:00:00Z"), 1709164800.0);
    for (const char* bad :
         {"tomorrow", "", "2030-01-01", "2030-01-01T00:00:00", "2030-01-01 00:00:00Z",
          "2030-13-01T00:00:00Z", "2023-02-29T00:00:00Z", "2030-01-01T24:00:00Z",
          "2030-01-01T00:00:00.Z", "2030-01-01T00:00:00Zjunk", "2030-01-01T00:00:00+0200"}) {
        EXPECT_FALSE(parseInternetDateTime(bad)) << bad;
    }
}

TEST(SessionBannerText, RoundsMinutesUp) {
    EXPECT_EQ(sessionBannerText(2700), "Screenshots allowed · 45 min left");
    EXPECT_EQ(sessionBannerText(61), "Screenshots allowed · 2 min left");
    EXPECT_EQ(sessionBannerText(60), "Screenshots allowed · 1 min left");
    EXPECT_EQ(sessionBannerText(1), "Screenshots allowed · 1 min left");
}

class ConsentFlowTest : public ::testing::Test {
  protected:
    FakePlatform fake;
    std::shared_ptr<headless::HeadlessHost> host = std::make_shared<headless::HeadlessHost>();
    std::shared_ptr<headless::HeadlessPromptPresenter> prompts =
        std::make_shared<headless::HeadlessPromptPresenter>([] { return Appearance::light; });
    std::shared_ptr<headless::HeadlessBannerPresenter> banner =
        std::make_shared<headless::HeadlessBannerPresenter>([] { return Appearance::light; });
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<VirelaClient> client;
    std::shared_ptr<headless::Window> window;
    std::vector<std::string> events;
    std::vector<std::exception_ptr> errors;
    std::vector<CaptureResult> allowed;

    void SetUp() override {
        fake.platform->host = host;
        fake.platform->actions = host->actions();
        fake.platform->renderer = std::make_shared<headless::HeadlessRenderer>();
        fake.platform->prompts = prompts;
        fake.platform->banner = banner;
        client = VirelaClient::create(fake.platform, {clock, {}});
        window = headless::makeAppWindow(*host, {390, 844});
        auto password = headless::textField({16, 100, 358, 44}, "hunter2", /*secure=*/true);
        headless::add(*window, password);
        client->setCallbacks(VirelaCallbacks{
            .onRequestShown =
                [this] { events.push_back(prompts->sheet() ? "shown+sheet" : "shown"); },
            .onAllowed =
                [this](const CaptureResult& r) {
                    events.push_back("allowed");
                    allowed.push_back(r);
                },
            .onDenied = [this] { events.push_back("denied"); },
            .onExpired = [this] { events.push_back("expired"); },
            .onError =
                [this](const VirelaErrorValue& e) {
                    events.push_back("error");
                    errors.push_back(e);
                },
        });
        fake.http->reply("/v1/sdk/devices", 200, kRegisteredReply);
        client->configure(*Url::parse("https://backend.test"), "key", std::nullopt, false,
                          [](std::exception_ptr) {});
        fake.executor->drain();
        ASSERT_TRUE(client->registration());
    }

    // A consent push expiring `inSeconds` from now.
    json consent(const std::string& requestId, double inSeconds = 60,
                 const std::string& mode = "AskEveryTime") {
        return {{"type", "consent"},
                {"payload",
                 {{"requestId", requestId},
                  {"mode", mode},
                  {"consentCopy", "{agent_name} from {company} asks for a screenshot."},
                  {"promptId", "p-" + requestId},
                  {"agentName", "Dana"},
                  {"workspaceName", "Acme"},
                  {"expiresAt", isoIn(inSeconds)}}}};
    }
    std::string isoIn(double seconds) const {
        const auto t = static_cast<std::time_t>(clock->now() + seconds);
        char text[32];
        std::tm tm{};
        gmtime_r(&t, &tm);
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
        return text;
    }
    void push(const json& message) {
        client->channel().dispatch(message.dump());
        fake.executor->drain();
    }
    void press(const std::string& title) {
        ASSERT_TRUE(prompts->press(title)) << title;
        fake.executor->drain();
    }
    std::size_t requests(const std::string& path) const {
        return fake.http->requestsTo(path).size();
    }
    void replyAllowed(const std::string& id, const std::string& extra = "") {
        fake.http->reply("/v1/sdk/captures/" + id + "/respond", 200,
                         R"({"status":"Allowed")" + extra + "}");
    }
    void reconfigure() {
        fake.http->reply("/v1/sdk/devices", 200, kRegisteredReply);
        client->configure(*Url::parse("https://backend.test"), "key", std::nullopt, false,
                          [](std::exception_ptr) {});
        fake.executor->drain();
    }
    // Answers the oldest request to `path` still waiting for its reply.
    void complete(const std::string& path, int status, std::string body) {
        auto index = fake.http->pendingIndex(path);
        ASSERT_TRUE(index) << path;
        fake.http->completePending(*index,
                                   HttpOutcome{HttpResponse{status, {}, std::move(body)}, nullptr});
        fake.executor->drain();
    }
    // Allows screenshots for the call, under a countdown of `seconds`.
    void allowCall(const std::string& id, double seconds = 600) {
        push(consent(id, 60, "PerSession"));
        replyAllowed(id, R"(,"sessionExpiresAt":")" + isoIn(seconds) + "\"");
        replyUploaded(id);
        press("Allow for this call");
        ASSERT_TRUE(banner->text());
    }
    void replyUploaded(const std::string& id) {
        fake.http->reply("/v1/sdk/captures/" + id + "/upload", 200,
                         R"({"captureId":"cap-1","imageUrl":"https://img.test/cap-1.png"})");
    }
};

TEST_F(ConsentFlowTest, AConsentPushShowsTheSheetAndReportsIt) {
    push(consent("r1"));
    EXPECT_EQ(events, std::vector<std::string>{"shown"});  // told before the sheet is up
    ASSERT_TRUE(prompts->sheet());
    const SheetState& sheet = *prompts->sheet();
    EXPECT_EQ(sheet.title, "Share a screenshot?");
    EXPECT_EQ(sheet.body, "Dana from Acme asks for a screenshot.");
    EXPECT_EQ(sheet.requestLine, "Requested by Dana from Acme support · only this app’s screen");
    EXPECT_EQ(sheet.buttons, (std::vector<std::string>{"Allow once", "Don’t allow"}));
    EXPECT_EQ(sheet.window, window->handle());
    ASSERT_EQ(requests("/v1/sdk/prompts/p-r1/shown"), 1u);
    EXPECT_EQ(fake.http->requestsTo("/v1/sdk/prompts/p-r1/shown")[0].body, "{}");

    // Without a prompt id nothing is reported; the sheet still shows.
    auto bare = consent("r2");
    bare["payload"]["promptId"] = "";
    push(bare);
    EXPECT_EQ(fake.http->requests.back().url.path(), "/v1/sdk/prompts/p-r1/shown");
    EXPECT_EQ(prompts->sheet()->title, "Share a screenshot?");
}

TEST_F(ConsentFlowTest, PushesThatCannotBeShownAreDroppedWithoutACallback) {
    host->scenes()[0]->activation = SceneActivation::background;
    push(consent("r1"));
    host->scenes()[0]->activation = SceneActivation::foregroundActive;
    auto broken = consent("r2");
    broken["payload"]["mode"] = "Sometimes";
    push(broken);
    push(consent("bad id"));  // could never be answered
    push({{"type", "capture"}, {"payload", {{"requestId", "caf\u00e9 %"}}}});
    EXPECT_TRUE(events.empty());
    EXPECT_FALSE(prompts->sheet());
    // Support staff can still see why nothing happened.
    std::vector<std::string> logged;
    for (const auto& [level, line] : fake.log->lines) {
        if (level == LogLevel::error) logged.push_back(line);
    }
    EXPECT_EQ(logged,
              (std::vector<std::string>{
                  "consent request dropped: request id \"bad id\" cannot form a request path",
                  "capture request dropped: request id \"caf\u00e9 %\" cannot form a "
                  "request path"}));

    auto unconfigured = VirelaClient::create(fake.platform, {clock, {}});
    unconfigured->channel().dispatch(consent("r3").dump());
    fake.executor->drain();
    EXPECT_FALSE(prompts->sheet());
}

TEST_F(ConsentFlowTest, ANewerRequestReplacesTheOlderOneAndItsExpiry) {
    push(consent("r1", 10));
    push(consent("r2", 100));
    EXPECT_EQ(events, (std::vector<std::string>{"shown", "shown"}));
    clock->advance(50);  // r1's expiry would have fired at 12 s
    EXPECT_EQ(events.size(), 2u);
    ASSERT_TRUE(prompts->sheet());

    replyAllowed("r2");
    replyUploaded("r2");
    press("Allow once");
    EXPECT_EQ(requests("/v1/sdk/captures/r1/respond"), 0u);
    EXPECT_EQ(requests("/v1/sdk/captures/r2/respond"), 1u);
    EXPECT_FALSE(clock->isScheduled(TimerId::promptExpiry));
    clock->advance(100);
    EXPECT_EQ(events, (std::vector<std::string>{"shown", "shown", "allowed"}));
}

TEST_F(ConsentFlowTest, ExpiryComesTwoSecondsLateAndNeverSoonerThanOneSecond) {
    auto fractional = consent("r1");
    fractional["payload"]["expiresAt"] = isoIn(30).substr(0, 19) + ".250Z";
    push(fractional);
    EXPECT_DOUBLE_EQ(clock->requestedDelays().back(), 32.25);

    push(consent("r2", -600));
    EXPECT_DOUBLE_EQ(clock->requestedDelays().back(), 1);
    clock->advance(0.9);
    EXPECT_TRUE(prompts->sheet());
    clock->advance(0.2);
    EXPECT_FALSE(prompts->sheet());
    EXPECT_EQ(events.back(), "expired");
    EXPECT_FALSE(clock->isScheduled(TimerId::promptExpiry));

    // An expiry that cannot be read arms nothing: the sheet waits for the customer.
    auto unreadable = consent("r3");
    unreadable["payload"]["expiresAt"] = "tomorrow";
    const auto delays = clock->requestedDelays().size();
    push(unreadable);
    EXPECT_EQ(clock->requestedDelays().size(), delays);
    clock->advance(86400 * 2);
    EXPECT_TRUE(prompts->sheet());
    EXPECT_EQ(std::count(events.begin(), events.end(), "expired"), 1);
}

TEST_F(ConsentFlowTest, AllowCapturesRedactedAndUploadsOnce) {
    push(consent("r1"));
    replyAllowed("r1");
    replyUploaded("r1");
    press("Allow once");
    ASSERT_TRUE(prompts->press("Allow once") == false);  // the sheet is gone: a second tap is lost
    fake.executor->drain();

    EXPECT_EQ(requests("/v1/sdk/captures/r1/respond"), 1u);
    EXPECT_EQ(json::parse(fake.http->requestsTo("/v1/sdk/captures/r1/respond")[0].body),
              json({{"allow", true}}));
    auto uploads = fake.http->requestsTo("/v1/sdk/captures/r1/upload");
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_NE(uploads[0].body.find("filename=\"capture.png\""), std::string::npos);
    ASSERT_EQ(allowed.size(), 1u);
    EXPECT_EQ(allowed[0], (CaptureResult{"cap-1", "https://img.test/cap-1.png"}));
    EXPECT_EQ(events, (std::vector<std::string>{"shown", "allowed"}));

    // The image carries the password's box, not the sheet that was on screen moments before.
    const std::string& body = uploads[0].body;
    const auto start = body.find("\x89PNG");
    ASSERT_NE(start, std::string::npos);
    auto png = headless::decodePng(std::vector<std::uint8_t>(body.begin() + start, body.end()));
    ASSERT_TRUE(png);
    const auto pixel = [&](int x, int y) { return &png->rgba[(y * png->width + x) * 4]; };
    EXPECT_EQ(std::vector<int>(pixel(20, 104), pixel(20, 104) + 3),
              (std::vector<int>{226, 59, 55}));  // the default redaction fill
    EXPECT_EQ(pixel(200, 800)[0], 255);          // where the sheet was: the white app window
}

TEST_F(ConsentFlowTest, DenyAndRefusalsEndTheRequestWithoutACapture) {
    push(consent("r1"));
    fake.http->reply("/v1/sdk/captures/r1/respond", 200, R"({"status":"Denied"})");
    press("Don’t allow");
    EXPECT_EQ(json::parse(fake.http->requestsTo("/v1/sdk/captures/r1/respond")[0].body),
              json({{"allow", false}}));
    EXPECT_EQ(events.back(), "denied");

    push(consent("r2"));
    fake.http->reply("/v1/sdk/captures/r2/respond", 200, R"({"status":"allowed"})");
    press("Allow once");
    EXPECT_EQ(requests("/v1/sdk/captures/r2/upload"), 0u);
    EXPECT_EQ(events.back(), "shown");  // no callback at all

    push(consent("r3"));
    push({{"type", "denied"}, {"payload", json::object()}});
    EXPECT_FALSE(prompts->sheet());
    EXPECT_FALSE(clock->isScheduled(TimerId::promptExpiry));
    EXPECT_EQ(events.back(), "denied");
    push(consent("r4"));
    push({{"type", "expired"}, {"payload", json::object()}});
    EXPECT_EQ(events.back(), "expired");
    clock->advance(120);
    EXPECT_EQ(std::count(events.begin(), events.end(), "expired"), 1);
}

TEST_F(ConsentFlowTest, EveryFailureReachesOnErrorOnce) {
    struct Case {
        const char* name;
        std::function<void(const std::string& id)> script;
    };
    const std::vector<Case> cases{
        {"respond refused",
         [&](const std::string& id) {
             fake.http->reply("/v1/sdk/captures/" + id + "/respond", 500,
                              R"({"error":"boom","message":"No."})");
         }},
        {"respond unreachable",
         [&](const std::string& id) {
             fake.http->fail(
                 "/v1/sdk/captures/" + id + "/respond",
                 std::make_exception_ptr(NetworkError(NetworkError::Kind::refused, "x")));
         }},
        {"respond unreadable",
         [&](const std::string& id) {
             fake.http->reply("/v1/sdk/captures/" + id + "/respond", 200, "<html>");
         }},
        {"upload refused",
         [&](const std::string& id) {
             replyAllowed(id);
             fake.http->reply("/v1/sdk/captures/" + id + "/upload", 413, "");
         }},
        {"upload reply not a result",
         [&](const std::string& id) {
             replyAllowed(id);
             fake.http->reply("/v1/sdk/captures/" + id + "/upload", 200, R"({"captureId":7})");
         }},
        {"nothing to capture", [&](const std::string& id) { replyAllowed(id); }},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string id = "e" + std::to_string(n++);
        window->makeKeyAndVisible();
        push(consent(id));
        c.script(id);
        errors.clear();
        events.clear();
        ASSERT_TRUE(prompts->press("Allow once"));
        // The window goes away while the answer is on its way.
        if (std::string(c.name) == "nothing to capture") window->hide();
        fake.executor->drain();
        EXPECT_EQ(events, std::vector<std::string>{"error"});
        ASSERT_EQ(errors.size(), 1u);
    }
    // The last one: a capture without a window is a VirelaError the host can read.
    EXPECT_EQ(describe(errors[0]), describe(std::make_exception_ptr(VirelaError(
                                       0, "no_window", "No visible window to capture."))));
}

TEST_F(ConsentFlowTest, PerSessionShowsACountdownBannerThatNeverReachesTheImage) {
    push(consent("r1", 60, "PerSession"));
    replyAllowed("r1");  // no session expiry: 45 minutes
    replyUploaded("r1");
    press("Allow for this call");
    ASSERT_EQ(banner->text(), "Screenshots allowed · 45 min left");
    EXPECT_TRUE(banner->window()->passthrough);
    clock->advance(59);
    EXPECT_EQ(banner->text(), "Screenshots allowed · 45 min left");
    clock->advance(1);
    EXPECT_EQ(banner->text(), "Screenshots allowed · 44 min left");
    EXPECT_EQ(allowed.size(), 1u);

    // A later capture push is taken without a prompt, and the banner is not in it.
    replyUploaded("r1");
    push({{"type", "capture"}, {"payload", {{"requestId", "r1"}}}});
    ASSERT_EQ(requests("/v1/sdk/captures/r1/upload"), 2u);
    EXPECT_EQ(allowed.size(), 2u);

    // The backend's session expiry wins; the banner goes at the first refresh after it.
    push(consent("r2", 60, "PerSession"));
    replyAllowed("r2", R"(,"sessionExpiresAt":")" + isoIn(30) + "\"");
    replyUploaded("r2");
    press("Allow for this call");
    EXPECT_EQ(banner->text(), "Screenshots allowed · 1 min left");
    clock->advance(29);
    EXPECT_TRUE(banner->text());
    clock->advance(16);
    EXPECT_FALSE(banner->text());

    // A session already over shows nothing.
    SessionBanner::create(banner, clock)->show(window->handle(), clock->now() - 1);
    EXPECT_FALSE(banner->text());
}

TEST_F(ConsentFlowTest, TheSupportCodeSheetReplacesAConsentSheetWithoutAChoice) {
    push(consent("r1"));
    client->showSupportCode();
    ASSERT_TRUE(prompts->sheet());
    EXPECT_EQ(prompts->sheet()->kind, SheetState::Kind::supportCode);
    EXPECT_EQ(prompts->sheet()->code, "482-913");
    EXPECT_EQ(prompts->sheet()->title, "Your support code");
    EXPECT_EQ(prompts->sheet()->note, "Only while you’re on this call.");
    press("Done");
    EXPECT_FALSE(prompts->sheet());
    EXPECT_FALSE(prompts->overlay());
    EXPECT_EQ(requests("/v1/sdk/captures/r1/respond"), 0u);
    EXPECT_EQ(window->subviews().size(), 1u);  // the overlay left the window
}

TEST_F(ConsentFlowTest, TheLogoReplacesThePlaceholderOnlyWhenItIsAnImage) {
    headless::Image image{4, 4, std::vector<std::uint8_t>(4 * 4 * 4, 200)};
    const auto png = headless::encodePng(image);
    auto withLogo = [&](const std::string& id, const std::string& url) {
        auto message = consent(id);
        message["payload"]["logoUrl"] = url;
        push(message);
    };
    fake.http->reply("/logo.png", 200, std::string(png.begin(), png.end()));
    withLogo("r1", "https://cdn.test/logo.png");
    EXPECT_EQ(fake.http->requestsTo("/logo.png").back().method, "GET");
    EXPECT_EQ(prompts->sheet()->logo, SheetState::Logo::image);
    EXPECT_EQ(prompts->sheet()->logoWidth, 4);

    fake.http->reply("/garbage.png", 200, "not an image");
    withLogo("r2", "https://cdn.test/garbage.png");
    EXPECT_EQ(prompts->sheet()->logo, SheetState::Logo::placeholder);
    fake.http->reply("/missing.png", 404, "");
    withLogo("r3", "https://cdn.test/missing.png");
    withLogo("r4", "::not a url::");
    EXPECT_EQ(prompts->sheet()->logo, SheetState::Logo::placeholder);

    // A logo that arrives after its sheet was replaced is not put on the newer one.
    withLogo("r5", "https://cdn.test/slow.png");
    withLogo("r6", "https://cdn.test/none.png");
    fake.http->completePending(
        *fake.http->pendingIndex("/slow.png"),
        HttpOutcome{HttpResponse{200, {}, std::string(png.begin(), png.end())}, nullptr});
    fake.executor->drain();
    EXPECT_EQ(prompts->sheet()->logo, SheetState::Logo::placeholder);
}

TEST_F(ConsentFlowTest, AReplyWhoseReasonIsGoneCapturesAndReportsNothing) {
    int n = 0;
    for (const auto& [name, end] : testing::epochEndings(fake, client)) {
        SCOPED_TRACE(name);
        const std::string id = "g" + std::to_string(n++);
        // An upload on its way.
        reconfigure();
        events.clear();
        push(consent(id + "-once"));
        replyAllowed(id + "-once");
        press("Allow once");
        end();
        fake.executor->drain();
        complete("/v1/sdk/captures/" + id + "-once/upload", 200,
                 R"({"captureId":"cap-1","imageUrl":"https://img.test/cap-1.png"})");
        EXPECT_EQ(events, std::vector<std::string>{"shown"});

        // An answer on its way: no banner, no capture, no callback.
        reconfigure();
        events.clear();
        push(consent(id + "-call", 60, "PerSession"));
        press("Allow for this call");
        end();
        fake.executor->drain();
        complete("/v1/sdk/captures/" + id + "-call/respond", 200, R"({"status":"Allowed"})");
        EXPECT_FALSE(banner->text());
        EXPECT_EQ(requests("/v1/sdk/captures/" + id + "-call/upload"), 0u);
        EXPECT_EQ(events, std::vector<std::string>{"shown"});
    }
}

TEST_F(ConsentFlowTest, ACapturePushNeedsTheCountdownOfACallTheCustomerAllowed) {
    const auto dropped = [](const std::string& id) {
        return std::pair{LogLevel::error,
                         "capture request dropped: no allowance for the call on this device "
                         "(request id \"" +
                             id + "\")"};
    };
    const auto logged = [&](const std::string& id) {
        return std::count(fake.log->lines.begin(), fake.log->lines.end(), dropped(id));
    };
    const auto capture = [&](const std::string& id) {
        replyUploaded(id);
        push({{"type", "capture"}, {"payload", {{"requestId", id}}}});
    };

    capture("x1");  // nothing allowed on this device
    EXPECT_EQ(requests("/v1/sdk/captures/x1/upload"), 0u);
    EXPECT_EQ(logged("x1"), 1);

    // One screenshot allowed is not the call.
    push(consent("r1"));
    replyAllowed("r1");
    replyUploaded("r1");
    press("Allow once");
    capture("r1");
    EXPECT_EQ(requests("/v1/sdk/captures/r1/upload"), 1u);
    EXPECT_EQ(logged("r1"), 1);

    // While the countdown runs, under the call's id or a new one.
    allowCall("r2", 40);
    capture("r2");
    capture("r9");
    EXPECT_EQ(requests("/v1/sdk/captures/r2/upload"), 2u);
    EXPECT_EQ(requests("/v1/sdk/captures/r9/upload"), 1u);
    // The time is up, though the next refresh has not taken the banner down yet.
    clock->advance(41);
    ASSERT_TRUE(banner->text());
    capture("r2");
    EXPECT_EQ(requests("/v1/sdk/captures/r2/upload"), 2u);
    EXPECT_EQ(logged("r2"), 1);

    // The call ended by the backend, by stop() (also between the push and its turn) or reset().
    const std::vector<std::pair<std::string, std::function<void()>>> endings{
        {"session ended",
         [&] {
             push({{"type", "session"}, {"payload", {{"state", "ended"}}}});
         }},
        {"stop", [&] { client->stop(); }},
        {"reset",
         [&] {
             fake.http->reply("/v1/sdk/devices/reset", 200, "{}");
             client->reset();
         }},
    };
    int n = 0;
    for (const auto& [name, end] : endings) {
        SCOPED_TRACE(name);
        const std::string id = "e" + std::to_string(n++);
        reconfigure();
        allowCall(id);
        end();
        fake.executor->drain();
        EXPECT_FALSE(banner->text());
        capture(id);
        EXPECT_EQ(requests("/v1/sdk/captures/" + id + "/upload"), 1u);
        EXPECT_EQ(logged(id), 1);
    }
    reconfigure();
    allowCall("late");
    replyUploaded("late");
    client->channel().dispatch(
        json{{"type", "capture"}, {"payload", {{"requestId", "late"}}}}.dump());
    client->stop();
    fake.executor->drain();
    EXPECT_EQ(requests("/v1/sdk/captures/late/upload"), 1u);
    EXPECT_EQ(logged("late"), 1);
}

}  // namespace
}  // namespace virela
