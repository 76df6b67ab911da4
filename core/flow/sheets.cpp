#include "core/flow/sheets.hpp"

#include <string_view>

namespace virela {

namespace {

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    std::size_t pos = 0;
    while ((pos = text.find(from, pos)) != std::string::npos) {
        text.replace(pos, from.size(), to);
        pos += to.size();  // never rescans what was just inserted
    }
}

bool nonEmpty(const std::optional<std::string>& text) {
    return text && !text->empty();
}

}  // namespace

const ConsentLabels& consentLabels(CaptureMode mode) noexcept {
    static constexpr ConsentLabels askEveryTime{"Share a screenshot?", "Allow once", "Don’t allow"};
    static constexpr ConsentLabels perSession{"Allow screenshots for this call?",
                                              "Allow for this call", "Don’t allow"};
    static constexpr ConsentLabels liveView{"Share your screen live?", "Start sharing", "Not now"};
    switch (mode) {
        case CaptureMode::perSession:
            return perSession;
        case CaptureMode::liveView:
            return liveView;
        case CaptureMode::askEveryTime:
            break;
    }
    return askEveryTime;
}

std::string consentBody(const std::string& copy, const std::optional<std::string>& agentName,
                        const std::optional<std::string>& workspaceName) {
    std::string body = copy;
    replaceAll(body, "{company}", workspaceName ? *workspaceName : "This app");
    replaceAll(body, "{agent_name}", agentName ? *agentName : "support");
    return body;
}

std::string requestLine(const std::optional<std::string>& agentName,
                        const std::optional<std::string>& workspaceName) {
    std::string line;
    if (nonEmpty(agentName)) {
        line = "Requested by " + *agentName;
        if (nonEmpty(workspaceName)) line += " from " + *workspaceName + " support";
        line += " · ";
    }
    return line + "only this app’s screen";
}

std::optional<Url> logoAddress(const std::optional<std::string>& logoUrl) {
    if (!logoUrl) return std::nullopt;
    std::optional<Url> url = Url::parse(*logoUrl);
    if (!url || !url->isAbsolute() || !url->hasAuthority() || url->host().empty()) {
        return std::nullopt;
    }
    return url;
}

namespace {
ConsentSheet composeSheet(const ConsentLabels& labels, const std::string& consentCopy,
                          const std::optional<std::string>& agentName,
                          const std::optional<std::string>& workspaceName,
                          const std::optional<std::string>& logoUrl) {
    return ConsentSheet{
        .title = labels.title,
        .body = consentBody(consentCopy, agentName, workspaceName),
        .requestLine = requestLine(agentName, workspaceName),
        .allowTitle = labels.allow,
        .denyTitle = labels.deny,
        .logo = logoAddress(logoUrl),
    };
}
}  // namespace

ConsentSheet makeConsentSheet(CaptureMode mode, const std::string& consentCopy,
                              const std::optional<std::string>& agentName,
                              const std::optional<std::string>& workspaceName,
                              const std::optional<std::string>& logoUrl) {
    return composeSheet(consentLabels(mode), consentCopy, agentName, workspaceName, logoUrl);
}

const ConsentLabels& controlLabels() noexcept {
    static constexpr ConsentLabels control{"Let support control your screen?", "Allow control",
                                           "Not now"};
    return control;
}

ConsentSheet makeControlSheet(const std::string& consentCopy,
                              const std::optional<std::string>& agentName,
                              const std::optional<std::string>& workspaceName,
                              const std::optional<std::string>& logoUrl) {
    return composeSheet(controlLabels(), consentCopy, agentName, workspaceName, logoUrl);
}

}  // namespace virela
