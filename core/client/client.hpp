#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/api/records.hpp"
#include "core/client/clock.hpp"
#include "core/client/platform.hpp"
#include "core/client/registration.hpp"
#include "core/consent/consent_prompt.hpp"
#include "core/live/session_banner.hpp"
#include "core/transport/socket.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/push_records.hpp"
#include "core/wire/push_router.hpp"

namespace virela {

class ScreenCapture;
class WindowRegistry;

// What happens on the realtime channel, for diagnostics (the demo prints it). Every callback
// runs on the main executor.
struct ChannelEvents {
    std::function<void(const Url& url)> onConnecting;
    std::function<void()> onOpen;
    std::function<void(std::exception_ptr error)> onLost;
    std::function<void(double delaySeconds, int attempt)> onReconnectScheduled;
    std::function<void(const Push& push)> onPush;
};

// The single object that holds all session state. Confined to the main executor: every member
// function except supportCode() must be called there.
class VirelaClient : public std::enable_shared_from_this<VirelaClient>, public SocketDelegate {
  public:
    using TransportFactory =
        std::function<std::shared_ptr<Transport>(const Url& baseUrl, const std::string& apiKey)>;
    using Completion = std::function<void(std::exception_ptr)>;

    struct Options {
        std::shared_ptr<VirelaClock> clock;  // SystemClock over the platform's main executor
        TransportFactory transportFactory;   // a Transport over the platform's HTTP client
    };

    static std::shared_ptr<VirelaClient> create(std::shared_ptr<const Platform> platform,
                                                Options options = {});
    ~VirelaClient() override;
    VirelaClient(const VirelaClient&) = delete;
    VirelaClient& operator=(const VirelaClient&) = delete;

    // Registers the device and brings the client up. `done` receives nullptr on success or the
    // failure (VirelaError, NetworkError, DecodingError, SerializationError); it runs on the
    // main executor. On failure the previous registration stays and nothing is opened.
    void configure(const Url& baseUrl, const std::string& key,
                   const std::optional<VirelaUser>& user, bool collectVendorId, Completion done);
    // Fire and forget; failures are swallowed. `done`, if given, runs on the main executor once
    // the exchange is over. Stops the process when configure never created a transport.
    void identify(const std::string& id, const std::optional<std::string>& name,
                  const std::optional<std::string>& phone, std::function<void()> done = {});
    void reset(std::function<void()> done = {});
    void stop();

    // Safe from any thread.
    std::optional<std::string> supportCode() const;

    void setCallbacks(VirelaCallbacks callbacks) { callbacks_ = std::move(callbacks); }
    const VirelaCallbacks& callbacks() const noexcept { return callbacks_; }

    // Sends a health report unless the network is the one last reported. `done`, if given, runs
    // on the main executor when the report was sent, skipped or failed.
    void reportHealth(std::function<void()> done = {});

    // Opens the realtime channel for the stored registration (replacing any earlier socket).
    void connect();
    // After a failure: schedules connect() with back-off, unless stopped or already scheduled.
    void scheduleReconnect();
    // (Re)starts the 25-second heartbeat.
    void startHeartbeat();
    // Sends a text message when a socket exists; the outcome is ignored.
    void sendText(std::string text);
    // Decodes one text frame and routes it on the main executor; drops it silently when it
    // does not decode. Safe from any thread.
    void dispatch(std::string_view text);

    // The application-state handlers the lifecycle observers run.
    void onEnterBackground();
    void onEnterForeground();

    void socketDidOpen(const VirelaSocket& socket,
                       const std::optional<std::string>& protocol) override;

    void setRouter(std::shared_ptr<PushRouter> router);
    void setChannelEvents(ChannelEvents events) { events_ = std::move(events); }
    // A control request held back while in the background; replayed on the next foreground.
    void holdControlRequest(ControlPush push) { pendingControl_ = std::move(push); }
    // The screenshot consent flow. Main executor only.
    void handleConsent(const ConsentPush& push);
    // Captures and uploads for an already allowed request (a "capture" push or an allowed
    // answer). Safe from any thread: the work moves to the main executor.
    void captureAndUpload(std::string requestId);
    // Puts the support-code sheet over the app's window. Main executor only; does nothing
    // before the device has a support code or when no window is visible.
    void showSupportCode();

    // The prompt-expiry wait of the consent flow; cancelled when a prompt is closed.
    void setPromptExpiryTask(std::shared_ptr<VirelaCancellable> task);
    bool promptExpiryArmed() const noexcept { return promptExpiryTask_ != nullptr; }

    ConsentPrompt& prompt() const noexcept { return *prompt_; }
    SessionBanner& sessionBanner() const noexcept { return *sessionBanner_; }
    // The windows the platform reported visible; created on first use, on the main executor.
    WindowRegistry& windows();

    const std::shared_ptr<Transport>& transport() const noexcept { return transport_; }
    const std::optional<RegisterResult>& registration() const noexcept { return registration_; }
    bool stopped() const noexcept { return stopped_; }
    const std::optional<std::string>& lastNetworkSent() const noexcept { return lastNetworkSent_; }
    bool observersInstalled() const noexcept { return backgroundObserver_ != nullptr; }
    bool watchingNetwork() const noexcept { return pathMonitor_ != nullptr; }
    const std::shared_ptr<VirelaSocket>& socket() const noexcept { return socket_; }
    int reconnectAttempts() const noexcept { return reconnectAttempts_; }
    bool reconnectPending() const noexcept { return reconnectWork_ != nullptr; }
    bool heartbeatRunning() const noexcept { return heartbeat_ != nullptr; }
    VirelaClock& clock() const noexcept { return *clock_; }
    const Platform& platform() const noexcept { return *platform_; }

    // The install identifier for `key`, created and stored on first use.
    std::string installId(const std::string& key);

  private:
    VirelaClient(std::shared_ptr<const Platform> platform, Options options);

    void registerDevice(std::uint64_t attempt, std::optional<VirelaUser> user, bool collectVendorId,
                        std::string key, Completion done);
    void finishRegistration(std::uint64_t attempt, const SendResult& result,
                            const Completion& done);
    void setRegistration(std::optional<RegisterResult> registration);
    void installObservers();
    void removeObservers();
    void startNetworkWatch();
    void armReceive(const std::shared_ptr<VirelaSocket>& socket);
    void handleReceived(const std::shared_ptr<VirelaSocket>& socket, std::optional<Push> push,
                        const std::exception_ptr& error);
    void route(Push push);
    void closePrompt();
    void dismissPrompt();
    void hideSessionBanner();
    void startPromptExpiry(const std::string& expiresAt);
    void answer(const std::string& requestId, CaptureMode mode, bool allow);
    void captureAndUploadOnMain(const std::string& requestId);
    void reportError(const std::exception_ptr& error);

    std::shared_ptr<const Platform> platform_;

    // Session state, in the order the rest of the library reads it.
    std::shared_ptr<Transport> transport_;
    std::optional<RegisterResult> registration_;
    std::shared_ptr<VirelaSocket> socket_;
    std::shared_ptr<SocketSession> socketSession_;
    std::shared_ptr<VirelaCancellable> heartbeat_;
    std::shared_ptr<VirelaCancellable> reconnectWork_;
    std::shared_ptr<VirelaCancellable> promptExpiryTask_;
    int reconnectAttempts_ = 0;
    bool stopped_ = false;
    VirelaCallbacks callbacks_;
    std::unique_ptr<Subscription> backgroundObserver_;
    std::unique_ptr<Subscription> foregroundObserver_;
    std::optional<ControlPush> pendingControl_;
    std::optional<std::string> lastNetworkSent_;
    std::optional<std::string> networkInFlight_;
    std::shared_ptr<PathMonitor> pathMonitor_;
    std::shared_ptr<VirelaClock> clock_;
    TransportFactory transportFactory_;
    std::shared_ptr<PushRouter> router_;
    ChannelEvents events_;
    std::shared_ptr<ConsentPrompt> prompt_;
    std::shared_ptr<SessionBanner> sessionBanner_;
    std::unique_ptr<WindowRegistry> windows_;
    std::unique_ptr<ScreenCapture> capture_;

    // Bumped by every configure; a registration reply for an older one is not applied.
    std::uint64_t configureAttempt_ = 0;

    // supportCode() may be asked from any thread, so the code is mirrored under a lock.
    mutable std::mutex supportCodeMutex_;
    std::optional<std::string> supportCodeMirror_;
};

}  // namespace virela
