#include "platform/headless/presenters.hpp"

#include <algorithm>
#include <cmath>

#include "platform/headless/host/builder.hpp"
#include "platform/headless/render/font.hpp"
#include "platform/headless/render/image.hpp"

namespace virela::headless {

namespace {

// A rough text layout, enough for the sheet to occupy a believable part of the screen.
constexpr double kLineHeight = 20;
constexpr double kCharWidth = 8;
constexpr double kCardInset = 10;
constexpr double kContentInset = 22;
constexpr double kBottomGap = 14;
constexpr double kTopPadding = 37;  // grabber and the gap under it
constexpr double kBottomPadding = 18;
constexpr double kLogoSize = 44;
constexpr double kButtonHeight = 52;
constexpr double kButtonGap = 9;
constexpr double kGap = 12;
// The banner sits over the app's windows.
constexpr double kBannerLevel = 1001;

double textHeight(const std::string& text, double width) {
    const double perLine = std::max(1.0, std::floor(width / kCharWidth));
    return kLineHeight * std::max(1.0, std::ceil(static_cast<double>(glyphCount(text)) / perLine));
}

// The pill's frame for `text`, centred in a window `windowWidth` wide.
Rect pillFrame(const std::string& text, double windowWidth) {
    const double width = kCharWidth * static_cast<double>(glyphCount(text)) + 30;
    return {(windowWidth - width) / 2, 12, width, 30};
}

}  // namespace

HeadlessPromptPresenter::HeadlessPromptPresenter(std::function<Appearance()> appearance)
    : appearance_(std::move(appearance)) {}

void HeadlessPromptPresenter::presentConsent(HostHandle window, const ConsentSheet& sheet,
                                             SheetActions actions) {
    dismiss();
    Window* target = resolve<Window>(window);
    if (!target) return;
    state_ = SheetState{.kind = SheetState::Kind::consent,
                        .window = window,
                        .title = sheet.title,
                        .body = sheet.body,
                        .requestLine = sheet.requestLine,
                        .buttons = {sheet.allowTitle, sheet.denyTitle},
                        .logoUrl = sheet.logo};
    build(*target, {std::move(actions.allow), std::move(actions.deny)});
}

void HeadlessPromptPresenter::presentSupportCode(HostHandle window, const SupportCodeSheet& sheet,
                                                 SheetActions actions) {
    dismiss();
    Window* target = resolve<Window>(window);
    if (!target) return;
    state_ = SheetState{.kind = SheetState::Kind::supportCode,
                        .window = window,
                        .title = sheet.title,
                        .body = sheet.body,
                        .code = sheet.code,
                        .note = sheet.note,
                        .buttons = {sheet.doneTitle}};
    build(*target, {std::move(actions.done)});
}

void HeadlessPromptPresenter::build(Window& window,
                                    const std::vector<std::function<void()>>& buttonActions) {
    const Appearance look = appearance_ ? appearance_() : Appearance::unspecified;
    const SheetColors& c = sheetColors;
    const SheetState& s = *state_;
    buttonActions_ = buttonActions;

    Color dim = c.dimming.resolve(look);
    dim.alpha = c.dimmingAlpha;
    overlay_ = view({0, 0, window.frame.width, window.frame.height}, dim);
    overlay_->accessibilityIdentifier = "virela.sheet";

    const double cardWidth = window.frame.width - 2 * kCardInset;
    const double contentWidth = cardWidth - 2 * kContentInset;
    auto card = view({}, c.card.resolve(look));
    card->clipsToBounds = true;
    double y = kTopPadding;
    auto place = [&](std::shared_ptr<View> v, double height, double gapAfter) {
        v->frame = {kContentInset, y, contentWidth, height};
        y += height + gapAfter;
        card->addSubview(std::move(v));
    };

    auto header = view({});
    logoTile_ = view({0, 0, kLogoSize, kLogoSize}, c.logoTile.resolve(look));
    logoTile_->clipsToBounds = true;
    logoTile_->addSubview(view({16, 16, 12, 12}, c.logoDot.resolve(look)));
    header->addSubview(logoTile_);
    const double titleWidth = contentWidth - kLogoSize - 13;
    auto title = label({kLogoSize + 13, 0, titleWidth, textHeight(s.title, titleWidth)}, s.title,
                       c.title.resolve(look));
    title->accessibilityTraits |= 0x10000;  // header
    const double headerHeight = std::max(kLogoSize, title->frame.height);
    header->addSubview(title);

    if (s.kind == SheetState::Kind::consent) {
        place(header, headerHeight, kGap);
        place(label({}, s.body, c.body.resolve(look)), textHeight(s.body, contentWidth), 10);
        place(label({}, s.requestLine, c.secondary.resolve(look)),
              textHeight(s.requestLine, contentWidth), 18);
    } else {
        place(header, headerHeight, 18);
        auto box = view({}, c.codeBox.resolve(look));
        box->addSubview(label({16, 22, contentWidth - 32, 58}, s.code, c.code.resolve(look)));
        place(box, 58 + 44, 8);
        place(label({}, s.body, c.body.resolve(look)), textHeight(s.body, contentWidth), 18);
        place(label({}, s.note, c.secondary.resolve(look)), textHeight(s.note, contentWidth), 16);
    }
    for (std::size_t i = 0; i < s.buttons.size(); ++i) {
        const bool primary = i == 0;
        auto b = button({}, s.buttons[i],
                        (primary ? c.allowBackground : c.denyBackground).resolve(look));
        b->textColor = (primary ? c.allowTitle : c.denyTitle).resolve(look);
        b->onActions = [action = buttonActions_[i]](std::uint64_t) {
            if (action) action();
        };
        place(b, kButtonHeight, i + 1 < s.buttons.size() ? kButtonGap : 0);
    }
    const double cardHeight = y + kBottomPadding;
    card->frame = {kCardInset, window.frame.height - kBottomGap - cardHeight, cardWidth,
                   cardHeight};
    overlay_->addSubview(card);
    window.addSubview(overlay_);
    changed();
}

bool HeadlessPromptPresenter::showLogo(std::string_view bytes) {
    if (!state_ || !logoTile_) return false;
    const std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
    std::optional<Image> image = decodePng(data);
    if (!image) image = decodeJpeg(data);
    if (!image) return false;
    // The placeholder dot gives way to the image, filling the tile.
    for (const auto& sub : std::vector(logoTile_->subviews())) sub->removeFromSuperview();
    auto picture = view({0, 0, kLogoSize, kLogoSize});
    picture->accessibilityIdentifier = "virela.sheet.logo";
    logoTile_->addSubview(picture);
    state_->logo = SheetState::Logo::image;
    state_->logoWidth = image->width;
    state_->logoHeight = image->height;
    changed();
    return true;
}

void HeadlessPromptPresenter::dismiss() {
    if (!state_ && !overlay_) return;
    if (overlay_) overlay_->removeFromSuperview();
    overlay_.reset();
    logoTile_.reset();
    buttonActions_.clear();
    state_.reset();
    changed();
}

bool HeadlessPromptPresenter::press(std::string_view title) {
    if (!state_) return false;
    const auto& buttons = state_->buttons;
    auto it = std::find(buttons.begin(), buttons.end(), title);
    if (it == buttons.end()) return false;
    // The action may dismiss this very sheet, so it runs from a copy.
    std::function<void()> action = buttonActions_[static_cast<std::size_t>(it - buttons.begin())];
    if (action) action();
    return true;
}

void HeadlessPromptPresenter::changed() {
    if (onChange_) onChange_();
}

HeadlessBannerPresenter::HeadlessBannerPresenter(std::function<Appearance()> appearance)
    : appearance_(std::move(appearance)) {}

HeadlessBannerPresenter::~HeadlessBannerPresenter() = default;

void HeadlessBannerPresenter::show(HostHandle window, const std::string& text) {
    hide();
    Window* anchor = resolve<Window>(window);
    if (!anchor || !anchor->scene()) return;
    const Appearance look = appearance_ ? appearance_() : Appearance::unspecified;
    window_ = std::make_shared<Window>("VIRPassthroughWindow");
    window_->frame = anchor->frame;
    window_->screenOrigin = anchor->screenOrigin;
    window_->level = kBannerLevel;
    window_->passthrough = true;  // touches fall through to the app; never captured
    pill_ = label(pillFrame(text, anchor->frame.width), text, bannerColors.text.resolve(look));
    pill_->background = bannerColors.background.resolve(look);
    pill_->borderColor = bannerColors.border.resolve(look);
    pill_->borderWidth = 1;
    window_->addSubview(pill_);
    anchor->scene()->addWindow(window_);
    window_->show();
    if (onChange_) onChange_();
}

void HeadlessBannerPresenter::setText(const std::string& text) {
    if (!pill_) return;
    pill_->text = text;
    pill_->accessibilityLabel = text;
    pill_->frame = pillFrame(text, window_->frame.width);
    if (onChange_) onChange_();
}

void HeadlessBannerPresenter::hide() {
    if (!window_) return;
    window_->hide();
    if (Scene* scene = window_->scene()) scene->removeWindow(*window_);
    window_.reset();
    pill_.reset();
    if (onChange_) onChange_();
}

std::optional<std::string> HeadlessBannerPresenter::text() const {
    if (!pill_) return std::nullopt;
    return pill_->text;
}

}  // namespace virela::headless
