#include "core/registration/registration_flow.hpp"

#include "core/base/errors.hpp"
#include "core/base/uuid.hpp"
#include "core/ports/fatal.hpp"
#include "core/registration/registration_body.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

// One configure on its way: its number, its transport and its caller.
struct RegistrationFlow::Attempt {
    std::uint64_t number;
    std::shared_ptr<Transport> transport;
    Completion done;
};

std::shared_ptr<RegistrationFlow> RegistrationFlow::create(Parts parts) {
    return std::shared_ptr<RegistrationFlow>(new RegistrationFlow(std::move(parts)));
}

RegistrationFlow::RegistrationFlow(Parts parts) : parts_(std::move(parts)) {
    if (!parts_.makeTransport) {
        parts_.makeTransport = [http = parts_.http, main = parts_.main](const Url& baseUrl,
                                                                        const std::string& key) {
            return std::make_shared<Transport>(baseUrl, key, http, main);
        };
    }
}

std::string RegistrationFlow::installId(const std::string& key) {
    const std::string storageKey = kInstallIdKeyPrefix + key;
    if (auto stored = parts_.defaults->string(storageKey); stored && !stored->empty()) {
        return *stored;
    }
    std::string fresh = makeUuid();
    parts_.defaults->setString(storageKey, fresh);
    return fresh;
}

void RegistrationFlow::configure(const Url& baseUrl, const std::string& key,
                                 const std::optional<VirelaUser>& user, bool collectVendorId,
                                 Completion done) {
    VIRELA_ASSERT_MAIN(*parts_.main, "RegistrationFlow::configure");
    stopped_ = false;
    ++epoch_;
    // A base URL the transport cannot send to fails the registration below.
    auto attempt = std::make_shared<Attempt>(
        Attempt{++configuresStarted_, parts_.makeTransport(baseUrl, key), std::move(done)});
    transport_ = attempt->transport;

    const DeviceFacts& device = *parts_.device;
    const MainThreadFacts screen = device.readMainThreadFacts();
    RegistrationFacts facts;
    facts.model = device.model();
    facts.os = osText(device.systemName(), device.systemVersion());
    facts.language = device.localeIdentifier();
    facts.appVersion = device.appVersion().value_or("unknown");
    facts.screenSize = screenSizeText(screen.screenWidthPixels, screen.screenHeightPixels);
    if (collectVendorId) facts.vendorId = device.vendorId();
    facts.appId = device.appId();
    facts.installId = installId(key);

    std::weak_ptr<RegistrationFlow> weak = weak_from_this();
    parts_.health.collect(
        [weak, attempt, user, facts = std::move(facts)](DeviceHealthSnapshot health) mutable {
            if (!weak.lock()) return;
            facts.health = std::move(health);
            attempt->transport->postJson(paths::devices, registrationBody(user, facts), true,
                                         [weak, attempt](const SendResult& result) {
                                             if (auto self = weak.lock()) {
                                                 self->finish(attempt, result);
                                             }
                                         });
        });
}

void RegistrationFlow::finish(const std::shared_ptr<Attempt>& attempt, const SendResult& result) {
    std::exception_ptr failure = result.error;
    std::optional<RegisterResult> registration;
    if (!failure) {
        try {
            registration = RegisterResult::decode(result.body);
        } catch (const DecodingError&) {
            failure = std::current_exception();
        }
    }
    if (failure) {
        attempt->done(failure);
        return;
    }
    // A reply older than the one applied would only take the client back.
    if (attempt->number > configureApplied_) {
        configureApplied_ = attempt->number;
        // The transport stays the newest configure's: a configure still on its way replaced it.
        attempt->transport->setDeviceToken(registration->deviceToken);
        setRegistration(std::move(registration));
        if (!stopped_ && parts_.onRegistered)
            parts_.onRegistered(*attempt->transport, *registration_);
    }
    attempt->done(nullptr);
}

void RegistrationFlow::setRegistration(std::optional<RegisterResult> registration) {
    registration_ = std::move(registration);
    std::lock_guard lock(supportCodeMutex_);
    supportCodeMirror_ = registration_ ? registration_->supportCode : std::nullopt;
}

std::optional<std::string> RegistrationFlow::supportCode() const {
    std::lock_guard lock(supportCodeMutex_);
    return supportCodeMirror_;
}

void RegistrationFlow::identify(const std::string& id, const std::optional<std::string>& name,
                                const std::optional<std::string>& phone,
                                std::function<void()> done) {
    if (!transport_) fatalPrecondition("identify() called before configure()");
    using nlohmann::json;
    JsonFields body{
        {"id", json(id)},
        {"name", name ? std::optional<json>(*name) : std::nullopt},
        {"phone", phone ? std::optional<json>(*phone) : std::nullopt},
    };
    // The reply carries nothing the client keeps, and failures are deliberately silent.
    transport_->postJson(paths::identify, body, false, [done = std::move(done)](const SendResult&) {
        if (done) done();
    });
}

void RegistrationFlow::reset(std::function<void()> done) {
    if (!transport_) fatalPrecondition("reset() called before configure()");
    const std::uint64_t epoch = ++epoch_;
    std::weak_ptr<RegistrationFlow> weak = weak_from_this();
    transport_->postJson(paths::reset, {}, false,
                         [weak, epoch, done = std::move(done)](const SendResult& result) {
                             auto self = weak.lock();
                             // A newer configure, reset or stop has the last word on the code.
                             if (self && self->epoch_ == epoch && result && self->registration_) {
                                 try {
                                     auto reply = ResetResult::decode(result.body);
                                     auto updated = *self->registration_;
                                     updated.supportCode = std::move(reply.supportCode);
                                     self->setRegistration(std::move(updated));
                                 } catch (const DecodingError&) {
                                     // An unreadable reply changes nothing.
                                 }
                             }
                             if (done) done();
                         });
}

void RegistrationFlow::stop() {
    stopped_ = true;
    ++epoch_;
}

}  // namespace virela
