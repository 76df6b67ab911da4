#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <string>

#include <nlohmann/json.hpp>

#include "core/client/client.hpp"
#include "core/health/device_health.hpp"
#include "core/ports/manual_clock.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela {
namespace {

using nlohmann::json;
using testing::FakePlatform;

TEST(HealthTexts, FollowTheCardRules) {
    EXPECT_EQ(health::sizeText(1'500'000'000), "1.5 GB free");
    EXPECT_EQ(health::sizeText(1'000'000'000), "1.0 GB free");
    EXPECT_EQ(health::sizeText(999'999'999), "999 MB free");
    EXPECT_EQ(health::sizeText(12'345'678'901), "12.3 GB free");
    EXPECT_EQ(health::sizeText(0), "0 MB free");
    EXPECT_EQ(health::sizeText(1'949'999'999), "1.9 GB free");
    EXPECT_EQ(health::sizeText(9'960'000'000), "10.0 GB free");
    // A host app running under a locale whose decimal mark is a comma changes nothing.
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "ru_RU.UTF-8"}) {
        if (!std::setlocale(LC_ALL, name)) continue;
        EXPECT_EQ(health::sizeText(1'500'000'000), "1.5 GB free") << name;
        std::setlocale(LC_ALL, "C");
    }

    EXPECT_EQ(health::batteryText(0.856), "85%");
    EXPECT_EQ(health::batteryText(0.29), "29%");
    EXPECT_EQ(health::batteryText(0.8599), "85%");
    EXPECT_EQ(health::batteryText(-1), std::nullopt);
    EXPECT_EQ(health::batteryText(std::nan("")), std::nullopt);
    // UIKit's level is a float; every whole percent it can report reads as that percent, however
    // the float was rounded.
    for (int percent = 0; percent <= 100; ++percent) {
        const std::string expected = std::to_string(percent) + "%";
        const float divided = static_cast<float>(percent) / 100.0f;
        const float narrowed = static_cast<float>(percent / 100.0);
        EXPECT_EQ(health::batteryText(divided), expected) << percent;
        EXPECT_EQ(health::batteryText(narrowed), expected) << percent;
        EXPECT_EQ(health::batteryText(std::nextafter(divided, 0.0f)), expected) << percent;
    }
    EXPECT_EQ(health::batteryStateText(3), "full");
    EXPECT_EQ(health::batteryStateText(4), std::nullopt);

    EXPECT_EQ(health::accessibilityText({true, false, true}), "VoiceOver, AssistiveTouch");
    EXPECT_EQ(health::accessibilityText({}), "");
    EXPECT_EQ(health::textSizeName(ContentSizeCategory::large), "Default");
    EXPECT_EQ(health::textSizeName(ContentSizeCategory::extraLarge), "Large (XL)");
    EXPECT_EQ(health::textSizeName(ContentSizeCategory::accessibilityExtraExtraExtraLarge),
              "Accessibility Extra Extra Extra Large");
    EXPECT_EQ(health::textSizeName(ContentSizeCategory::unspecified), std::nullopt);

    EXPECT_EQ(health::networkName({false, true, false}), "Offline");
    EXPECT_EQ(health::networkName({true, true, true}), "Wi-Fi");
    EXPECT_EQ(health::networkName({true, false, true}), "Cellular");
    EXPECT_EQ(health::networkName({true, false, false}), std::nullopt);
}

TEST(HealthReport, BodyHasTheEightKeysInOrder) {
    DeviceHealthSnapshot snapshot;
    snapshot.modelIdentifier = "iPhone15,2";
    snapshot.network = "Cellular";
    snapshot.accessibility = "";
    EXPECT_EQ(serializeFields(health::reportBody(snapshot)),
              R"({"battery":null,"batteryState":null,"network":"Cellular","storage":null,)"
              R"("memory":null,"appearance":null,"textSize":null,"accessibility":""})");
}

TEST(NetworkProbe, AnswersOnceAndIgnoresAnUpdateAfterTheTimeout) {
    FakePlatform fake;
    fake.paths->answerOnStart = false;
    DeviceHealth health(HealthPorts::of(*fake.platform));
    std::vector<std::optional<std::string>> answers;
    health.collectNetwork([&](std::optional<std::string> name) { answers.push_back(name); });
    fake.executor->drain();
    fake.executor->fireDelayed();  // the one-second time-out
    fake.paths->push({true, true, false});
    fake.executor->drain();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], std::nullopt);
    EXPECT_EQ(fake.paths->running(), 0u);

    fake.paths->answerOnStart = true;
    answers.clear();
    health.collectNetwork([&](std::optional<std::string> name) { answers.push_back(name); });
    fake.executor->drain();
    fake.executor->fireDelayed();
    EXPECT_EQ(answers, (std::vector<std::optional<std::string>>{"Wi-Fi"}));
}

TEST(NetworkWatch, ReportsOnlyWhenTheNetworkChanges) {
    FakePlatform fake;
    auto client = VirelaClient::create(fake.platform);
    fake.http->reply("/v1/sdk/devices", 200,
                     R"({"deviceId":"d","deviceToken":"t","consentCopy":"c",)"
                     R"("captureMode":"AskEveryTime","isTest":true})");
    client->configure(*Url::parse("http://backend.test"), "k", std::nullopt, false,
                      [](std::exception_ptr) {});
    fake.http->reply("/v1/sdk/devices/health", 200, "{}");
    fake.http->reply("/v1/sdk/devices/health", 200, "{}");
    fake.executor->drain();  // registration, then the watch's first update reports Wi-Fi
    auto reports = [&] { return fake.http->requestsTo("/v1/sdk/devices/health"); };
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(json::parse(reports()[0].body)["network"], "Wi-Fi");
    EXPECT_EQ(findHeader(reports()[0].headers, "X-Virela-Device"), "t");

    fake.device->mainFacts.batteryLevel = 0.1;  // battery alone does not report
    fake.paths->push({true, true, false});
    fake.executor->drain();
    EXPECT_EQ(reports().size(), 1u);

    fake.paths->push({true, false, true});
    fake.executor->drain();
    ASSERT_EQ(reports().size(), 2u);

    // Two updates racing before the first report's reply still send one report.
    fake.paths->push({false, false, false});
    fake.paths->push({false, false, false});
    fake.executor->drain();
    EXPECT_EQ(reports().size(), 3u);
    EXPECT_EQ(fake.http->pendingCount(), 1u);

    // Only an accepted report counts: when the one in flight fails, the update that waited
    // for it sends again, and so does the next update on the same network.
    fake.paths->push({false, false, false});
    fake.executor->drain();
    fake.http->completePending(
        0, HttpOutcome{std::nullopt,
                       std::make_exception_ptr(NetworkError(NetworkError::Kind::timedOut, "x"))});
    fake.executor->drain();
    ASSERT_EQ(reports().size(), 4u);
    fake.http->completePending(0, HttpOutcome{HttpResponse{500, {}, "{}"}, nullptr});
    fake.executor->drain();
    fake.paths->push({false, false, false});
    fake.executor->drain();
    EXPECT_EQ(reports().size(), 5u);
}

TEST(ManualClock, RunsDueWorkInOrderAndHonoursCancel) {
    ManualClock clock;
    std::vector<std::string> ran;
    auto cancelled = clock.after(1, [&] { ran.push_back("cancelled"); });
    clock.after(2, [&] { ran.push_back("two"); });
    clock.after(1, [&] {
        ran.push_back("one");
        clock.after(0.5, [&] { ran.push_back("one-and-a-half"); });
    });
    auto ticks = clock.every(1, [&] { ran.push_back("tick"); });
    cancelled->cancel();
    clock.advance(2);
    ticks->cancel();
    ticks->cancel();
    clock.advance(10);
    EXPECT_EQ(ran, (std::vector<std::string>{"one", "tick", "one-and-a-half", "two", "tick"}));
    EXPECT_EQ(clock.requestedDelays(), (std::vector<double>{1, 2, 1, 0.5}));
    EXPECT_EQ(clock.pendingCount(), 0u);
}

}  // namespace
}  // namespace virela
