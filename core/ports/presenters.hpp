#pragma once

// What the library puts on the customer's screen, as plain descriptions the platform draws: the
// bottom sheets and the session banner, and the palette colour of each of their parts. Core
// decides what they say and when they come and go; a presenter only lays them out. Main thread
// only.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "core/base/handles.hpp"
#include "core/base/url.hpp"
#include "core/ports/palette.hpp"

namespace virela {

// A consent or control sheet: header (logo tile and title), body, request line, allow above deny.
struct ConsentSheet {
    std::string title;
    std::string body;
    std::string requestLine;
    std::string allowTitle;
    std::string denyTitle;
    std::optional<Url> logo;
    friend bool operator==(const ConsentSheet&, const ConsentSheet&) = default;
};

// The sheet that shows the device's support code (no logo image).
struct SupportCodeSheet {
    std::string title = "Your support code";
    std::string code;
    std::string body = "Read this to the support agent so they can find you.";
    std::string note = "Only while you’re on this call.";
    std::string doneTitle = "Done";
    friend bool operator==(const SupportCodeSheet&, const SupportCodeSheet&) = default;
};

// What the sheet's buttons do. The presenter calls them on the main thread.
struct SheetActions {
    std::function<void()> allow;
    std::function<void()> deny;
    std::function<void()> done;
};

// Which palette colour each element of a sheet takes. The prompts share the eight theme slots.
struct SheetColors {
    AdaptiveColor dimming;  // drawn at `dimmingAlpha`
    double dimmingAlpha;
    AdaptiveColor card;
    AdaptiveColor shadow;
    AdaptiveColor title;
    AdaptiveColor body;
    AdaptiveColor secondary;  // request line, note
    AdaptiveColor grabber;
    AdaptiveColor logoTile;
    AdaptiveColor logoDot;
    AdaptiveColor allowBackground;
    AdaptiveColor allowTitle;
    AdaptiveColor denyBackground;
    AdaptiveColor denyTitle;
    AdaptiveColor codeBox;
    AdaptiveColor code;
};

inline constexpr SheetColors sheetColors{
    .dimming = palette::backdrop,
    .dimmingAlpha = 0.45,
    .card = palette::promptTheme[0],
    .shadow = palette::shadowDeep,
    .title = palette::promptTheme[1],
    .body = palette::promptTheme[2],
    .secondary = palette::promptTheme[3],
    .grabber = palette::promptTheme[5],
    .logoTile = palette::promptTheme[6],
    .logoDot = palette::accentDeep,
    .allowBackground = palette::promptTheme[7],
    .allowTitle = palette::onAccent,
    .denyBackground = palette::promptTheme[4],
    .denyTitle = palette::promptTheme[1],
    .codeBox = palette::promptTheme[6],
    .code = palette::promptTheme[7],
};

// The platform's side of the sheet: puts it on screen over a window and takes it away. Main
// thread only. The model removes a sheet before it presents the next one.
class PromptPresenter {
  public:
    virtual ~PromptPresenter() = default;
    virtual void presentConsent(HostHandle window, const ConsentSheet& sheet,
                                SheetActions actions) = 0;
    virtual void presentSupportCode(HostHandle window, const SupportCodeSheet& sheet,
                                    SheetActions actions) = 0;
    // The logo's bytes for the sheet on screen. True when they made an image, which then
    // replaces the placeholder; false leaves the placeholder.
    virtual bool showLogo(std::string_view bytes) = 0;
    virtual void dismiss() = 0;
};

// Which palette colour each part of the session banner's pill takes.
struct BannerColors {
    AdaptiveColor background;
    AdaptiveColor text;
    AdaptiveColor border;
};
inline constexpr BannerColors bannerColors{
    .background = palette::promptTheme[6],
    .text = palette::promptTheme[7],
    .border = palette::sessionTint,
};

// The session banner's side: a raised passthrough window in the scene of `window`, carrying the
// pill. Main thread only.
class BannerPresenter {
  public:
    virtual ~BannerPresenter() = default;
    virtual void show(HostHandle window, const std::string& text) = 0;
    virtual void setText(const std::string& text) = 0;
    virtual void hide() = 0;
};

}  // namespace virela
