#include "core/consent/capture_consent_flow.hpp"

#include <algorithm>

#include "core/base/errors.hpp"
#include "core/capture/capture.hpp"
#include "core/control/windows.hpp"
#include "core/ports/fatal.hpp"
#include "core/ports/log.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/date_time.hpp"
#include "core/wire/device_records.hpp"
#include "core/wire/json_fields.hpp"

namespace virela {

namespace {

constexpr double kDefaultSessionSeconds = 45 * 60;
constexpr const char* kAllowed = "Allowed";

std::string promptShownPath(const std::string& promptId) {
    return "/v1/sdk/prompts/" + promptId + "/shown";
}
std::string respondPath(const std::string& requestId) {
    return "/v1/sdk/captures/" + requestId + "/respond";
}
std::string uploadPath(const std::string& requestId) {
    return "/v1/sdk/captures/" + requestId + "/upload";
}

// Identifiers go into paths as they arrive. One that would not make a valid path is refused
// up front, so that a request is never half-handled (a prompt whose answer cannot be sent).
bool usableInPath(const std::string& id) {
    return Url::parse(respondPath(id)).has_value();
}

CaptureResult decodeCaptureResult(std::string_view bytes) {
    const nlohmann::json value = wire::parse(bytes);
    const nlohmann::json& o = wire::requireObject(value, "upload reply");
    return CaptureResult{wire::requireString(o, "captureId"), wire::requireString(o, "imageUrl")};
}

}  // namespace

std::shared_ptr<CaptureConsentFlow> CaptureConsentFlow::create(Parts parts, FlowContext& context) {
    return std::shared_ptr<CaptureConsentFlow>(new CaptureConsentFlow(std::move(parts), context));
}

CaptureConsentFlow::CaptureConsentFlow(Parts parts, FlowContext& context)
    : parts_(std::move(parts)), context_(context) {}

// The expiry lives in the prompt and holds this flow weakly.
CaptureConsentFlow::~CaptureConsentFlow() = default;

void CaptureConsentFlow::handleConsent(const ConsentPush& push) {
    VIRELA_ASSERT_MAIN(*parts_.platform->main, "CaptureConsentFlow::handleConsent");
    const auto& host = parts_.platform->host;
    if (!context_.registration() || !host) return;
    if (!usableInPath(push.requestId)) {
        // Nothing can be answered for it; say so, since the agent will wait in vain.
        if (parts_.platform->log) {
            parts_.platform->log->write(LogLevel::error, "consent request dropped: request id \"" +
                                                             push.requestId +
                                                             "\" cannot form a request path");
        }
        return;
    }
    std::optional<WindowFacts> window = findCaptureWindow(*host);
    if (!window) return;

    // A newer request replaces an older one; the older one's choice is never reported.
    parts_.prompt->dismiss();
    if (const auto& shown = context_.callbacks().onRequestShown) shown();

    const ConsentSheet sheet = makeConsentSheet(push.mode, push.consentCopy, push.agentName,
                                                push.workspaceName, push.logoUrl);
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    parts_.prompt->showConsent(window->handle, sheet, ConsentPrompt::Showing::consent,
                               [weak, requestId = push.requestId, mode = push.mode](auto choice) {
                                   if (auto self = weak.lock()) {
                                       self->answer(requestId, mode,
                                                    choice == ConsentPrompt::Choice::allow);
                                   }
                               });
    startPromptExpiry(push.expiresAt);

    auto transport = context_.transport();
    if (push.promptId && !push.promptId->empty() && transport &&
        Url::parse(promptShownPath(*push.promptId))) {
        // Only a report: nothing waits for it and its failure changes nothing.
        transport->postJson(promptShownPath(*push.promptId), {}, false, [](const SendResult&) {});
    }
}

void CaptureConsentFlow::handleCapture(const CapturePush& push) {
    if (!usableInPath(push.requestId)) {
        if (parts_.platform->log) {
            parts_.platform->log->write(LogLevel::error, "capture request dropped: request id \"" +
                                                             push.requestId +
                                                             "\" cannot form a request path");
        }
        return;
    }
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    // Checked in the turn that captures, so that a stop() or reset() in between counts.
    parts_.platform->main->post([weak, requestId = push.requestId, epoch = context_.epoch()] {
        auto self = weak.lock();
        if (!self) return;
        if (!self->context_.isCurrent(epoch) || !self->parts_.callAllowed ||
            !self->parts_.callAllowed()) {
            if (const auto& log = self->parts_.platform->log) {
                log->write(LogLevel::error,
                           "capture request dropped: no allowance for the call on this device "
                           "(request id \"" +
                               requestId + "\")");
            }
            return;
        }
        self->captureAndUpload(requestId);
    });
}

void CaptureConsentFlow::handleExpired() {
    close();
    if (const auto& expired = context_.callbacks().onExpired) expired();
}

void CaptureConsentFlow::handleDenied() {
    close();
    if (const auto& denied = context_.callbacks().onDenied) denied();
}

void CaptureConsentFlow::close() {
    cancelPromptExpiry();
    parts_.prompt->dismiss();
}

void CaptureConsentFlow::cancelPromptExpiry() {
    parts_.prompt->cancelExpiry();
}

void CaptureConsentFlow::startPromptExpiry(const std::string& expiresAt) {
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    parts_.prompt->armExpiry(*parts_.clock, expiresAt, [weak] {
        auto self = weak.lock();
        if (!self) return;
        if (const auto& expired = self->context_.callbacks().onExpired) expired();
    });
}

std::shared_ptr<Transport> CaptureConsentFlow::requireTransport(const char* what) const {
    auto transport = context_.transport();
    if (!transport)
        fatalPrecondition(std::string(what) + " needs the transport that configure made");
    return transport;
}

void CaptureConsentFlow::answer(const std::string& requestId, CaptureMode mode, bool allow) {
    cancelPromptExpiry();
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    requireTransport("a consent answer")
        ->postJson(
            respondPath(requestId), {{"allow", allow}}, false,
            [weak, requestId, mode, allow, epoch = context_.epoch()](const SendResult& result) {
                auto self = weak.lock();
                if (!self || !self->context_.isCurrent(epoch)) return;
                if (!result) {
                    self->reportError(result.error);
                    return;
                }
                if (!allow) {
                    if (const auto& denied = self->context_.callbacks().onDenied) denied();
                    return;
                }
                RespondResult reply;
                try {
                    reply = RespondResult::decode(result.body);
                } catch (const DecodingError&) {
                    self->reportError(std::current_exception());
                    return;
                }
                // The backend has the last word: anything but this exact status ends
                // the request.
                if (reply.status != kAllowed) return;
                if (mode == CaptureMode::perSession) {
                    std::optional<double> until;
                    if (reply.sessionExpiresAt)
                        until = parseInternetDateTime(*reply.sessionExpiresAt);
                    if (!until) until = self->parts_.clock->now() + kDefaultSessionSeconds;
                    auto window = findCaptureWindow(*self->parts_.platform->host);
                    if (window && self->parts_.showSessionBanner) {
                        self->parts_.showSessionBanner(window->handle, *until);
                    }
                }
                self->captureAndUpload(requestId);
            });
}

void CaptureConsentFlow::captureAndUpload(const std::string& requestId) {
    VIRELA_ASSERT_MAIN(*parts_.platform->main, "CaptureConsentFlow::captureAndUpload");
    const auto& platform = *parts_.platform;
    std::vector<std::uint8_t> png;
    try {
        if (!platform.host || !platform.renderer) {
            throw VirelaError(0, "no_window", "No visible window to capture.");
        }
        if (!capture_) {
            capture_ = std::make_unique<ScreenCapture>(context_.windows(), platform.renderer,
                                                       platform.log);
        }
        png = capture_->capture(false);
    } catch (const VirelaError&) {
        reportError(std::current_exception());
        return;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(png.data()), png.size());
    auto transport = requireTransport("an upload");
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    transport->send(transport->imageUploadRequest(uploadPath(requestId), bytes),
                    [weak, epoch = context_.epoch()](const SendResult& result) {
                        auto self = weak.lock();
                        if (!self || !self->context_.isCurrent(epoch)) return;
                        if (!result) {
                            self->reportError(result.error);
                            return;
                        }
                        CaptureResult capture;
                        try {
                            capture = decodeCaptureResult(result.body);
                        } catch (const DecodingError&) {
                            self->reportError(std::current_exception());
                            return;
                        }
                        if (const auto& allowed = self->context_.callbacks().onAllowed)
                            allowed(capture);
                    });
}

void CaptureConsentFlow::reportError(const std::exception_ptr& error) {
    if (const auto& onError = context_.callbacks().onError) onError(error);
}

void CaptureConsentFlow::showSupportCode() {
    // Without a code (not registered yet, or the backend gave none) there is nothing to read out.
    const RegisterResult* registration = context_.registration();
    const auto& host = parts_.platform->host;
    if (!registration || !registration->supportCode || !host) return;
    std::optional<WindowFacts> window = findCaptureWindow(*host);
    if (!window) return;
    parts_.prompt->showSupportCode(window->handle, *registration->supportCode);
}

}  // namespace virela
