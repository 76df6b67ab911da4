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
#include "core/transport/transport.hpp"

namespace virela {

// The single object that holds all session state. Confined to the main executor: every member
// function except supportCode() must be called there.
class VirelaClient : public std::enable_shared_from_this<VirelaClient> {
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
    ~VirelaClient();
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

    // Opens the realtime channel for the stored registration.
    void connect();

    const std::shared_ptr<Transport>& transport() const noexcept { return transport_; }
    const std::optional<RegisterResult>& registration() const noexcept { return registration_; }
    bool stopped() const noexcept { return stopped_; }
    const std::optional<std::string>& lastNetworkSent() const noexcept { return lastNetworkSent_; }
    bool observersInstalled() const noexcept { return backgroundObserver_ != nullptr; }
    bool watchingNetwork() const noexcept { return pathMonitor_ != nullptr; }
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
    void onEnterBackground();
    void onEnterForeground();

    std::shared_ptr<const Platform> platform_;

    // Session state, in the order the rest of the library reads it.
    std::shared_ptr<Transport> transport_;
    std::optional<RegisterResult> registration_;
    std::shared_ptr<VirelaCancellable> heartbeat_;
    std::shared_ptr<VirelaCancellable> reconnectWork_;
    int reconnectAttempts_ = 0;
    bool stopped_ = false;
    VirelaCallbacks callbacks_;
    std::unique_ptr<Subscription> backgroundObserver_;
    std::unique_ptr<Subscription> foregroundObserver_;
    std::optional<std::string> lastNetworkSent_;
    std::optional<std::string> networkInFlight_;
    std::shared_ptr<PathMonitor> pathMonitor_;
    std::shared_ptr<VirelaClock> clock_;
    TransportFactory transportFactory_;

    // Bumped by every configure; a registration reply for an older one is not applied.
    std::uint64_t configureAttempt_ = 0;

    // supportCode() may be asked from any thread, so the code is mirrored under a lock.
    mutable std::mutex supportCodeMutex_;
    std::optional<std::string> supportCodeMirror_;
};

}  // namespace virela
