// Which redacted views are found, with which rectangle and style.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "core/api/virela.hpp"
#include "core/control/windows.hpp"
#include "core/redaction/redaction_walk.hpp"
#include "platform/headless/host/builder.hpp"

namespace virela::headless {
namespace {

class Redactions : public ::testing::Test {
  protected:
    void TearDown() override { setDefaultRedactionStyle(original); }

    const std::vector<Redaction>& find() {
        return finder.find(*host, *host->readWindow(window->handle()));
    }

    VirelaRedaction original = defaultRedactionStyle();
    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    std::shared_ptr<Window> window = makeAppWindow(*host, {390, 844});
    RedactionFinder finder;
};

TEST_F(Redactions, StylePrecedenceAndIdentifierMatching) {
    const VirelaRedaction fallback{{0, 0, 1, 1}, "X", {1, 1, 1, 1}};
    const RedactionMark mark{{{0, 1, 0, 1}, "CARD", {0, 0, 0, 1}}};
    EXPECT_EQ(redactionStyleFor(&mark, "virela-redact", true, fallback), &mark.style);
    EXPECT_EQ(redactionStyleFor(nullptr, "form.virela-redact.card", false, fallback), &fallback);
    EXPECT_EQ(redactionStyleFor(nullptr, "Virela-Redact", false, fallback), nullptr);
    EXPECT_EQ(redactionStyleFor(nullptr, "", true, fallback), &fallback);
    EXPECT_EQ(redactionStyleFor(nullptr, "", false, fallback), nullptr);

    auto secure = add(*window, textField({16, 100, 358, 44}, "hunter2", true));
    add(*window, textField({16, 160, 358, 44}, "visible"));
    const auto& found = find();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].view, secure->handle());
    EXPECT_EQ(found[0].style, defaultRedactionStyle());
    EXPECT_EQ(found[0].style.label, "REDACTED");
}

TEST_F(Redactions, MarksKeepTheStyleTheyWereMadeWith) {
    auto early = add(*window, view({0, 0, 100, 100}));
    early->setVirelaRedacted(true);
    auto custom = add(*window, view({0, 200, 100, 100}));
    custom->virelaRedact(Color{0, 0, 0, 1}, std::nullopt, std::nullopt);

    const VirelaRedaction blue{{0, 0, 1, 1}, "HIDDEN", {1, 1, 0, 1}};
    Virela::setRedactionStyle(blue);
    auto late = add(*window, view({0, 400, 100, 100}));
    late->setVirelaRedacted(true);
    auto byId = add(*window, view({0, 600, 100, 100}));
    byId->accessibilityIdentifier = "virela-redact";

    const auto& found = find();
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[0].style, original);
    EXPECT_EQ(found[1].style.color, (Color{0, 0, 0, 1}));
    EXPECT_EQ(found[1].style.label, "REDACTED");  // absent values from the default of then
    EXPECT_EQ(found[2].style, blue);
    EXPECT_EQ(found[3].style, blue);

    late->setVirelaRedacted(false);
    EXPECT_EQ(find().size(), 3u);
}

TEST_F(Redactions, ClippingScrollingAndHiddenAncestors) {
    auto list = add(*window, scrollView({0, 100, 390, 400}, {390, 2000}));
    auto card = add(*list, view({20, 600, 350, 80}, rgb(0xEEEEEE)));
    card->setVirelaRedacted(true);
    EXPECT_TRUE(find().empty());  // below the visible part of the list

    list->boundsOrigin = {0, 240};  // scrolled so that half of it shows
    auto found = find();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].rect, (Rect{19.5, 459.5, 351, 41}));  // clipped at the list's bottom

    list->alpha = 0.009;
    EXPECT_TRUE(find().empty());
    list->alpha = 0.01;
    EXPECT_EQ(find().size(), 1u);
    list->hidden = true;
    EXPECT_TRUE(find().empty());
}

TEST_F(Redactions, ContentReachingOutsideARedactedViewIsCovered) {
    auto field = add(*window, view({20, 100, 200, 40}));
    field->setVirelaRedacted(true);
    add(*field, label({0, 50, 300, 20}, "4111 1111 1111 1111"));  // overflows, not clipped
    const auto& found = find();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].rect, (Rect{19.5, 99.5, 301, 71}));
}

TEST_F(Redactions, AnimatedViewsAreCoveredWhereTheyAreAndWhereTheyGo) {
    auto moving = add(*window, view({0, 100, 100, 50}));
    moving->presentationFrame = Rect{0, 300, 100, 50};
    moving->animating = true;
    moving->setVirelaRedacted(true);
    const auto& found = find();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].rect, (Rect{-0.5, 99.5, 101, 251}));
}

TEST_F(Redactions, OpaqueViewsAboveRemoveWhatTheyCover) {
    auto secret = add(*window, view({0, 100, 390, 200}));
    secret->setVirelaRedacted(true);

    auto sheet = add(*window, view({0, 0, 390, 844}, rgb(0xFFFFFF, 0.5)));  // half-transparent
    EXPECT_EQ(find().size(), 1u);
    sheet->background = rgb(0xFFFFFF);
    EXPECT_TRUE(find().empty());  // an opaque sheet hides it completely

    sheet->frame = {0, 0, 390, 150};  // covers the top band
    auto found = find();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].rect, (Rect{-0.5, 150, 391, 150.5}));

    sheet->frame = {100, 150, 100, 50};  // an inner piece changes nothing
    found = find();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].rect, (Rect{-0.5, 99.5, 391, 201}));
}

TEST_F(Redactions, OnlyViewsReallyDrawnOpaqueAboveCountAsCovers) {
    auto secret = add(*window, view({0, 100, 390, 200}));
    secret->setVirelaRedacted(true);

    // Opaque, but drawn only inside a small clipping container: elsewhere it is not drawn.
    auto container = add(*window, view({0, 600, 390, 100}));
    container->clipsToBounds = true;
    add(*container, view({0, -600, 390, 844}, rgb(0x123456)));
    EXPECT_EQ(find().size(), 1u);

    // Opaque itself, half-transparent through its parent.
    auto faded = add(*window, view({0, 0, 390, 844}));
    faded->alpha = 0.5;
    auto cover = add(*faded, view({0, 0, 390, 844}, rgb(0x123456)));
    EXPECT_EQ(find().size(), 1u);

    // Opaque but moving.
    faded->alpha = 1;
    faded->animating = true;
    EXPECT_EQ(find().size(), 1u);
    faded->animating = false;
    EXPECT_TRUE(find().empty());

    // Views drawn before the redacted view never cover it.
    cover->removeFromSuperview();
    add(*window, view({0, 0, 390, 844}, rgb(0)));
    window->addSubview(secret);  // now drawn last
    EXPECT_EQ(find().size(), 1u);
}

TEST_F(Redactions, CoversThatLeaveTheirCornersOrEdgesUndrawnHideOnlyWhatTheySurelyCover) {
    auto secret = add(*window, view({0, 100, 390, 200}));
    secret->setVirelaRedacted(true);
    auto sheet = add(*window, view({-10, 90, 410, 220}, rgb(0x123456)));
    ASSERT_TRUE(find().empty());

    sheet->transform = {1, 0, 0, 1, 5, 5};  // moved only: still the box it reports
    EXPECT_TRUE(find().empty());
    sheet->transform = {0.8, 0.6, -0.6, 0.8, 0, 0};  // rotated: its box has empty corners
    EXPECT_EQ(find().size(), 1u);
    sheet->transform = {1, 0, 0, 1.001, 0, 0};
    EXPECT_EQ(find().size(), 1u);
    sheet->transform = {};
    sheet->masked = true;
    EXPECT_EQ(find().size(), 1u);
    sheet->masked = false;

    // Rounded: only the box inset by the radius counts.
    sheet->cornerRadius = 12;  // the corners lie over the redaction
    EXPECT_EQ(find().size(), 1u);
    sheet->cornerRadius = 9;  // inset, it still covers the whole redaction
    EXPECT_TRUE(find().empty());

    // Opaque subviews drawn through the sheet's shape.
    sheet->cornerRadius = 0;
    sheet->background.reset();
    auto inner = add(*sheet, view({0, 0, 410, 220}, rgb(0x123456)));
    EXPECT_TRUE(find().empty());
    sheet->masked = true;
    EXPECT_EQ(find().size(), 1u);
    sheet->masked = false;
    sheet->transform = {0.5, 0, 0, 0.5, 0, 0};
    EXPECT_EQ(find().size(), 1u);
    sheet->transform = {};
    sheet->cornerRadius = 30;  // rounding without clipping leaves the subview square
    EXPECT_TRUE(find().empty());
    sheet->clipsToBounds = true;
    EXPECT_EQ(find().size(), 1u);

    // Half-transparent through the layer.
    sheet->cornerRadius = 0;
    sheet->alpha = 0.9;
    EXPECT_EQ(find().size(), 1u);
}

TEST_F(Redactions, ManyViewsGiveTheSameCoversAsFew) {
    // Enough redactions and covers for the walk to bucket the covers, with small views piled
    // inside each redaction that never count, and covers that reach in from every side.
    constexpr int rows = 80;
    for (int k = 0; k < rows; ++k) {
        const double y = 10.0 * k;
        auto secret = add(*window, view({20, y, 100, 8}));
        secret->setVirelaRedacted(true);
        for (double i = 0; i < 20; ++i) add(*window, view({21 + i, y + 1, 4, 4}, rgb(0x123456)));
        if (k % 4 == 0) add(*window, view({0, y, 390, 3}, rgb(0x123456)));         // top band
        if (k % 4 == 1) add(*window, view({100, y - 1, 290, 10}, rgb(0x123456)));  // right
        if (k % 4 == 2) add(*window, view({30, y + 2, 20, 2}, rgb(0x123456)));     // inner piece
    }
    add(*window, view({0, 10.0 * (rows - 4) - 1, 390, 60}, rgb(0x123456)));  // the last rows
    const auto& found = find();
    ASSERT_EQ(found.size(), static_cast<std::size_t>(rows - 4));
    for (int k = 0; k < rows - 4; ++k) {
        const double y = 10.0 * k;
        SCOPED_TRACE(k);
        const Rect expected = k % 4 == 0   ? Rect{19.5, y + 3, 101, 5.5}
                              : k % 4 == 1 ? Rect{19.5, y - 0.5, 80.5, 9}
                                           : Rect{19.5, y - 0.5, 101, 9};
        EXPECT_EQ(found[static_cast<std::size_t>(k)].rect, expected);
    }
}

TEST_F(Redactions, BadGeometryYieldsNothingAndNeverCrashes) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    auto broken = add(*window, view({nan, 0, 100, 100}));
    broken->setVirelaRedacted(true);
    auto infinite = add(*window, view({0, 0, inf, 100}));
    infinite->setVirelaRedacted(true);
    auto empty = add(*window, view({0, 0, 0, 100}));
    empty->setVirelaRedacted(true);
    auto weird = add(*window, view({0, 0, 100, 100}));
    weird->alpha = nan;
    auto inside = add(*weird, view({0, 0, 10, 10}));
    inside->setVirelaRedacted(true);
    EXPECT_TRUE(find().empty());

    // A tree that changes while it is read is reported, never half-read.
    auto good = add(*window, view({0, 0, 100, 100}));
    good->setVirelaRedacted(true);
    broken->onRead = [&] { empty->removeFromSuperview(); };
    EXPECT_THROW(find(), HostReadError);
}

}  // namespace
}  // namespace virela::headless
