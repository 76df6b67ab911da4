#include "core/consent/capture_consent_flow.hpp"

#include <algorithm>

#include "core/base/errors.hpp"
#include "core/capture/capture.hpp"
#include "core/control/windows.hpp"
#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/ports/fatal.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/date_time.hpp"
#include "core/wire/device_records.hpp"
#include "core/wire/json_fields.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

namespace {

constexpr double kDefaultSessionSeconds = 45 * 60;
constexpr const char* kAllowed = "Allowed";

// Identifiers go into paths as they arrive. One that would not make a valid path is refused
// up front, so that a request is never half-handled (a prompt whose answer cannot be sent).
bool usableInPath(const std::string& id) {
    return Url::parse(paths::captureRespond(id)).has_value();
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
    : parts_(std::move(parts)),
      context_(context),
      sessionBanner_(SessionBanner::create(parts_.banner, parts_.clock)) {}

// The expiry lives in the prompt and holds this flow weakly.
CaptureConsentFlow::~CaptureConsentFlow() = default;

void CaptureConsentFlow::handleConsent(const ConsentPush& push) {
    VIRELA_ASSERT_MAIN(*parts_.main, "CaptureConsentFlow::handleConsent");
    const auto& host = parts_.host;
    if (!context_.registration() || !host) return;
    if (!usableInPath(push.requestId)) {
        // Nothing can be answered for it; say so, since the agent will wait in vain.
        if (parts_.log) {
            parts_.log->write(LogLevel::error, "consent request dropped: request id \"" +
                                                   push.requestId +
                                                   "\" cannot form a request path");
        }
        return;
    }
    std::optional<WindowFacts> window = findCaptureWindow(*host);
    if (!window) return;

    // A newer request replaces an older one; the older one's choice is never reported.
    context_.prompt().dismiss();
    if (const auto& shown = context_.callbacks().onRequestShown) shown();

    const ConsentSheet sheet = makeConsentSheet(push.mode, push.consentCopy, push.agentName,
                                                push.workspaceName, push.logoUrl);
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    context_.prompt().showConsent(
        window->handle, sheet, ConsentPrompt::Showing::consent,
        [weak, requestId = push.requestId, mode = push.mode](auto choice) {
            if (auto self = weak.lock()) {
                self->answer(requestId, mode, choice == ConsentPrompt::Choice::allow);
            }
        });
    startPromptExpiry(push.expiresAt);

    context_.reportPromptShown(push.promptId);
}

void CaptureConsentFlow::handleCapture(const CapturePush& push) {
    if (!usableInPath(push.requestId)) {
        if (parts_.log) {
            parts_.log->write(LogLevel::error, "capture request dropped: request id \"" +
                                                   push.requestId +
                                                   "\" cannot form a request path");
        }
        return;
    }
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    // Checked in the turn that captures, so that a stop() or reset() in between counts.
    parts_.main->post([weak, requestId = push.requestId, epoch = context_.epoch()] {
        auto self = weak.lock();
        if (!self) return;
        if (!self->context_.isCurrent(epoch) || !self->sessionBanner_->countingDown()) {
            if (const auto& log = self->parts_.log) {
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

void CaptureConsentFlow::handleSession(const SessionPush& push) {
    if (push.state == "ended") endCall();
}

void CaptureConsentFlow::endCall() {
    sessionBanner_->hide();
}

void CaptureConsentFlow::close() {
    cancelPromptExpiry();
    context_.prompt().dismiss();
}

void CaptureConsentFlow::cancelPromptExpiry() {
    context_.prompt().cancelExpiry();
}

void CaptureConsentFlow::startPromptExpiry(const std::string& expiresAt) {
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    context_.prompt().armExpiry(*parts_.clock, expiresAt, [weak] {
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
            paths::captureRespond(requestId), {{"allow", allow}}, false,
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
                    auto window = findCaptureWindow(*self->parts_.host);
                    if (window) self->sessionBanner_->show(window->handle, *until);
                }
                self->captureAndUpload(requestId);
            });
}

void CaptureConsentFlow::captureAndUpload(const std::string& requestId) {
    VIRELA_ASSERT_MAIN(*parts_.main, "CaptureConsentFlow::captureAndUpload");
    std::vector<std::uint8_t> png;
    try {
        if (!parts_.host || !parts_.renderer) {
            throw VirelaError(0, "no_window", "No visible window to capture.");
        }
        if (!capture_) {
            capture_ =
                std::make_unique<ScreenCapture>(context_.windows(), parts_.renderer, parts_.log);
        }
        png = capture_->capture(false);
    } catch (const VirelaError&) {
        reportError(std::current_exception());
        return;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(png.data()), png.size());
    auto transport = requireTransport("an upload");
    std::weak_ptr<CaptureConsentFlow> weak = weak_from_this();
    transport->send(transport->imageUploadRequest(paths::captureUpload(requestId), bytes),
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
    const auto& host = parts_.host;
    if (!registration || !registration->supportCode || !host) return;
    std::optional<WindowFacts> window = findCaptureWindow(*host);
    if (!window) return;
    context_.prompt().showSupportCode(window->handle, *registration->supportCode);
}

}  // namespace virela
