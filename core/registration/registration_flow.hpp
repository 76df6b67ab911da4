#pragma once

// The device's registration and the life cycle around it: configure registers the device and
// makes the transport, identify and reset speak for the customer, stop ends the client's run.
// Every configure, reset and stop begins a new epoch; the flows note the epoch of a request and
// ask isCurrent() when its reply is back. Confined to the main executor, except supportCode().

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/base/records.hpp"
#include "core/base/url.hpp"
#include "core/health/device_health.hpp"
#include "core/ports/device_facts.hpp"
#include "core/ports/executor.hpp"
#include "core/ports/key_value_store.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/device_records.hpp"

namespace virela {

class RegistrationFlow : public std::enable_shared_from_this<RegistrationFlow> {
  public:
    using TransportFactory =
        std::function<std::shared_ptr<Transport>(const Url& baseUrl, const std::string& apiKey)>;
    using Completion = std::function<void(std::exception_ptr)>;

    struct Parts {
        std::shared_ptr<MainExecutor> main;
        std::shared_ptr<KeyValueStore> defaults;
        std::shared_ptr<DeviceFacts> device;
        std::shared_ptr<HttpClient> http;
        DeviceHealth health;
        TransportFactory makeTransport;  // empty: a Transport over `http`
        // A registration was applied while the client runs: bring up what needs one.
        std::function<void(const Transport& transport, const RegisterResult& registration)>
            onRegistered;
    };
    static std::shared_ptr<RegistrationFlow> create(Parts parts);
    RegistrationFlow(const RegistrationFlow&) = delete;
    RegistrationFlow& operator=(const RegistrationFlow&) = delete;

    // The transport is replaced at once, so that identify and reset work while the
    // registration is on its way; a failure changes nothing else. Configures may overlap: each
    // reports its own outcome to `done` (on the main executor), and a registration is applied
    // unless a later configure's was applied first.
    void configure(const Url& baseUrl, const std::string& key,
                   const std::optional<VirelaUser>& user, bool collectVendorId, Completion done);
    // Fire and forget; failures are swallowed. Stops the process before the first configure.
    void identify(const std::string& id, const std::optional<std::string>& name,
                  const std::optional<std::string>& phone, std::function<void()> done = {});
    // A new epoch, and the backend's new support code once it answers.
    void reset(std::function<void()> done = {});
    // A new epoch; the registration is kept, but nothing is brought up until the next
    // configure.
    void stop();

    std::shared_ptr<Transport> transport() const { return transport_; }
    const RegisterResult* registration() const { return registration_ ? &*registration_ : nullptr; }
    bool stopped() const noexcept { return stopped_; }
    std::uint64_t epoch() const noexcept { return epoch_; }
    bool isCurrent(std::uint64_t epoch) const noexcept { return !stopped_ && epoch == epoch_; }

    // Safe from any thread.
    std::optional<std::string> supportCode() const;
    // The install identifier for `key`, created and stored on first use.
    std::string installId(const std::string& key);

  private:
    explicit RegistrationFlow(Parts parts);

    struct Attempt;
    void finish(const std::shared_ptr<Attempt>& attempt, const SendResult& result);
    void setRegistration(std::optional<RegisterResult> registration);

    Parts parts_;
    std::shared_ptr<Transport> transport_;
    std::optional<RegisterResult> registration_;
    bool stopped_ = false;
    std::uint64_t epoch_ = 0;
    // Configures are numbered; a reply older than the one applied is not applied.
    std::uint64_t configuresStarted_ = 0;
    std::uint64_t configureApplied_ = 0;

    // supportCode() may be asked from any thread, so the code is mirrored under a lock.
    mutable std::mutex supportCodeMutex_;
    std::optional<std::string> supportCodeMirror_;
};

}  // namespace virela
