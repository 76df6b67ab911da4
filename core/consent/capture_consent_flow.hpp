#pragma once

// The screenshot consent flow: a "consent" push shows the sheet, the customer's answer goes to
// the backend, and an allowed request ends in a redacted PNG uploaded for the host's onAllowed.
// A "capture" push skips the sheet and the answer. "expired" and "denied" close the sheet.
// Confined to the main executor.

#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "core/consent/session_banner.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/log.hpp"
#include "core/ports/presenters.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class FlowContext;
class HostInterface;
class Renderer;
class ScreenCapture;
class Transport;

class CaptureConsentFlow : public std::enable_shared_from_this<CaptureConsentFlow> {
  public:
    struct Parts {
        std::shared_ptr<MainExecutor> main;
        std::shared_ptr<Log> log;
        std::shared_ptr<HostInterface> host;
        std::shared_ptr<Renderer> renderer;
        std::shared_ptr<VirelaClock> clock;
        // Shows the session banner, the countdown of a call the customer allowed; may be empty.
        std::shared_ptr<BannerPresenter> banner;
    };
    // `context` outlives the flow.
    static std::shared_ptr<CaptureConsentFlow> create(Parts parts, FlowContext& context);
    ~CaptureConsentFlow();
    CaptureConsentFlow(const CaptureConsentFlow&) = delete;
    CaptureConsentFlow& operator=(const CaptureConsentFlow&) = delete;

    void handleConsent(const ConsentPush& push);
    // Captures and uploads, in a later turn of the main executor, while the customer is shown
    // that screenshots are allowed for the call; otherwise logs the refusal.
    void handleCapture(const CapturePush& push);
    void handleExpired();
    void handleDenied();
    // The backend ended the call: its countdown comes down.
    void handleSession(const SessionPush& push);
    // Puts the support-code sheet over the app's window; nothing before the device has a
    // support code or when no window is visible.
    void showSupportCode();
    // Takes down the sheet and its expiry (stop).
    void close();
    // Takes down the session banner (stop, reset).
    void endCall();

  private:
    CaptureConsentFlow(Parts parts, FlowContext& context);

    void startPromptExpiry(const std::string& expiresAt);
    void cancelPromptExpiry();
    void answer(const std::string& requestId, CaptureMode mode, bool allow);
    void captureAndUpload(const std::string& requestId);
    void reportError(const std::exception_ptr& error);
    std::shared_ptr<Transport> requireTransport(const char* what) const;

    Parts parts_;
    FlowContext& context_;
    std::unique_ptr<ScreenCapture> capture_;
    // A "capture" push is honoured only while the customer sees its countdown: the backend's
    // word alone takes no screenshot.
    std::shared_ptr<SessionBanner> sessionBanner_;
};

}  // namespace virela
