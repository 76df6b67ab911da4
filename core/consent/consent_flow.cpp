// The screenshot consent flow: the prompt, its expiry, the answer, and capture with upload.

#include <cmath>

#include "core/api/errors.hpp"
#include "core/capture/capture.hpp"
#include "core/client/client.hpp"
#include "core/client/fatal.hpp"
#include "core/client/flow_router.hpp"
#include "core/control/windows.hpp"
#include "core/wire/date_time.hpp"
#include "core/wire/json_fields.hpp"

namespace virela {

namespace {

constexpr double kExpiryGraceSeconds = 2;
constexpr double kMinimumExpirySeconds = 1;
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

void FlowRouter::consent(VirelaClient& client, const ConsentPush& push) {
    client.handleConsent(push);
}

void FlowRouter::capture(const std::shared_ptr<VirelaClient>& client, const CapturePush& push) {
    client->captureAndUpload(push.requestId);
}

WindowRegistry& VirelaClient::windows() {
    if (!windows_) {
        if (!platform_->host) fatalPrecondition("the platform has no host interface");
        windows_ = std::make_unique<WindowRegistry>(platform_->host);
    }
    return *windows_;
}

void VirelaClient::handleConsent(const ConsentPush& push) {
    if (!registration_ || !platform_->host || !usableInPath(push.requestId)) return;
    std::optional<WindowFacts> window = findCaptureWindow(*platform_->host);
    if (!window) return;

    // A newer request replaces an older one; the older one's choice is never reported.
    prompt_->dismiss();
    if (callbacks_.onRequestShown) callbacks_.onRequestShown();

    const ConsentSheet sheet = makeConsentSheet(push.mode, push.consentCopy, push.agentName,
                                                push.workspaceName, push.logoUrl);
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    prompt_->showConsent(window->handle, sheet, ConsentPrompt::Showing::consent,
                         [weak, requestId = push.requestId, mode = push.mode](auto choice) {
                             if (auto self = weak.lock()) {
                                 self->answer(requestId, mode,
                                              choice == ConsentPrompt::Choice::allow);
                             }
                         });
    startPromptExpiry(push.expiresAt);

    if (push.promptId && !push.promptId->empty() && transport_ &&
        Url::parse(promptShownPath(*push.promptId))) {
        // Only a report: nothing waits for it and its failure changes nothing.
        transport_->postJson(promptShownPath(*push.promptId), {}, false, [](const SendResult&) {});
    }
}

void VirelaClient::startPromptExpiry(const std::string& expiresAt) {
    setPromptExpiryTask(nullptr);
    std::optional<double> deadline = parseInternetDateTime(expiresAt);
    if (!deadline) return;  // the prompt then stays until answered or replaced
    const double delay =
        std::max(*deadline - clock_->now() + kExpiryGraceSeconds, kMinimumExpirySeconds);
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    // Cancelling the task is what keeps a stale expiry from closing a newer prompt.
    promptExpiryTask_ = clock_->after(delay, [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->promptExpiryTask_.reset();
        self->dismissPrompt();
        if (self->callbacks_.onExpired) self->callbacks_.onExpired();
    });
}

void VirelaClient::answer(const std::string& requestId, CaptureMode mode, bool allow) {
    setPromptExpiryTask(nullptr);
    if (!transport_) fatalPrecondition("a consent answer needs the transport that configure made");
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    transport_->postJson(respondPath(requestId), {{"allow", allow}}, false,
                         [weak, requestId, mode, allow](const SendResult& result) {
                             auto self = weak.lock();
                             if (!self) return;
                             if (!result) {
                                 self->reportError(result.error);
                                 return;
                             }
                             if (!allow) {
                                 if (self->callbacks_.onDenied) self->callbacks_.onDenied();
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
                                 if (!until) until = self->clock_->now() + kDefaultSessionSeconds;
                                 if (auto window = findCaptureWindow(*self->platform_->host)) {
                                     self->sessionBanner_->show(window->handle, *until);
                                 }
                             }
                             self->captureAndUploadOnMain(requestId);
                         });
}

void VirelaClient::captureAndUpload(std::string requestId) {
    if (!usableInPath(requestId)) return;
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    platform_->main->post([weak, requestId = std::move(requestId)] {
        if (auto self = weak.lock()) self->captureAndUploadOnMain(requestId);
    });
}

void VirelaClient::captureAndUploadOnMain(const std::string& requestId) {
    std::vector<std::uint8_t> png;
    try {
        if (!platform_->host || !platform_->renderer) {
            throw VirelaError(0, "no_window", "No visible window to capture.");
        }
        if (!capture_) {
            capture_ =
                std::make_unique<ScreenCapture>(windows(), platform_->renderer, platform_->log);
        }
        png = capture_->capture(false);
    } catch (const VirelaError&) {
        reportError(std::current_exception());
        return;
    }
    if (!transport_) fatalPrecondition("an upload needs the transport that configure made");
    const std::string_view bytes(reinterpret_cast<const char*>(png.data()), png.size());
    std::weak_ptr<VirelaClient> weak = weak_from_this();
    transport_->send(transport_->multipartRequest(uploadPath(requestId), bytes),
                     [weak](const SendResult& result) {
                         auto self = weak.lock();
                         if (!self) return;
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
                         if (self->callbacks_.onAllowed) self->callbacks_.onAllowed(capture);
                     });
}

void VirelaClient::reportError(const std::exception_ptr& error) {
    if (callbacks_.onError) callbacks_.onError(error);
}

void VirelaClient::showSupportCode() {
    // Without a code (not registered yet, or the backend gave none) there is nothing to read out.
    if (!registration_ || !registration_->supportCode || !platform_->host) return;
    std::optional<WindowFacts> window = findCaptureWindow(*platform_->host);
    if (!window) return;
    prompt_->showSupportCode(window->handle, *registration_->supportCode);
}

}  // namespace virela
