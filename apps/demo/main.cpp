// virela-demo: a support session seen from the customer's device, against the embedded local
// backend (or any backend given with --base-url).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>

#include "apps/demo/customer.hpp"
#include "apps/demo/sample_screen.hpp"
#include "core/base/errors.hpp"
#include "core/api/virela.hpp"
#include "core/api/diagnostics.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace {

using namespace std::chrono_literals;

struct Arguments {
    std::optional<std::string> baseUrl;
    std::string key = "vk_demo_local";
    std::optional<std::string> stateDir;
    std::optional<double> staySeconds;
    std::string outDir = "virela-captures";
    demo::ConsentPolicy consent = demo::ConsentPolicy::allow;
};

void usage(std::FILE* out) {
    std::fputs(
        "usage: virela-demo [--base-url URL] [--key KEY] [--state-dir DIR] [--stay SECONDS]\n"
        "                   [--out DIR] [--consent allow|deny|ask]\n"
        "\n"
        "Without --base-url the demo starts the local backend on 127.0.0.1, plays the agent's\n"
        "side of a short session against it and stops. With --base-url it registers with that\n"
        "backend and stays connected, printing every push it handles, until interrupted.\n"
        "  --base-url URL    the backend to talk to (http or https)\n"
        "  --key KEY         the API key (default vk_demo_local, which the local backend accepts)\n"
        "  --state-dir DIR   where the install identifier is kept (default ~/.local/state/virela)\n"
        "  --stay SECONDS    stay connected this long before stopping (0: until interrupted)\n"
        "  --out DIR         where the screenshots the agent receives are written (default\n"
        "                    ./virela-captures)\n"
        "  --consent ANSWER  how the customer answers consent sheets: allow (default), deny, or\n"
        "                    ask (the sheet is printed and you answer at the terminal)\n",
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
        } else if (arg == "--out" && (v = value())) {
            args.outDir = *v;
        } else if (arg == "--consent" && (v = value())) {
            auto policy = demo::consentPolicy(*v);
            if (!policy) return std::nullopt;
            args.consent = *policy;
        } else if (arg == "--stay" && (v = value())) {
            char* end = nullptr;
            double seconds = std::strtod(v->c_str(), &end);
            if (end == v->c_str() || *end != '\0' || !(seconds >= 0)) return std::nullopt;
            args.staySeconds = seconds;
        } else {
            std::fprintf(stderr, "virela-demo: unexpected argument '%s'\n", arg.c_str());
            return std::nullopt;
        }
    }
    return args;
}

// Lines come from the main loop, the backend's thread and this one; keep them whole.
std::mutex printMutex;
__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
    std::lock_guard lock(printMutex);
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::printf("\n");
    std::fflush(stdout);
}

std::string failureText(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const virela::VirelaError& e) {
        return "status " + std::to_string(e.status()) + ", code " + e.code() + ", message " +
               e.message();
    } catch (const virela::NetworkError& e) {
        return std::string("status 0, code ") + virela::toString(e.kind()) + ", message " +
               e.what();
    } catch (const std::exception& e) {
        return std::string("status 0, code undecodable, message ") + e.what();
    }
}

std::string text(const std::optional<std::string>& value) {
    return value ? *value : "-";
}
std::string number(const std::optional<double>& value) {
    if (!value) return "-";
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%g", *value);
    return buffer;
}

// One readable line per push the library handled.
std::string describe(const virela::Push& push) {
    using namespace virela;
    struct Describe {
        std::string operator()(const ConsentPush& p) const {
            return "request " + p.requestId + " (" + rawValue(p.mode) + ") from " +
                   text(p.agentName) + ", expires " + p.expiresAt;
        }
        std::string operator()(const CapturePush& p) const { return "request " + p.requestId; }
        std::string operator()(const LivePush& p) const {
            return "session " + p.sessionId + " " + rawValue(p.state) + ", generation " +
                   text(p.generation);
        }
        std::string operator()(const LiveNotePush& p) const {
            return "session " + p.sessionId + " " + rawValue(p.kind) + ", generation " +
                   text(p.generation);
        }
        std::string operator()(const GuidePush& p) const {
            return p.kind + " at (" + number(p.x) + ", " + number(p.y) + ")" +
                   (p.text ? " \"" + *p.text + "\"" : "");
        }
        std::string operator()(const ControlPush& p) const {
            return "session " + p.sessionId + " " + rawValue(p.state) + ", generation " +
                   text(p.generation);
        }
        std::string operator()(const ControlInputPush& p) const {
            return p.action + " at (" + number(p.x) + ", " + number(p.y) + ")";
        }
        std::string operator()(const SessionPush& p) const { return "state " + p.state; }
        std::string operator()(const ExpiredPush&) const { return "the pending request expired"; }
        std::string operator()(const DeniedPush&) const { return "the pending request was denied"; }
    };
    return std::string(pushType(push)) + ": " + std::visit(Describe{}, push);
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

std::atomic<bool> interrupted{false};
extern "C" void onSignal(int) {
    interrupted = true;
}

// What the host's callbacks reported, so the agent's script can wait for an answer.
struct HostOutcomes {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
    void add() {
        {
            std::lock_guard lock(mutex);
            ++count;
        }
        changed.notify_all();
    }
    // Waits for the outcome after `seen`; false on time-out.
    bool waitBeyond(int seen, std::chrono::seconds limit) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, limit, [&] { return count > seen; });
    }
    int current() {
        std::lock_guard lock(mutex);
        return count;
    }
};

// Writes the image the agent received for `requestId` and says where it went.
void saveReceived(virela::devserver::Server& backend, const std::string& requestId,
                  const std::filesystem::path& path) {
    auto record = backend.captureRequest(requestId);
    if (!record || !record->captureId) {
        say("agent: no image for %s (%s)", requestId.c_str(),
            record && record->answer == false ? "the customer declined" : "nothing arrived");
        return;
    }
    std::ofstream file(path, std::ios::binary);
    file.write(record->png.data(), static_cast<std::streamsize>(record->png.size()));
    if (!file) {
        say("agent: could not write %s", path.c_str());
        return;
    }
    say("agent: received capture %s (%zu bytes PNG, %s), written to %s", record->captureId->c_str(),
        record->png.size(), record->imageUrl->c_str(), path.c_str());
}

// The agent asks for screenshots: once, then for the whole call with a countdown banner and a
// second screenshot without a prompt.
void playScreenshots(virela::devserver::Server& backend, HostOutcomes& outcomes,
                     const std::string& deviceId, const std::filesystem::path& outDir,
                     demo::ConsentPolicy policy) {
    const auto answerTime = policy == demo::ConsentPolicy::ask ? 70s : 10s;
    virela::devserver::ScreenshotRequest once;
    once.agentName = "Dana";
    once.workspaceName = "Acme";
    once.logoUrl = backend.logoUrl();
    say("agent: Dana asks for a screenshot");
    int seen = outcomes.current();
    auto asked = backend.askScreenshot(deviceId, once);
    if (!asked || !outcomes.waitBeyond(seen, answerTime)) {
        say("agent: no answer to the screenshot request");
        return;
    }
    saveReceived(backend, asked->requestId, outDir / "screenshot.png");

    virela::devserver::ScreenshotRequest session = once;
    session.mode = "PerSession";
    session.consentCopy =
        "{agent_name} from {company} would like to take screenshots during this call. Anything "
        "marked private stays hidden.";
    say("agent: Dana asks to take screenshots for the rest of the call");
    seen = outcomes.current();
    asked = backend.askScreenshot(deviceId, session);
    if (!asked || !outcomes.waitBeyond(seen, answerTime)) {
        say("agent: no answer to the session request");
        return;
    }
    auto record = backend.captureRequest(asked->requestId);
    if (!record || !record->captureId) return;  // refused
    saveReceived(backend, asked->requestId, outDir / "session-1.png");
    say("agent: (waiting 16 s: the banner refreshes every 15 s)");
    std::this_thread::sleep_for(16s);
    say("agent: takes another screenshot, no prompt needed within the call");
    seen = outcomes.current();
    backend.sendCapture(deviceId, asked->requestId);
    if (outcomes.waitBeyond(seen, 10s)) {
        saveReceived(backend, asked->requestId, outDir / "session-2.png");
    }
    say("agent: ends the call");
    backend.pushText(deviceId, R"({"type":"session","payload":{"state":"ended"}})");
    std::this_thread::sleep_for(300ms);
}

// The agent's side of a short session, played by the embedded backend.
void playAgent(virela::devserver::Server& backend, virela::headless::Runtime& runtime,
               const std::string& deviceId) {
    say("agent: pushing a few actions");
    const char* frames[] = {
        R"({"type":"live","payload":{"sessionId":"live-1","state":"requested","generation":"1"}})",
        R"({"type":"guide","payload":{"sessionId":"live-1","kind":"label","x":0.5,"y":0.3,"text":"Tap Settings"}})",
        R"({"type":"live-note","payload":{"sessionId":"live-1","kind":"frameSaved","generation":2}})",
        R"({"type":"session","payload":{"state":"ended"}})",
    };
    std::size_t before = backend.framesFrom(deviceId).size();
    for (const char* frame : frames) backend.pushText(deviceId, frame);
    std::this_thread::sleep_for(300ms);
    say("agent: (the live-note it also sent carries a numeric generation, so the library "
        "dropped it)");

    say("app: entering the background, then coming back");
    runtime.lifecycle().enterBackground();
    runtime.lifecycle().enterForeground();
    backend.waitForFrames(deviceId, before + 2, 5s);
    for (const auto& frame : backend.framesFrom(deviceId)) {
        if (frame != "ping") say("agent: received %s", frame.c_str());
    }

    const auto port = backend.port();
    say("agent: restarting the backend (down for 3 s)");
    backend.stop();
    std::this_thread::sleep_for(3s);
    virela::devserver::Options options;
    options.port = port;
    options.onSocketEvent = [](const virela::devserver::SocketEvent& event) {
        if (event.kind == virela::devserver::SocketEvent::Kind::connected) {
            say("agent: device %s is connected again", event.deviceId.c_str());
        }
    };
    backend.start(options);
    if (!backend.waitForConnection(deviceId, 20s, backend.connectionsAccepted(deviceId) + 1)) {
        say("agent: the device did not come back within 20 s");
    }
    backend.pushText(deviceId, R"({"type":"denied","payload":{}})");
    std::this_thread::sleep_for(300ms);
}

}  // namespace

// Shows the sample screen and captures a JPEG live frame of it, as live sharing will send it,
// with every sensitive view painted over.
demo::SampleScreen captureSampleScreen(virela::headless::Runtime& runtime,
                                       const std::filesystem::path& outDir) {
    return runtime.runOnMain([&] {
        auto screen = demo::showSampleScreen(*runtime.host());
        say("app: showing the checkout screen (a password, a card number and a security code "
            "are sensitive)");
        const auto path = outDir / "live-frame.jpg";
        try {
            const auto shot = virela::VirelaDiagnostics::captureScreen(/*live=*/true);
            const auto& bytes = shot.bytes;
            const std::size_t boxes = shot.redactionBoxes;
            std::ofstream file(path, std::ios::binary);
            file.write(reinterpret_cast<const char*>(bytes.data()),
                       static_cast<std::streamsize>(bytes.size()));
            if (file) {
                say("app: live frame with %zu redaction boxes written to %s (%zu bytes)", boxes,
                    path.c_str(), bytes.size());
            } else {
                say("app: could not write %s", path.c_str());
            }
        } catch (...) {
            say("app: capture failed: %s", failureText(std::current_exception()).c_str());
        }
        return screen;
    });
}

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
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    virela::headless::RuntimeOptions options;
    if (args->stateDir) options.stateDirectory = *args->stateDir;
    options.settings.appId = "com.virela.demo";
    options.settings.appVersion = "1.0.0";
    virela::headless::Runtime runtime(options);

    virela::devserver::Server backend;
    const bool embedded = !baseUrl;
    if (embedded) {
        virela::devserver::Options backendOptions;
        // A short allowed call, so that the banner's countdown visibly moves.
        backendOptions.sessionSeconds = 62;
        backend.start(backendOptions);
        baseUrl = backend.url();
        say("local backend listening on %s", baseUrl->c_str());
    }

    std::error_code dirError;
    std::filesystem::create_directories(args->outDir, dirError);
    HostOutcomes outcomes;
    virela::Virela::on(virela::VirelaCallbacks{
        .onRequestShown = [] { say("host: onRequestShown"); },
        .onAllowed =
            [&outcomes](const virela::CaptureResult& result) {
                say("host: onAllowed: capture %s at %s", result.captureId.c_str(),
                    result.imageUrl.c_str());
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
                say("host: onError: %s", failureText(e).c_str());
                outcomes.add();
            },
    });
    demo::Customer customer(runtime, args->consent,
                            [](const std::string& line) { say("%s", line.c_str()); });
    virela::VirelaDiagnostics::observeChannel({
            .onConnecting =
                [](const virela::Url& url) { say("connecting to %s", url.str().c_str()); },
            .onOpen = [] { say("connected"); },
            .onLost =
                [](const std::exception_ptr& e) {
                    say("connection lost: %s", virela::describe(e).c_str());
                },
            .onReconnectScheduled =
                [](double delay, int attempt) {
                    say("reconnecting in %g s (attempt %d)", delay, attempt);
                },
            .onPush = [](const virela::Push& push) { say("push %s", describe(push).c_str()); },
        });

    say("configuring against %s", baseUrl->c_str());
    auto environment = virela::VirelaEnvironment::custom(*virela::Url::parse(*baseUrl));
    try {
        virela::Virela::configure(args->key, environment,
                                  virela::VirelaUser("demo-user-1", "Ana Demo"))
            .get();
    } catch (...) {
        say("configure failed: %s", failureText(std::current_exception()).c_str());
        return 1;
    }

    const auto registration = *virela::VirelaDiagnostics::device();
    say("registered: device %s (install %s, capture mode %s%s)", registration.deviceId.c_str(),
        registration.installId.c_str(), virela::rawValue(registration.captureMode),
        registration.isTest ? ", test" : "");
    auto code = virela::Virela::supportCode();
    say("support code: %s", code ? code->c_str() : "(none)");

    virela::Virela::identify("demo-user-1", "Ana Demo", "+44 20 7946 0000");
    if (embedded) {
        waitFor([&] {
            auto device = backend.device(registration.deviceId);
            return device && device->user;
        });
    }
    say("identified: demo-user-1 (Ana Demo)");

    virela::Virela::reset();
    bool changed = waitFor([&] { return virela::Virela::supportCode() != code; });
    auto fresh = virela::Virela::supportCode();
    say("support code after reset: %s%s", fresh ? fresh->c_str() : "(none)",
        changed ? "" : " (unchanged)");

    const auto screen = captureSampleScreen(runtime, args->outDir);

    say("app: the customer opens the support code");
    virela::Virela::showSupportCode();
    if (waitFor([&] { return customer.press("Done"); }, 3s)) say("customer: taps [Done]");

    if (embedded) {
        if (!backend.waitForConnection(registration.deviceId, 10s)) {
            say("the device did not connect to the realtime channel");
        }
        playScreenshots(backend, outcomes, registration.deviceId, args->outDir, args->consent);
        playAgent(backend, runtime, registration.deviceId);
    }

    double stay = args->staySeconds.value_or(embedded ? -1 : 0);
    if (stay >= 0) {
        if (stay > 0) {
            say("staying connected for %g s (Ctrl-C to stop)", stay);
        } else {
            say("staying connected; waiting for the agent (Ctrl-C to stop)");
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(stay);
        while (!interrupted && (stay == 0 || std::chrono::steady_clock::now() < deadline)) {
            std::this_thread::sleep_for(50ms);
        }
    }

    virela::Virela::stop();
    runtime.runOnMain([] {});  // let stop() finish on the main thread
    say("stopped");
    return 0;
}
