#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/base/errors.hpp"
#include "core/transport/transport.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela {
namespace {

using nlohmann::json;
using testing::FakePlatform;

Url url(const char* text) {
    return *Url::parse(text);
}

VirelaError virelaErrorOf(const SendResult& result) {
    try {
        std::rethrow_exception(result.error);
    } catch (const VirelaError& e) {
        return e;
    }
}

TEST(Url, ResolvesRequestPathsAgainstTheBaseTheStandardWay) {
    auto base = url("https://api.example.com:8443/staging/v2?x=1");
    EXPECT_EQ(base.resolve("/v1/sdk/devices")->str(),
              "https://api.example.com:8443/v1/sdk/devices");
    EXPECT_EQ(base.resolve("sdk/socket")->str(), "https://api.example.com:8443/staging/sdk/socket");
    EXPECT_EQ(base.resolve("../a/./b")->str(), "https://api.example.com:8443/a/b");
    EXPECT_EQ(url("http://h").resolve("x")->str(), "http://h/x");
    EXPECT_EQ(url("HTTP://Host.Example").scheme(), "http");
    EXPECT_EQ(url("http://[::1]:9/p").host(), "[::1]");
    EXPECT_EQ(url("http://[::1]:9/p").effectivePort(), 9);
    EXPECT_EQ(url("https://h").effectivePort(), 443);
    EXPECT_FALSE(Url::parse("/v1/sdk/captures/has space/respond"));
    EXPECT_FALSE(Url::parse("http://h:99999/"));
    EXPECT_FALSE(Url::parse("/bad%zzescape"));
}

class TransportTest : public ::testing::Test {
  protected:
    FakePlatform fake;
    Transport transport{url("https://api.example.com/base/"), "vk_live_1", fake.http,
                        fake.executor};
};

TEST_F(TransportTest, EachKindOfRequestCarriesOnlyItsHeaders) {
    auto registration = transport.jsonRequest("/v1/sdk/devices", {}, true);
    EXPECT_EQ(registration.url.str(), "https://api.example.com/v1/sdk/devices");
    EXPECT_EQ(registration.method, "POST");
    EXPECT_EQ(registration.timeoutSeconds, 60);
    EXPECT_EQ(registration.headers,
              (HttpHeaders{{"Content-Type", "application/json"}, {"X-Virela-Key", "vk_live_1"}}));

    transport.setDeviceToken("tok-1");
    auto identify = transport.jsonRequest("/v1/sdk/devices/identify", {}, false);
    EXPECT_EQ(identify.headers,
              (HttpHeaders{{"Content-Type", "application/json"}, {"X-Virela-Device", "tok-1"}}));

    auto upload = transport.imageUploadRequest("/v1/sdk/captures/r1/upload", "PNG");
    EXPECT_FALSE(findHeader(upload.headers, "X-Virela-Key"));
    EXPECT_EQ(findHeader(upload.headers, "x-virela-device"), "tok-1");
    EXPECT_EQ(findHeader(upload.headers, "Content-Type")
                  ->rfind("multipart/form-data; boundary=virela-", 0),
              0u);
}

TEST_F(TransportTest, AbsentValuesAreSentAsNullInTheGivenOrder) {
    JsonFields fields{{"zeta", json("z")}, {"name", std::nullopt}, {"alpha", json(true)}};
    EXPECT_EQ(transport.jsonRequest("/v1/sdk/x", fields, false).body,
              R"({"zeta":"z","name":null,"alpha":true})");
    EXPECT_EQ(transport.jsonRequest("/v1/sdk/x", {}, false).body, "{}");
}

TEST_F(TransportTest, MultipartBodyIsExactAndEveryRequestGetsAFreshBoundary) {
    const std::string png("\x89PNG\r\n\x1a\n\0binary", 16);
    auto first = transport.imageUploadRequest("/v1/sdk/captures/r1/upload", png);
    auto second = transport.imageUploadRequest("/v1/sdk/captures/r1/upload", png);

    const std::string type = *findHeader(first.headers, "Content-Type");
    const std::string boundary = type.substr(type.find("boundary=") + 9);
    ASSERT_EQ(boundary.size(), 7u + 36u);  // "virela-" and an upper-case UUID
    EXPECT_EQ(boundary.substr(7).find_first_of("abcdef"), std::string::npos);
    EXPECT_EQ(first.body, "--" + boundary + "\r\n" +
                              "Content-Disposition: form-data; name=\"file\"; "
                              "filename=\"capture.png\"\r\n" +
                              "Content-Type: image/png\r\n\r\n" + png + "\r\n--" + boundary +
                              "--\r\n");
    EXPECT_NE(*findHeader(second.headers, "Content-Type"), type);
}

TEST_F(TransportTest, UnserialisableBodyFailsWithoutSending) {
    SendResult result;
    transport.postJson("/v1/sdk/x", {{"name", json("\xff\xfe")}}, false,
                       [&result](SendResult r) { result = std::move(r); });
    fake.executor->drain();
    EXPECT_TRUE(fake.http->requests.empty());
    EXPECT_THROW(std::rethrow_exception(result.error), SerializationError);
}

TEST(TransportErrorModel, MapsEveryKindOfReply) {
    auto reply = [](int status, std::string body) {
        return Transport::interpret(
            HttpOutcome{HttpResponse{status, {}, std::move(body)}, nullptr});
    };
    auto noContent = reply(204, "");
    EXPECT_TRUE(noContent);
    EXPECT_EQ(noContent.body, "");
    EXPECT_EQ(reply(299, "ok").body, "ok");

    EXPECT_EQ(virelaErrorOf(reply(500, R"({"message":"x"})")), VirelaError(500, "unknown", "x"));
    EXPECT_EQ(virelaErrorOf(reply(403, R"({"error":"forbidden","message":"No."})")),
              VirelaError(403, "forbidden", "No."));
    EXPECT_EQ(virelaErrorOf(reply(401, "<html><body>401</body></html>")),
              VirelaError(401, "unknown", "Request failed."));
    EXPECT_EQ(virelaErrorOf(reply(502, "")), VirelaError(502, "unknown", "Request failed."));
    EXPECT_EQ(virelaErrorOf(reply(400, R"({"error":7,"message":"typed wrong"})")),
              VirelaError(400, "unknown", "Request failed."));
    EXPECT_EQ(virelaErrorOf(reply(300, R"(["error"])")),
              VirelaError(300, "unknown", "Request failed."));

    EXPECT_EQ(virelaErrorOf(Transport::interpret(HttpOutcome{})),
              VirelaError(0, "no_response", "No HTTP response."));

    auto refused = std::make_exception_ptr(NetworkError(NetworkError::Kind::refused, "refused"));
    auto failed = Transport::interpret(HttpOutcome{std::nullopt, refused});
    // Passed on as the very same object, not wrapped: a platform's own subclass (the iOS
    // binding's carries the URL session's NSError) reaches the host as it was thrown.
    EXPECT_EQ(failed.error, refused);
}

TEST_F(TransportTest, RepliesReachTheCallerOnTheMainExecutor) {
    fake.http->reply("/v1/sdk/devices/reset", 200, R"({"supportCode":"1"})");
    std::optional<SendResult> result;
    transport.postJson("/v1/sdk/devices/reset", {}, false,
                       [&](SendResult r) { result = std::move(r); });
    EXPECT_FALSE(result);  // not before the main executor runs
    fake.executor->drain();
    ASSERT_TRUE(result && *result);
    EXPECT_EQ(result->body, R"({"supportCode":"1"})");
}

TEST(TransportDeathTest, RequestPathThatIsNotAUrlStopsTheProcess) {
    FakePlatform fake;
    Transport transport(url("https://api.example.com"), "k", fake.http, fake.executor);
    EXPECT_DEATH(transport.jsonRequest("/v1/sdk/captures/a b/respond", {}, false),
                 "request path is not a valid URL");
}

}  // namespace
}  // namespace virela
