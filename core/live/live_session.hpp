#pragma once

// Live sharing: a "live" push asks the customer (the consent sheet with live-view texts), the
// answer goes to the backend, and once sharing runs a fresh redacted JPEG goes up three times a
// second while the overlay shows the customer that they are watched and lets them stop it. Live
// notes put toasts on the overlay and have the recording indicator confirmed; guides draw on it.
// Remote control exists only inside a session, so the flow owns the control lease and the intake
// of remote input, and hands them the pushes of its own session. Every ending goes through
// endLocally(), which ends control too and calls onLiveEnded once for a session that ran.
// Confined to the main executor.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/lease/control_intake.hpp"
#include "core/lease/control_lease.hpp"
#include "core/live/live_overlay.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/lifecycle.hpp"
#include "core/ports/log.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

class FlowContext;
class IndicatorConfirmations;
class Renderer;
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
        std::shared_ptr<MainExecutor> main;
        std::shared_ptr<Log> log;
        std::shared_ptr<HostInterface> host;
        HostActions actions;  // for remote input
        std::shared_ptr<Renderer> renderer;
        std::shared_ptr<AppLifecycle> lifecycle;
        std::shared_ptr<VirelaClock> clock;
        // Empty on a platform without an overlay: sharing then never starts, since the customer
        // must see that they are watched.
        std::shared_ptr<LiveOverlay> overlay;
        // Sends one text message on the realtime channel when it is connected; nothing
        // otherwise.
        std::function<void(const std::string& text)> sendText;
        // Empty: the input engine. Tests put their own here to see which inputs would land.
        ControlIntake::Route applyInput;
    };
    // `context` outlives the flow.
    static std::shared_ptr<LiveSessionFlow> create(Parts parts, FlowContext& context);
    ~LiveSessionFlow();
    LiveSessionFlow(const LiveSessionFlow&) = delete;
    LiveSessionFlow& operator=(const LiveSessionFlow&) = delete;

    void handleLive(const LivePush& push);
    void handleNote(const LiveNotePush& push);
    void handleGuide(const GuidePush& push);
    void handleControl(const ControlPush& push);
    void handleInput(const ControlInputPush& push);
    // The one teardown: timers, generations, control, the overlay; onLiveEnded when a session
    // ran.
    void endLocally();
    // Asks again, in a later turn, for the control request that came while the app had no
    // window.
    void onEnterForeground();

    const std::optional<std::string>& sessionId() const noexcept { return sessionId_; }

    const ControlLease& lease() const noexcept { return *lease_; }

  private:
    LiveSessionFlow(Parts parts, FlowContext& context);

    void ask(const LivePush& push);
    void answer(const std::string& sessionId, bool allow);
    void start(const std::string& sessionId);
    void frameTick(const std::string& sessionId);
    void customerStop();
    void visibleStateCheck(const std::string& sessionId);

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
    std::shared_ptr<IndicatorConfirmations> indicators_;
    std::shared_ptr<ControlLease> lease_;
    std::shared_ptr<ControlIntake> intake_;
};

}  // namespace virela
