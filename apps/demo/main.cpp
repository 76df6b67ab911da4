// virela-demo: a support session seen from the customer's device, against the embedded local
// backend (or any backend given with --base-url). This file only wires the parts together:
// options.*, transcript.* (everything printed), sample_app.* and customer.* (the app and the
// person using it), agent_script.* (the agent, played by the embedded backend).

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

#include "apps/demo/agent_script.hpp"
#include "apps/demo/console_mode.hpp"
#include "apps/demo/customer.hpp"
#include "apps/demo/live_script.hpp"
#include "apps/demo/options.hpp"
#include "apps/demo/sample_app.hpp"
#include "apps/demo/transcript.hpp"
#include "apps/demo/wait.hpp"
#include "core/api/diagnostics.hpp"
#include "core/api/virela.hpp"
#include "core/base/errors.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace {

using namespace std::chrono_literals;
using demo::say;
using demo::waitFor;

std::atomic<bool> interrupted{false};
extern "C" void onSignal(int) {
    interrupted = true;
}

// "app: ready" once both hold, whichever comes last: a driver may act from then on.
std::atomic<bool> firstScreenShown{false};
std::atomic<bool> channelOpen{false};
std::atomic<bool> readySaid{false};
void sayReadyOnce() {
    if (firstScreenShown && channelOpen && !readySaid.exchange(true)) say("app: ready");
}

void installHostCallbacks(demo::HostOutcomes& outcomes) {
    virela::Virela::on(virela::VirelaCallbacks{
        .onRequestShown = [] { say("host: onRequestShown"); },
        .onAllowed =
            [&outcomes](const virela::CaptureResult& result) {
                say("host: onAllowed: capture " + result.captureId + " at " + result.imageUrl);
                outcomes.add();
            },
        .onDenied =
            [&outcomes] {
                say("host: onDenied");
                outcomes.add();
            },
        .onExpired =
            [&outcomes] {
                say("host: onExpired");
                outcomes.add();
            },
        .onError =
            [&outcomes](const virela::VirelaErrorValue& e) {
                say("host: onError: " + demo::failureText(e));
                outcomes.add();
            },
        .onRemoteControl =
            [](bool active) {
                say(std::string("host: onRemoteControl: ") + (active ? "true" : "false"));
            },
        .onLiveEnded =
            [](const virela::LiveSession& session) {
                say("host: onLiveEnded: " + session.sessionId);
            },
    });
}

void printChannelEvents() {
    virela::VirelaDiagnostics::observeChannel({
        .onConnecting = [](const virela::Url& url) { say("connecting to " + url.str()); },
        .onOpen =
            [] {
                say("connected");
                channelOpen = true;
                sayReadyOnce();
            },
        .onLost =
            [](const std::exception_ptr& e) { say("connection lost: " + virela::describe(e)); },
        .onReconnectScheduled =
            [](double delay, int attempt) {
                say("reconnecting in " + demo::number(delay) + " s (attempt " +
                    std::to_string(attempt) + ")");
            },
        .onPush = [](const virela::Push& push) { say("push " + demo::describe(push)); },
    });
}

// Stays connected for `seconds` (0: until interrupted).
void stay(double seconds) {
    if (seconds > 0) {
        say("staying connected for " + demo::number(seconds) + " s (Ctrl-C to stop)");
    } else {
        say("staying connected; waiting for the agent (Ctrl-C to stop)");
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!interrupted && (seconds == 0 || std::chrono::steady_clock::now() < deadline)) {
        std::this_thread::sleep_for(50ms);
    }
}

}  // namespace

int main(int argc, char** argv) {
    auto options = demo::parseOptions(argc, argv);
    if (!options) {
        demo::printUsage(stderr);
        return 2;
    }
    if (options->help) {
        demo::printUsage(stdout);
        return 0;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    virela::headless::RuntimeOptions runtimeOptions;
    if (options->stateDir) runtimeOptions.stateDirectory = *options->stateDir;
    runtimeOptions.settings.appId = "com.virela.demo";
    runtimeOptions.settings.appVersion = "1.0.0";
    virela::headless::Runtime runtime(runtimeOptions);

    virela::devserver::Server backend;
    const bool embedded = !options->baseUrl;
    std::string baseUrl = options->baseUrl.value_or("");
    if (embedded) {
        virela::devserver::Options backendOptions;
        // A short allowed call, so that the banner's countdown visibly moves.
        backendOptions.sessionSeconds = 62;
        backendOptions.trafficLog = options->traffic.value_or("");
        if (options->console) {
            backendOptions.consoleToken = virela::devserver::freshConsoleToken();
            backendOptions.consoleDirectory = options->consoleDir.value_or("");
        }
        try {
            backend.start(backendOptions);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "virela-demo: %s\n", e.what());
            return 1;
        }
        baseUrl = backend.url();
        say("local backend listening on " + baseUrl);
        if (options->console) say("console: " + backend.consoleUrl());
    }

    std::error_code dirError;
    std::filesystem::create_directories(options->outDir, dirError);
    demo::HostOutcomes outcomes;
    installHostCallbacks(outcomes);
    demo::Customer customer(runtime, options->consent, [](const std::string& line) { say(line); });
    printChannelEvents();

    say("configuring against " + baseUrl);
    auto environment = virela::VirelaEnvironment::custom(*virela::Url::parse(baseUrl));
    try {
        virela::Virela::configure(options->key, environment,
                                  virela::VirelaUser("demo-user-1", "Ana Demo"))
            .get();
    } catch (...) {
        say("configure failed: " + demo::failureText(std::current_exception()));
        return 1;
    }

    const auto device = *virela::VirelaDiagnostics::device();
    say("registered: device " + device.deviceId + " (install " + device.installId +
        ", capture mode " + virela::rawValue(device.captureMode) + (device.isTest ? ", test" : "") +
        ")");
    auto code = virela::Virela::supportCode();
    say("support code: " + code.value_or("(none)"));

    virela::Virela::identify("demo-user-1", "Ana Demo", "+44 20 7946 0000");
    if (embedded) {
        waitFor([&] {
            auto known = backend.device(device.deviceId);
            return known && known->user;
        });
    }
    say("identified: demo-user-1 (Ana Demo)");

    virela::Virela::reset();
    const bool changed = waitFor([&] { return virela::Virela::supportCode() != code; });
    say("support code after reset: " + virela::Virela::supportCode().value_or("(none)") +
        (changed ? "" : " (unchanged)"));

    auto app = demo::showAndCaptureSampleApp(runtime, options->outDir);
    firstScreenShown = true;
    sayReadyOnce();

    say("app: the customer opens the support code");
    virela::Virela::showSupportCode();
    if (waitFor([&] { return customer.press("Done"); }, 3s)) say("customer: taps [Done]");

    if (embedded && !backend.waitForConnection(device.deviceId, 10s)) {
        say("the device did not connect to the realtime channel");
    }
    if (options->console) {
        demo::CustomerViewWriter view(runtime, options->outDir);
        say("play the agent: open " + backend.consoleUrl() + " in a browser");
        say("what the customer sees, overlay included, is kept in " + view.path().string());
        if (options->consent == demo::ConsentPolicy::ask || options->staySeconds) {
            // The terminal answers the sheets, or the run has a set length.
            stay(options->staySeconds.value_or(0));
        } else {
            say("staying connected until Ctrl-C");
            demo::playCustomerAtTerminal(runtime, app, backend, device.deviceId, interrupted);
        }
    } else if (embedded) {
        demo::playScreenshots(backend, outcomes, device.deviceId, options->outDir,
                              options->consent);
        if (const auto live = demo::playLive(backend, runtime, app, device.deviceId,
                                             options->outDir, options->consent)) {
            demo::playControl(backend, runtime, app, device.deviceId, *live, options->consent);
            demo::stopSharing(backend, runtime, *live);
        }
        demo::playAgent(backend, runtime, device.deviceId);
    }

    const double seconds = options->console ? -1 : options->staySeconds.value_or(embedded ? -1 : 0);
    if (seconds >= 0) stay(seconds);

    virela::Virela::stop();
    // Lets stop() finish on the main thread, and lets the app go where its views live.
    runtime.runOnMain([&app] { app.reset(); });
    say("stopped");
    return 0;
}
