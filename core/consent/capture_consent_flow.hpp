#pragma once

// The screenshot consent flow: a "consent" push shows the sheet, the customer's answer goes to
// the backend, and an allowed request ends in a redacted PNG uploaded for the host's onAllowed.
// A "capture" push skips the sheet and the answer. "expired" and "denied" close the sheet.
// Confined to the main executor.

#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/platform.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class ScreenCapture;

class CaptureConsentFlow : public std::enable_shared_from_this<CaptureConsentFlow> {
  public:
    struct Parts {
        std::shared_ptr<const Platform> platform;
        std::shared_ptr<VirelaClock> clock;
        std::shared_ptr<ConsentPrompt> prompt;
        // Puts the session banner's countdown over `window` until `expiresAt` (per-session
        // mode).
        std::function<void(HostHandle window, double expiresAt)> showSessionBanner;
        // Whether this device shows the countdown of a call the customer allowed, now. A
        // "capture" push is honoured only then: the backend's word alone takes no screenshot.
        std::function<bool()> callAllowed;
    };
    // `context` is the client that owns the flow and outlives it.
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
    // Puts the support-code sheet over the app's window; nothing before the device has a
    // support code or when no window is visible.
    void showSupportCode();
    // Takes down the sheet and its expiry (stop).
    void close();

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
};

}  // namespace virela
