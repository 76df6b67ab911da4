#pragma once

// What the library's bottom sheets say. Which palette colour each part takes sits beside the
// presenter (core/ports/presenters.hpp); how a sheet is laid out belongs to the presenter.

#include <optional>
#include <string>

#include "core/base/records.hpp"
#include "core/base/url.hpp"
#include "core/ports/presenters.hpp"

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

}  // namespace virela
