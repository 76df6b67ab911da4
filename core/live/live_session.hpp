#pragma once

// Live sharing: a "live" push asks the customer (the consent sheet with live-view texts), the
// answer goes to the backend, and once sharing runs a fresh redacted JPEG goes up three times a
// second while the overlay shows the customer that they are watched and lets them stop it. Live
// notes put toasts on the overlay and have the recording indicator confirmed; guides draw on it.
// Every ending goes through endLocally(), which calls onLiveEnded once for a session that ran.
// Confined to the main executor.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/live/live_overlay.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/platform.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class ScreenCapture;

// The default live consent copy, used when the push carries none.
inline constexpr std::string_view liveDefaultConsentCopy =
    "Support will see your screen live and can point, highlight, and mark things on it to guide "
    "you. They may save a snapshot or record the session to help with your issue. A red "
    "indicator stays on while you’re sharing.";

// {"type":"view","kind":"<kind>","sessionId":"<id>"}, concatenated as it stands (no escaping).
std::string viewMessage(std::string_view kind, std::string_view sessionId);

class LiveSessionFlow : public std::enable_shared_from_this<LiveSessionFlow> {
  public:
    struct Parts {
        std::shared_ptr<const Platform> platform;
        std::shared_ptr<VirelaClock> clock;
        std::shared_ptr<ConsentPrompt> prompt;
        // Empty on a platform without an overlay: sharing then never starts, since the customer
        // must see that they are watched.
        std::shared_ptr<LiveOverlay> overlay;
        // Sends one text message on the realtime channel when it is connected; nothing
        // otherwise.
        std::function<void(const std::string& text)> sendText;
        // Remote control lives in a layer above this one and belongs to the session: it ends
        // with every teardown, and its banner is checked on the 10-second tick while the
        // session still runs (after the sharing and recording confirmations).
        std::function<void()> onStopped;
        std::function<void(const std::string& sessionId)> onVisibleStateCheck;
    };
    // `context` is the client that owns the flow and outlives it.
    static std::shared_ptr<LiveSessionFlow> create(Parts parts, FlowContext& context);
    ~LiveSessionFlow();
    LiveSessionFlow(const LiveSessionFlow&) = delete;
    LiveSessionFlow& operator=(const LiveSessionFlow&) = delete;

    void handleLive(const LivePush& push);
    void handleNote(const LiveNotePush& push);
    void handleGuide(const GuidePush& push);
    // The one teardown: timers, generations, the overlay; onLiveEnded when a session ran.
    void endLocally();

    const std::optional<std::string>& sessionId() const noexcept { return sessionId_; }
    const std::optional<std::string>& sharingGeneration() const noexcept {
        return sharingGeneration_;
    }
    const std::optional<std::string>& recordingGeneration() const noexcept {
        return recordingGeneration_;
    }

    // One confirmation that the indicator of `kind` is on screen under `generation`; a refusal
    // or failure is only logged. Every kind ("sharing", "recording", "control") goes through
    // here.
    void confirmIndicator(const std::string& sessionId, const std::string& kind,
                          const std::string& generation);

  private:
    LiveSessionFlow(Parts parts, FlowContext& context);

    void ask(const LivePush& push);
    void answer(const std::string& sessionId, bool allow);
    void start(const std::string& sessionId);
    void frameTick(const std::string& sessionId);
    void customerStop();
    void visibleStateCheck(const std::string& sessionId);
    void reportPromptShown(const std::optional<std::string>& promptId);

    Parts parts_;
    FlowContext& context_;
    std::optional<std::string> sessionId_;
    // The session the customer allowed whose answer is on its way; a newer request or any
    // ending clears it, and then the reply starts nothing.
    std::optional<std::string> answering_;
    std::optional<std::string> sharingGeneration_;
    std::optional<std::string> recordingGeneration_;
    std::shared_ptr<VirelaCancellable> frameTimer_;
    std::shared_ptr<VirelaCancellable> visibleStateTimer_;
    std::unique_ptr<ScreenCapture> capture_;
};

}  // namespace virela
