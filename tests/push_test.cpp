#include <gtest/gtest.h>

#include "core/base/json.hpp"
#include "core/ports/socket.hpp"
#include "core/wire/push_records.hpp"

namespace virela {
namespace {

template <class Record>
std::optional<Record> decodeAs(const std::string& text) {
    auto push = decodePush(text);
    if (!push || !std::holds_alternative<Record>(*push)) return std::nullopt;
    return std::get<Record>(*push);
}

TEST(PushDecoding, AcceptsEveryRecordWithItsTypesAndIgnoresExtraKeys) {
    auto consent = decodeAs<ConsentPush>(
        R"({"type":"consent","extra":1,"payload":{"requestId":"r","mode":"LiveView","consentCopy":"c",)"
        R"("promptId":null,"agentName":"Sam","expiresAt":"2026-11-21T10:00:00.123Z","new":[1]}})");
    ASSERT_TRUE(consent);
    EXPECT_EQ(consent->mode, CaptureMode::liveView);
    EXPECT_EQ(consent->agentName, "Sam");
    EXPECT_FALSE(consent->promptId);

    auto guide =
        decodeAs<GuidePush>(R"({"type":"guide","payload":{"sessionId":"s","kind":"arrow"}})");
    ASSERT_TRUE(guide);
    EXPECT_FALSE(guide->x);
    auto placed = decodeAs<GuidePush>(
        R"({"type":"guide","payload":{"sessionId":"s","kind":"box","x":1,"y":0.5,"w":2e-1}})");
    EXPECT_EQ(placed->x, 1.0);
    EXPECT_EQ(placed->w, 0.2);

    auto input = decodeAs<ControlInputPush>(
        R"({"type":"control-input","payload":{"sessionId":"s","action":"scroll","dx":-3,"dy":40.5}})");
    EXPECT_EQ(input->dy, 40.5);
    auto note = decodeAs<LiveNotePush>(
        R"({"type":"live-note","payload":{"sessionId":"s","kind":"recordingStarted","guides":true,"generation":"3"}})");
    EXPECT_EQ(note->generation, "3");
    auto control = decodeAs<ControlPush>(
        R"({"type":"control","payload":{"sessionId":"s","state":"ended","generation":"12"}})");
    EXPECT_EQ(control->state, LiveState::ended);
    EXPECT_EQ(decodeAs<SessionPush>(R"({"type":"session","payload":{"state":"paused"}})")->state,
              "paused");
    EXPECT_TRUE(decodeAs<ExpiredPush>(R"({"type":"expired","payload":{"anything":1}})"));
    EXPECT_TRUE(decodeAs<DeniedPush>(R"({"type":"denied","payload":[1,2]})"));
}

TEST(PushDecoding, DropsWhatDoesNotFitItsRecord) {
    const char* dropped[] = {
        R"({"type":"live-note","payload":{"sessionId":"s","kind":"frameSaved","generation":3}})",
        R"({"type":"live","payload":{"sessionId":"s","state":"paused"}})",
        R"({"type":"control","payload":{"sessionId":"s","state":"active","generation":12}})",
        R"({"type":"consent","payload":{"requestId":"r","mode":"Always","consentCopy":"c","expiresAt":"t"}})",
        R"({"type":"consent","payload":{"requestId":"r","mode":"PerSession","consentCopy":"c"}})",
        R"({"type":"guide","payload":{"sessionId":"s","kind":"dot","x":"1"}})",
        R"({"type":"live-note","payload":{"sessionId":"s","kind":"frameSaved","guides":1}})",
        R"({"type":"capture","payload":{"requestId":7}})",
        R"({"type":"capture","payload":[{"requestId":"r"}]})",
        R"({"type":"capture","payload":"r"})",
        R"({"type":"expired","payload":null})",
        R"({"type":"denied","payload":"x"})",
        R"({"type":"denied"})",
        R"({"type":"unknown","payload":{}})",
        R"({"type":5,"payload":{}})",
        R"({"payload":{}})",
        R"(["type","expired"])",
        R"({"type":"expired","payload":{})",
        "",
        "\xff\xfe",
    };
    for (const char* text : dropped) EXPECT_FALSE(decodePush(text)) << text;
}

TEST(PushDecoding, NestingDeeperThanTheLimitIsDroppedUnparsed) {
    auto nested = [](std::size_t depth) {
        return R"({"type":"capture","payload":{"requestId":"r","extra":)" +
               std::string(depth - 2, '[') + std::string(depth - 2, ']') + "}}";
    };
    EXPECT_TRUE(decodePush(nested(kMaxJsonDepth)));
    EXPECT_FALSE(decodePush(nested(kMaxJsonDepth + 1)));
    EXPECT_FALSE(decodePush(nested(100'000)));
    // Brackets inside strings are text, escaped quotes included.
    EXPECT_TRUE(decodePush(R"({"type":"capture","payload":{"requestId":"a\"[[[[)" +
                           std::string(100, '[') + "\"}}"));
    EXPECT_TRUE(jsonNestsWithin(std::string(64, '[')));
    EXPECT_FALSE(jsonNestsWithin(std::string(65, '{')));
}

TEST(CloseFrame, CodesThatOnlyDescribeACloseGoOutAsNormalClosure) {
    for (int code : {1000, 1001, 1003, 1007, 1011, 1013, 3000, 4999}) {
        EXPECT_EQ(closeCodeToSend(code), code) << code;
    }
    for (int code : {0, 999, 1004, 1005, 1006, 1014, 1015, 2999, 5000, -1}) {
        EXPECT_EQ(closeCodeToSend(code), 1000) << code;
    }
}

TEST(CloseFrame, AReasonIsCutToWhatFitsWithoutSplittingACharacter) {
    EXPECT_EQ(closeReasonToSend("bye"), "bye");
    EXPECT_EQ(closeReasonToSend(std::string(123, 'a')), std::string(123, 'a'));
    EXPECT_EQ(closeReasonToSend(std::string(200, 'a')), std::string(123, 'a'));
    // 122 ASCII bytes and a two-byte character: the character would straddle the limit.
    EXPECT_EQ(closeReasonToSend(std::string(122, 'a') + "\xC3\xA9z"), std::string(122, 'a'));
    // Ending exactly on the limit keeps the whole character.
    EXPECT_EQ(closeReasonToSend(std::string(121, 'a') + "\xC3\xA9z"),
              std::string(121, 'a') + "\xC3\xA9");
}

}  // namespace
}  // namespace virela
