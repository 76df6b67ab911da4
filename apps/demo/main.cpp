// virela-demo: a support session seen from the customer's device, against the embedded local
// backend (or any backend given with --base-url).

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include "core/api/errors.hpp"
#include "core/api/virela.hpp"
#include "core/client/client.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace {

using namespace std::chrono_literals;

struct Arguments {
    std::optional<std::string> baseUrl;
    std::string key = "vk_demo_local";
    std::optional<std::string> stateDir;
};

void usage(std::FILE* out) {
    std::fputs(
        "usage: virela-demo [--base-url URL] [--key KEY] [--state-dir DIR]\n"
        "\n"
        "Without --base-url the demo starts the local backend on 127.0.0.1 and uses it.\n"
        "  --base-url URL   the backend to talk to (http or https)\n"
        "  --key KEY        the API key (default vk_demo_local, which the local backend accepts)\n"
        "  --state-dir DIR  where the install identifier is kept (default ~/.local/state/virela)\n",
        out);
}

std::optional<Arguments> parse(int argc, char** argv) {
    Arguments args;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= argc) return std::nullopt;
            return std::string(argv[++i]);
        };
        std::optional<std::string> v;
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            std::exit(0);
        } else if (arg == "--base-url" && (v = value())) {
            args.baseUrl = *v;
        } else if (arg == "--key" && (v = value())) {
            args.key = *v;
        } else if (arg == "--state-dir" && (v = value())) {
            args.stateDir = *v;
        } else {
            std::fprintf(stderr, "virela-demo: unexpected argument '%s'\n", arg.c_str());
            return std::nullopt;
        }
    }
    return args;
}

void printFailure(const char* what, const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const virela::VirelaError& e) {
        std::printf("%s failed: status %d, code %s, message %s\n", what, e.status(),
                    e.code().c_str(), e.message().c_str());
    } catch (const virela::NetworkError& e) {
        std::printf("%s failed: status 0, code %s, message %s\n", what, virela::toString(e.kind()),
                    e.what());
    } catch (const std::exception& e) {
        std::printf("%s failed: status 0, code undecodable, message %s\n", what, e.what());
    }
}

// Waits until `ready` holds or the time is up; the facade's fire-and-forget calls give no
// completion, so the demo watches for their effect.
template <class Predicate>
bool waitFor(Predicate ready, std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!ready()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    auto args = parse(argc, argv);
    if (!args) {
        usage(stderr);
        return 2;
    }
    auto baseUrl = args->baseUrl;
    if (baseUrl) {
        auto parsed = virela::Url::parse(*baseUrl);
        if (!parsed || (parsed->scheme() != "http" && parsed->scheme() != "https") ||
            parsed->host().empty()) {
            std::fprintf(stderr, "virela-demo: --base-url must be an http or https URL\n");
            return 2;
        }
    }

    virela::headless::RuntimeOptions options;
    if (args->stateDir) options.stateDirectory = *args->stateDir;
    options.settings.appId = "com.virela.demo";
    options.settings.appVersion = "1.0.0";
    virela::headless::Runtime runtime(options);

    virela::devserver::Server backend;
    if (!baseUrl) {
        backend.start();
        baseUrl = backend.url();
        std::printf("local backend listening on %s\n", baseUrl->c_str());
    }

    virela::Virela::on(virela::VirelaCallbacks{
        .onError = [](const virela::VirelaErrorValue& e) { printFailure("request", e); },
    });

    std::printf("configuring against %s\n", baseUrl->c_str());
    auto environment = virela::VirelaEnvironment::custom(*virela::Url::parse(*baseUrl));
    try {
        virela::Virela::configure(args->key, environment,
                                  virela::VirelaUser("demo-user-1", "Ana Demo"))
            .get();
    } catch (...) {
        printFailure("configure", std::current_exception());
        return 1;
    }

    auto client = virela::Virela::sharedClient();
    auto registration = runtime.runOnMain([&] { return *client->registration(); });
    auto installId = runtime.runOnMain([&] { return client->installId(args->key); });
    std::printf("registered: device %s (install %s, capture mode %s%s)\n",
                registration.deviceId.c_str(), installId.c_str(),
                virela::rawValue(registration.captureMode), registration.isTest ? ", test" : "");
    auto code = virela::Virela::supportCode();
    std::printf("support code: %s\n", code ? code->c_str() : "(none)");

    virela::Virela::identify("demo-user-1", "Ana Demo", "+44 20 7946 0000");
    if (backend.running()) {
        waitFor([&] {
            auto device = backend.device(registration.deviceId);
            return device && device->user;
        });
    }
    std::printf("identified: demo-user-1 (Ana Demo)\n");

    virela::Virela::reset();
    bool changed = waitFor([&] { return virela::Virela::supportCode() != code; });
    auto fresh = virela::Virela::supportCode();
    if (changed) {
        std::printf("support code after reset: %s\n", fresh ? fresh->c_str() : "(none)");
    } else {
        std::printf("support code after reset: unchanged (%s)\n", fresh ? fresh->c_str() : "none");
    }

    virela::Virela::stop();
    runtime.runOnMain([] {});  // let stop() finish on the main thread
    std::printf("stopped\n");
    return 0;
}
