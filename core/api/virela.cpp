#include "core/api/virela.hpp"

#include <mutex>

#include "core/client/client.hpp"
#include "core/ports/fatal.hpp"
#include "core/ports/platform.hpp"
#include "core/ports/redaction_style.hpp"

namespace virela {

namespace {
std::shared_ptr<const Platform> requirePlatform() {
    auto platform = installedPlatform();
    if (!platform) {
        fatalPrecondition(
            "no platform is installed: create the platform runtime before using Virela");
    }
    return platform;
}

// Runs `work` on the main executor: now when already there, else posted.
void onMain(std::function<void(VirelaClient&)> work) {
    auto client = Virela::sharedClient();
    const auto& main = client->platform().main;
    if (main->isCurrent()) {
        work(*client);
    } else {
        main->post([client, work = std::move(work)] { work(*client); });
    }
}
}  // namespace

std::shared_ptr<VirelaClient> Virela::sharedClient() {
    static std::once_flag once;
    static std::shared_ptr<VirelaClient> client;
    std::call_once(once, [] { client = VirelaClient::create(requirePlatform()); });
    return client;
}

std::future<void> Virela::configure(std::string key, const VirelaEnvironment& environment,
                                    std::optional<VirelaUser> user, bool collectVendorId) {
    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    onMain([promise, key = std::move(key), url = environment.url(), user = std::move(user),
            collectVendorId](VirelaClient& client) {
        client.configure(url, key, user, collectVendorId,
                         [promise](const std::exception_ptr& error) {
                             if (error) {
                                 promise->set_exception(error);
                             } else {
                                 promise->set_value();
                             }
                         });
    });
    return future;
}

void Virela::configure(std::string key, const VirelaEnvironment& environment,
                       std::optional<VirelaUser> user, bool collectVendorId,
                       std::function<void(std::exception_ptr)> completion) {
    onMain([key = std::move(key), url = environment.url(), user = std::move(user), collectVendorId,
            completion = std::move(completion)](VirelaClient& client) {
        auto main = client.platform().main;
        client.configure(url, key, user, collectVendorId,
                         [main, completion](const std::exception_ptr& error) {
                             if (!completion) return;
                             main->postBackground([completion, error] { completion(error); });
                         });
    });
}

void Virela::on(VirelaCallbacks callbacks) {
    onMain([callbacks = std::move(callbacks)](VirelaClient& client) {
        client.setCallbacks(callbacks);
    });
}

void Virela::identify(std::string id, std::optional<std::string> name,
                      std::optional<std::string> phone) {
    onMain([id = std::move(id), name = std::move(name),
            phone = std::move(phone)](VirelaClient& client) { client.identify(id, name, phone); });
}

void Virela::reset() {
    onMain([](VirelaClient& client) { client.reset(); });
}

void Virela::setRedactionStyle(VirelaRedaction style) {
    setDefaultRedactionStyle(std::move(style));
}

std::optional<std::string> Virela::supportCode() {
    return sharedClient()->supportCode();
}

void Virela::showSupportCode() {
    onMain([](VirelaClient& client) { client.showSupportCode(); });
}

void Virela::stop() {
    onMain([](VirelaClient& client) { client.stop(); });
}

}  // namespace virela
