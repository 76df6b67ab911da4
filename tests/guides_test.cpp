// What the agent's guides draw, as numbers: kinds, colours, label text and mark geometry.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <string>

#include "core/live/guides.hpp"

namespace virela {
namespace {

constexpr Size kPhone{390, 844};

GuidePush guidePush(std::string kind, std::optional<double> x = 0.5,
                    std::optional<double> y = 0.5) {
    GuidePush push;
    push.sessionId = "live-1";
    push.kind = std::move(kind);
    push.x = x;
    push.y = y;
    return push;
}

TEST(Guides, KindsAreExactAndEachHasItsPointingTime) {
    EXPECT_EQ(guideKindNamed("laser-off"), GuideKind::laserOff);
    EXPECT_EQ(guideKindNamed("Laser"), std::nullopt);
    EXPECT_EQ(guideKindNamed("circle"), std::nullopt);
    EXPECT_EQ(pointingSeconds(GuideKind::laser), 1.2);
    EXPECT_EQ(pointingSeconds(GuideKind::laserOff), 0.2);
    EXPECT_EQ(pointingSeconds(GuideKind::label), 5.0);
    EXPECT_FALSE(guideMark(guidePush("laser"), kPhone));
    EXPECT_FALSE(guideMark(guidePush("circle"), kPhone));
}

TEST(Guides, OnlySixDigitHashColoursAreTheAgentsOwn) {
    EXPECT_EQ(guideColor("#00ff00"), (Color{0, 1, 0, 1}));
    EXPECT_EQ(guideColor("#FF8000"), (Color{1, 128 / 255.0, 0, 1}));
    for (const char* other : {"00FF00", "#0F0", "#00FF00FF", "#00GG00", "#+12345", "# 12345", ""}) {
        EXPECT_EQ(guideColor(std::string(other)), std::nullopt) << other;
    }
    EXPECT_EQ(guideColor(std::nullopt), std::nullopt);
}

TEST(Guides, LabelTextIsTrimmedCutToFortyCharactersOrTapHere) {
    EXPECT_EQ(guideLabelText(std::nullopt), "Tap here");
    EXPECT_EQ(guideLabelText(" \n\t\u00a0\u3000"), "Tap here");
    EXPECT_EQ(guideLabelText("  Tap the blue button\n"), "Tap the blue button");
    EXPECT_EQ(guideLabelText(std::string(100, 'x')), std::string(40, 'x'));
    EXPECT_EQ(guideLabelText(std::string(10'000, 'y')), std::string(40, 'y'));

    // Forty characters as a reader counts them, never a byte or code point cut in half.
    std::string family;  // man ZWJ woman ZWJ girl: one character of 18 bytes
    for (int i = 0; i < 50; ++i) family += "\U0001F468\u200D\U0001F469\u200D\U0001F467";
    std::string fortyFamilies;
    for (int i = 0; i < 40; ++i) fortyFamilies += "\U0001F468\u200D\U0001F469\u200D\U0001F467";
    EXPECT_EQ(guideLabelText(family), fortyFamilies);
    std::string flags;
    for (int i = 0; i < 41; ++i) flags += "\U0001F1E9\U0001F1EA";  // the German flag
    EXPECT_EQ(guideLabelText(flags), flags.substr(0, 40 * 8));
    const std::string accented = std::string(39, 'a') + "e\u0301" + "zz";
    EXPECT_EQ(guideLabelText(accented), std::string(39, 'a') + "e\u0301");

    // Bytes that are not UTF-8 become replacement characters, so the label is valid text.
    EXPECT_EQ(guideLabelText(std::string("ok\xff\xc3")), "ok\uFFFD\uFFFD");
}

TEST(Guides, BoxAndFillFramesStartAtTheGuidesPoint) {
    auto box = guideMark(guidePush("box"), kPhone);
    ASSERT_TRUE(box);
    const auto& shape = std::get<BoxMark>(box->shape);
    EXPECT_DOUBLE_EQ(shape.frame.x, 195);
    EXPECT_DOUBLE_EQ(shape.frame.y, 422);
    EXPECT_DOUBLE_EQ(shape.frame.width, 62.4);
    EXPECT_DOUBLE_EQ(shape.frame.height, 92.84);
    EXPECT_EQ(shape.cornerRadius, 15);

    GuidePush thin = guidePush("fill", 0.1, 0.2);
    thin.w = 0.5;
    thin.h = 0.01;
    auto fill = guideMark(thin, kPhone);
    ASSERT_TRUE(fill);
    EXPECT_DOUBLE_EQ(std::get<BoxMark>(fill->shape).cornerRadius, 8.44 / 2);
    thin.h = 0.5;
    EXPECT_EQ(std::get<BoxMark>(guideMark(thin, kPhone)->shape).cornerRadius, 6);
}

TEST(Guides, ArrowEndsNineHundredthsFurtherWithAHeadAtItsEnd) {
    auto mark = guideMark(guidePush("arrow"), kPhone);
    ASSERT_TRUE(mark);
    const auto& arrow = std::get<ArrowMark>(mark->shape);
    const Point end{arrow.frame.x + arrow.end.x, arrow.frame.y + arrow.end.y};
    EXPECT_DOUBLE_EQ(end.x, 0.59 * 390);
    EXPECT_DOUBLE_EQ(end.y, 0.59 * 844);
    EXPECT_DOUBLE_EQ(arrow.frame.x, 195 - 16);
    EXPECT_DOUBLE_EQ(arrow.frame.width, 0.09 * 390 + 32);
    EXPECT_EQ(arrow.start, (Point{16, 16}));
    // Both head strokes are 13 long and sweep back from the tip at 135 degrees to the shaft.
    const double shaft = std::atan2(arrow.end.y - arrow.start.y, arrow.end.x - arrow.start.x);
    for (const Point head : {arrow.headLeft, arrow.headRight}) {
        EXPECT_NEAR(std::hypot(head.x - arrow.end.x, head.y - arrow.end.y), 13, 1e-9);
        const double angle = std::atan2(head.y - arrow.end.y, head.x - arrow.end.x) - shaft;
        EXPECT_NEAR(std::abs(std::remainder(angle, 2 * std::numbers::pi)), 3 * std::numbers::pi / 4,
                    1e-9);
    }

    // Pointing up and left: the frame still holds both ends with its margin.
    GuidePush back = guidePush("arrow", 0.8, 0.8);
    back.x2 = 0.2;
    back.y2 = 0.1;
    const auto backMark = guideMark(back, kPhone);
    ASSERT_TRUE(backMark);
    const auto& reversed = std::get<ArrowMark>(backMark->shape);
    EXPECT_DOUBLE_EQ(reversed.frame.x, 0.2 * 390 - 16);
    EXPECT_DOUBLE_EQ(reversed.end.x, 16);
    EXPECT_DOUBLE_EQ(reversed.start.y, reversed.frame.height - 16);
}

TEST(Guides, LabelsAnchorAtTheirLeftEdgeAndCentreLine) {
    GuidePush push = guidePush("label", 0.25, std::nullopt);
    push.text = "   ";
    const auto mark = guideMark(push, kPhone);
    ASSERT_TRUE(mark);
    const auto& label = std::get<LabelMark>(mark->shape);
    EXPECT_EQ(label.text, "Tap here");
    EXPECT_DOUBLE_EQ(label.maxWidth, 390 * 0.7 - 16);
    EXPECT_EQ(label.anchor, (Point{97.5, 422}));
}

TEST(Guides, FractionsOutsideTheScreenDrawOffItButOverflowDrawsNothing) {
    GuidePush off = guidePush("box", -0.5, 1.5);
    EXPECT_DOUBLE_EQ(std::get<BoxMark>(guideMark(off, kPhone)->shape).frame.x, -195);
    GuidePush huge = guidePush("arrow", std::numeric_limits<double>::max(), 0.5);
    EXPECT_FALSE(guideMark(huge, kPhone));
    GuidePush negative = guidePush("box");
    negative.w = -0.1;
    const auto negativeMark = guideMark(negative, kPhone);
    ASSERT_TRUE(negativeMark);
    const auto& flipped = std::get<BoxMark>(negativeMark->shape);
    EXPECT_GE(flipped.cornerRadius, 0);
    EXPECT_GE(flipped.frame.width, 0);
}

}  // namespace
}  // namespace virela
