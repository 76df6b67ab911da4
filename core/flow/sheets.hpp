#pragma once

// What the library's bottom sheets say and which palette colour each part takes. How a sheet is
// laid out belongs to the platform's presenter.

#include <optional>
#include <string>

#include "core/base/records.hpp"
#include "core/base/url.hpp"
#include "core/ports/presenters.hpp"
#include "core/theme/palette.hpp"

namespace virela {

// The labels of the consent sheet for one capture mode.
struct ConsentLabels {
    const char* title;
    const char* allow;
    const char* deny;
};
const ConsentLabels& consentLabels(CaptureMode mode) noexcept;

// The consent copy with every "{company}" replaced by the workspace name (else "This app"), then
// every "{agent_name}" by the agent name (else "support").
std::string consentBody(const std::string& copy, const std::optional<std::string>& agentName,
                        const std::optional<std::string>& workspaceName);

// "Requested by Dana from Acme support · only this app’s screen", shortened to what is known.
std::string requestLine(const std::optional<std::string>& agentName,
                        const std::optional<std::string>& workspaceName);

// The logo address, when it is given and parses as an absolute URL.
std::optional<Url> logoAddress(const std::optional<std::string>& logoUrl);

// The consent sheet for a screenshot or live-sharing request.
ConsentSheet makeConsentSheet(CaptureMode mode, const std::string& consentCopy,
                              const std::optional<std::string>& agentName,
                              const std::optional<std::string>& workspaceName,
                              const std::optional<std::string>& logoUrl);

// The labels of the remote-control sheet, and that sheet: the same composition as a consent
// sheet with its own title and buttons.
const ConsentLabels& controlLabels() noexcept;
ConsentSheet makeControlSheet(const std::string& consentCopy,
                              const std::optional<std::string>& agentName,
                              const std::optional<std::string>& workspaceName,
                              const std::optional<std::string>& logoUrl);

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

}  // namespace virela
