// The registration and the life cycle around it, built without the client: the registration
// body and reply, configure's outcomes, the install identifier, identify and reset.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/base/errors.hpp"
#include "core/registration/registration_body.hpp"
#include "core/registration/registration_flow.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela {
namespace {

using nlohmann::json;
using testing::FakePlatform;

constexpr const char* kRegistered =
    R"({"deviceId":"d1","deviceToken":"tok-1","supportCode":"111-222","consentCopy":"May we?",)"
    R"("captureMode":"PerSession","isTest":false,"extra":{"ignored":true}})";

TEST(RegisterResult, DecodesStrictly) {
    auto ok = RegisterResult::decode(kRegistered);
    EXPECT_EQ(ok.deviceToken, "tok-1");
    EXPECT_EQ(ok.captureMode, CaptureMode::perSession);

    json reply = json::parse(kRegistered);
    reply.erase("supportCode");
    EXPECT_FALSE(RegisterResult::decode(reply.dump()).supportCode);
    reply["supportCode"] = nullptr;
    EXPECT_FALSE(RegisterResult::decode(reply.dump()).supportCode);

    auto fails = [&](auto mutate) {
        json broken = json::parse(kRegistered);
        mutate(broken);
        EXPECT_THROW(RegisterResult::decode(broken.dump()), DecodingError) << broken.dump();
    };
    fails([](json& j) { j.erase("isTest"); });
    fails([](json& j) { j["isTest"] = 1; });
    fails([](json& j) { j["captureMode"] = "Sometimes"; });
    fails([](json& j) { j["deviceToken"] = nullptr; });
    fails([](json& j) { j["supportCode"] = 42; });
    EXPECT_THROW(RegisterResult::decode("<html>"), DecodingError);
    EXPECT_THROW(RegisterResult::decode("[]"), DecodingError);
}

TEST(RegistrationBody, HasTheTwentyKeysInOrderWithNullsKept) {
    RegistrationFacts facts;
    facts.model = "iPhone";
    facts.os = osText("iOS", "17.2");
    facts.screenSize = screenSizeText(1170.9, 2532);
    facts.installId = "I";
    facts.health.network = "Wi-Fi";
    auto body = json::parse(serializeFields(registrationBody(std::nullopt, facts)));
    // The parsed object sorts its keys, so the order is read from the raw text.
    std::string raw = serializeFields(registrationBody(std::nullopt, facts));
    const std::vector<std::string> order{
        "userId",     "userName", "model",      "os",           "appVersion",
        "sdkVersion", "language", "screenSize", "installId",    "appId",
        "modelName",  "vendorId", "battery",    "batteryState", "network",
        "storage",    "memory",   "appearance", "textSize",     "accessibility"};
    std::size_t at = 0;
    for (const auto& key : order) {
        auto found = raw.find("\"" + key + "\":", at);
        ASSERT_NE(found, std::string::npos) << key;
        at = found;
    }
    EXPECT_EQ(body.size(), 20u);
    EXPECT_TRUE(body["userId"].is_null());
    EXPECT_TRUE(body["userName"].is_null());
    EXPECT_TRUE(body["vendorId"].is_null());
    EXPECT_EQ(body["sdkVersion"], "2.36.6");
    EXPECT_EQ(body["os"], "iOS 17.2");
    EXPECT_EQ(body["screenSize"], "1170 \u00d7 2532");

    auto named = json::parse(serializeFields(registrationBody(VirelaUser("u1"), facts)));
    EXPECT_EQ(named["userId"], "u1");
    EXPECT_TRUE(named["userName"].is_null());
}

class RegistrationFlowTest : public ::testing::Test {
  protected:
    FakePlatform fake;
    int broughtUp = 0;  // registrations applied while running
    std::shared_ptr<RegistrationFlow> flow = makeFlow();
    Url base = *Url::parse("https://backend.test");

    std::shared_ptr<RegistrationFlow> makeFlow() {
        return RegistrationFlow::create(
            {fake.platform->main,
             fake.platform->defaults,
             fake.platform->device,
             fake.platform->http,
             DeviceHealth(HealthPorts::of(*fake.platform)),
             {},
             [this](const Transport&, const RegisterResult&) { ++broughtUp; }});
    }
    std::exception_ptr configure(const std::string& key = "key-a") {
        std::exception_ptr outcome = std::make_exception_ptr(std::runtime_error("not finished"));
        flow->configure(base, key, std::nullopt, false, [&](std::exception_ptr e) { outcome = e; });
        fake.executor->drain();
        return outcome;
    }
    json lastBody(const std::string& path) {
        return json::parse(fake.http->requestsTo(path).back().body);
    }
};

TEST_F(RegistrationFlowTest, FailedConfigureKeepsThePreviousRegistration) {
    fake.http->reply("/v1/sdk/devices", 200, kRegistered);
    ASSERT_EQ(configure(), nullptr);

    fake.http->reply("/v1/sdk/devices", 401, "<html>nope</html>");
    auto error = configure();
    try {
        std::rethrow_exception(error);
    } catch (const VirelaError& e) {
        EXPECT_EQ(e, VirelaError(401, "unknown", "Request failed."));
    }
    fake.http->reply("/v1/sdk/devices", 200, R"({"deviceId":"d2","deviceToken":"t2"})");
    EXPECT_THROW(std::rethrow_exception(configure()), DecodingError);
    fake.http->fail("/v1/sdk/devices",
                    std::make_exception_ptr(NetworkError(NetworkError::Kind::refused, "down")));
    EXPECT_THROW(std::rethrow_exception(configure()), NetworkError);

    EXPECT_EQ(flow->registration()->deviceId, "d1");
    EXPECT_EQ(flow->supportCode(), "111-222");
    EXPECT_EQ(broughtUp, 1);
}

TEST_F(RegistrationFlowTest, InstallIdentifierIsOnePerKeyAndKept) {
    auto a = flow->installId("key-a");
    EXPECT_EQ(flow->installId("key-a"), a);
    EXPECT_NE(flow->installId("key-b"), a);
    fake.store->values["com.virela.installId.key-c"] = "";
    EXPECT_FALSE(flow->installId("key-c").empty());

    // A new flow on the same store (the next launch) finds the same identifier.
    EXPECT_EQ(makeFlow()->installId("key-a"), a);
}

TEST_F(RegistrationFlowTest, ResetReplacesOrClearsTheCodeAndIdentifySwallowsFailures) {
    fake.http->reply("/v1/sdk/devices", 200, kRegistered);
    ASSERT_EQ(configure(), nullptr);

    fake.http->reply("/v1/sdk/devices/reset", 200, R"({"supportCode":"999-000"})");
    flow->reset();
    fake.executor->drain();
    EXPECT_EQ(flow->supportCode(), "999-000");
    EXPECT_EQ(lastBody("/v1/sdk/devices/reset"), json::object());
    EXPECT_FALSE(
        findHeader(fake.http->requestsTo("/v1/sdk/devices/reset")[0].headers, "X-Virela-Key"));

    fake.http->reply("/v1/sdk/devices/reset", 500, R"({"error":"boom"})");
    flow->reset();
    fake.executor->drain();
    EXPECT_EQ(flow->supportCode(), "999-000");

    fake.http->reply("/v1/sdk/devices/reset", 200, "{}");
    flow->reset();
    fake.executor->drain();
    EXPECT_FALSE(flow->supportCode());
    EXPECT_EQ(flow->registration()->deviceId, "d1");

    fake.http->reply("/v1/sdk/devices/identify", 503, "down");
    bool finished = false;
    flow->identify("u9", std::nullopt, "+44", [&] { finished = true; });
    fake.executor->drain();
    EXPECT_TRUE(finished);
    EXPECT_EQ(lastBody("/v1/sdk/devices/identify"),
              json::parse(R"({"id":"u9","name":null,"phone":"+44"})"));
    EXPECT_EQ(
        findHeader(fake.http->requestsTo("/v1/sdk/devices/identify")[0].headers, "X-Virela-Device"),
        "tok-1");
}

TEST(RegistrationFlowDeathTest, IdentifyOrResetBeforeConfigureStopsTheProcess) {
    FakePlatform fake;
    auto client = RegistrationFlow::create({fake.platform->main,
                                            fake.platform->defaults,
                                            fake.platform->device,
                                            fake.platform->http,
                                            DeviceHealth(HealthPorts::of(*fake.platform)),
                                            {},
                                            {}});
    EXPECT_DEATH(client->identify("u", std::nullopt, std::nullopt),
                 "identify\\(\\) called before configure");
    EXPECT_DEATH(client->reset(), "reset\\(\\) called before configure");
}

}  // namespace
}  // namespace virela
