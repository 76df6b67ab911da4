#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/base/errors.hpp"
#include "core/client/client.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela {
namespace {

using nlohmann::json;
using testing::FakePlatform;

constexpr const char* kRegistered =
    R"({"deviceId":"d1","deviceToken":"tok-1","supportCode":"111-222","consentCopy":"May we?",)"
    R"("captureMode":"PerSession","isTest":false,"extra":{"ignored":true}})";

class ClientTest : public ::testing::Test {
  protected:
    FakePlatform fake;
    std::shared_ptr<VirelaClient> client = VirelaClient::create(fake.platform);
    Url base = *Url::parse("https://backend.test");

    std::exception_ptr configure(const std::string& key = "key-a",
                                 std::optional<VirelaUser> user = std::nullopt) {
        std::exception_ptr outcome = std::make_exception_ptr(std::runtime_error("not finished"));
        client->configure(base, key, user, false, [&](std::exception_ptr e) { outcome = e; });
        fake.executor->drain();
        return outcome;
    }
    json lastBody(const std::string& path) {
        return json::parse(fake.http->requestsTo(path).back().body);
    }
};

TEST_F(ClientTest, ConfigureRegistersAndBringsTheClientUp) {
    fake.http->reply("/v1/sdk/devices", 200, kRegistered);
    EXPECT_EQ(configure("key-a", VirelaUser("u1", "Ana")), nullptr);

    auto request = fake.http->requestsTo("/v1/sdk/devices").at(0);
    EXPECT_EQ(findHeader(request.headers, "X-Virela-Key"), "key-a");
    EXPECT_FALSE(findHeader(request.headers, "X-Virela-Device"));
    auto body = lastBody("/v1/sdk/devices");
    EXPECT_EQ(body["userName"], "Ana");
    EXPECT_EQ(body["battery"], "85%");
    EXPECT_EQ(body["network"], "Wi-Fi");
    EXPECT_EQ(body["installId"], fake.store->values.at("com.virela.installId.key-a"));

    EXPECT_EQ(client->transport()->deviceToken(), "tok-1");
    EXPECT_EQ(client->supportCode(), "111-222");
    EXPECT_EQ(fake.lifecycle->observerCount(), 2u);
    EXPECT_EQ(fake.paths->running(), 1u);
}

TEST_F(ClientTest, FirstFailedConfigureOpensNothing) {
    fake.http->reply("/v1/sdk/devices", 200,
                     R"({"deviceId":"d","deviceToken":"t",)"
                     R"("consentCopy":"c","captureMode":"Never","isTest":true})");
    EXPECT_THROW(std::rethrow_exception(configure()), DecodingError);
    EXPECT_FALSE(client->registration());
    EXPECT_EQ(fake.paths->running(), 0u);
    EXPECT_EQ(fake.lifecycle->observerCount(), 0u);

    // A base URL that nothing could be sent to fails without sending anything.
    base = *Url::parse("api.example.com/v1");
    EXPECT_THROW(std::rethrow_exception(configure()), NetworkError);
    EXPECT_EQ(fake.http->requests.size(), 1u);
}

TEST_F(ClientTest, StopTearsDownAndALateRegistrationDoesNotRevive) {
    fake.http->reply("/v1/sdk/devices", 200, kRegistered);
    fake.http->reply("/v1/sdk/devices/health", 200, "{}");
    ASSERT_EQ(configure(), nullptr);
    client->stop();
    EXPECT_EQ(fake.lifecycle->observerCount(), 0u);
    EXPECT_EQ(fake.paths->running(), 0u);
    EXPECT_EQ(client->supportCode(), "111-222");  // kept after stop

    // A registration whose reply arrives after stop() is kept and reported, but opens nothing.
    std::exception_ptr outcome;
    client->configure(base, "key-a", std::nullopt, false,
                      [&](std::exception_ptr e) { outcome = e; });
    fake.executor->drain();
    ASSERT_EQ(fake.http->pendingCount(), 1u);
    client->stop();
    fake.http->completePending(0, HttpOutcome{HttpResponse{200, {}, kRegistered}, nullptr});
    fake.executor->drain();
    EXPECT_EQ(outcome, nullptr);
    EXPECT_EQ(fake.lifecycle->observerCount(), 0u);
    EXPECT_EQ(fake.paths->running(), 0u);

    // A newer configure wins over an older one still in flight; both report success.
    std::exception_ptr older, newer;
    client->configure(base, "key-a", std::nullopt, false, [&](std::exception_ptr e) { older = e; });
    fake.executor->drain();
    client->configure(base, "key-b", std::nullopt, false, [&](std::exception_ptr e) { newer = e; });
    fake.executor->drain();
    fake.http->completePending(1, HttpOutcome{HttpResponse{200, {}, kRegistered}, nullptr});
    fake.http->completePending(0, HttpOutcome{HttpResponse{200, {}, kRegistered}, nullptr});
    fake.executor->drain();
    EXPECT_EQ(newer, nullptr);
    EXPECT_EQ(older, nullptr);
    EXPECT_EQ(client->transport()->apiKey(), "key-b");
    EXPECT_EQ(client->transport()->deviceToken(), "tok-1");
}

TEST_F(ClientTest, OverlappingConfiguresNeverLoseTheLastGoodRegistration) {
    // The older registration succeeds while the newer one is on its way, then the newer one
    // fails: the client stays registered and connected through the older one.
    std::exception_ptr older = std::make_exception_ptr(std::runtime_error("not finished"));
    std::exception_ptr newer = older;
    client->configure(base, "key-a", std::nullopt, false, [&](std::exception_ptr e) { older = e; });
    fake.executor->drain();
    client->configure(*Url::parse("https://other.test"), "key-b", std::nullopt, false,
                      [&](std::exception_ptr e) { newer = e; });
    fake.executor->drain();
    ASSERT_EQ(fake.http->pendingCount(), 2u);
    fake.http->completePending(0, HttpOutcome{HttpResponse{200, {}, kRegistered}, nullptr});
    fake.executor->drain();
    EXPECT_EQ(older, nullptr);
    ASSERT_EQ(fake.sockets.size(), 1u);
    fake.http->completePending(
        0, HttpOutcome{std::nullopt, std::make_exception_ptr(
                                         NetworkError(NetworkError::Kind::timedOut, "slow"))});
    fake.executor->drain();
    EXPECT_THROW(std::rethrow_exception(newer), NetworkError);
    EXPECT_EQ(client->registration()->deviceId, "d1");
    EXPECT_EQ(client->supportCode(), "111-222");
    EXPECT_EQ(fake.sockets.size(), 1u);
    EXPECT_FALSE(fake.sockets[0]->closeCode);
}

TEST_F(ClientTest, AFirstConfigureWithoutSchemeOrHostFailsAndNothingAborts) {
    base = *Url::parse("localhost:8080");
    auto error = configure();
    ASSERT_TRUE(error);
    try {
        std::rethrow_exception(error);
    } catch (const NetworkError& e) {
        EXPECT_NE(std::string(e.what()).find("no scheme or host"), std::string::npos);
    }
    // identify and reset fail quietly instead of stopping the process.
    bool identified = false, reset = false;
    client->identify("u1", std::nullopt, std::nullopt, [&] { identified = true; });
    client->reset([&] { reset = true; });
    fake.executor->drain();
    EXPECT_TRUE(identified && reset);
    EXPECT_TRUE(fake.http->requestsTo("/v1/sdk/devices/identify").empty());
    EXPECT_TRUE(fake.sockets.empty());

    // After a good registration, a configure with such a URL never talks to the old backend.
    base = *Url::parse("https://backend.test");
    fake.http->reply("/v1/sdk/devices", 200, kRegistered);
    ASSERT_EQ(configure(), nullptr);
    base = *Url::parse("backend.test");
    EXPECT_THROW(std::rethrow_exception(configure()), NetworkError);
    client->identify("u1", std::nullopt, std::nullopt);
    fake.executor->drain();
    EXPECT_TRUE(fake.http->requestsTo("/v1/sdk/devices/identify").empty());
    EXPECT_EQ(client->registration()->deviceId, "d1");
}

}  // namespace
}  // namespace virela
