#include "apps/demo/agent_script.hpp"

#include <fstream>
#include <thread>

#include "apps/demo/transcript.hpp"

namespace demo {

using namespace std::chrono_literals;

void HostOutcomes::add() {
    {
        std::lock_guard lock(mutex_);
        ++count_;
    }
    changed_.notify_all();
}

int HostOutcomes::current() {
    std::lock_guard lock(mutex_);
    return count_;
}

bool HostOutcomes::waitBeyond(int seen, std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count_ > seen; });
}

namespace {

// Writes the image the agent received for `requestId` and says where it went.
void saveReceived(virela::devserver::Server& backend, const std::string& requestId,
                  const std::filesystem::path& path) {
    auto record = backend.captureRequest(requestId);
    if (!record || !record->captureId) {
        say("agent: no image for " + requestId + " (" +
            (record && record->answer == false ? "the customer declined" : "nothing arrived") +
            ")");
        return;
    }
    std::ofstream file(path, std::ios::binary);
    file.write(record->png.data(), static_cast<std::streamsize>(record->png.size()));
    if (!file) {
        say("agent: could not write " + path.string());
        return;
    }
    say("agent: received capture " + *record->captureId + " (" +
        std::to_string(record->png.size()) + " bytes PNG, " + *record->imageUrl + "), written to " +
        path.string());
}

}  // namespace

// The agent asks for screenshots: once, then for the whole call with a countdown banner and a
// second screenshot without a prompt.
void playScreenshots(virela::devserver::Server& backend, HostOutcomes& outcomes,
                     const std::string& deviceId, const std::filesystem::path& outDir,
                     ConsentPolicy policy) {
    const auto answerTime = policy == ConsentPolicy::ask ? 70s : 10s;
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
    backend.endCall(deviceId);
    std::this_thread::sleep_for(300ms);
}

// The agent's side of a short session, played by the embedded backend.
void playAgent(virela::devserver::Server& backend, virela::headless::Runtime& runtime,
               const std::string& deviceId) {
    say("agent: pushing a few actions");
    const char* frames[] = {
        R"({"type":"guide","payload":{"sessionId":"live-1","kind":"label","x":0.5,"y":0.3,"text":"Tap Settings"}})",
        R"({"type":"live-note","payload":{"sessionId":"live-1","kind":"frameSaved","generation":2}})",
        R"({"type":"session","payload":{"state":"ended"}})",
    };
    std::size_t before = backend.framesFrom(deviceId).size();
    for (const char* frame : frames) backend.pushText(deviceId, frame);
    std::this_thread::sleep_for(300ms);
    say("agent: (the guide was for a session no longer shared, so nothing was drawn; the "
        "live-note carries a numeric generation, so the library dropped it)");

    say("app: entering the background, then coming back");
    runtime.lifecycle().enterBackground();
    runtime.lifecycle().enterForeground();
    backend.waitForFrames(deviceId, before + 2, 5s);
    for (const auto& frame : backend.framesFrom(deviceId)) {
        if (frame != "ping") say("agent: received " + frame);
    }

    const auto port = backend.port();
    say("agent: restarting the backend (down for 3 s)");
    backend.stop();
    std::this_thread::sleep_for(3s);
    virela::devserver::Options options;
    options.port = port;
    options.onSocketEvent = [](const virela::devserver::SocketEvent& event) {
        if (event.kind == virela::devserver::SocketEvent::Kind::connected) {
            say("agent: device " + event.deviceId + " is connected again");
        }
    };
    backend.start(options);
    if (!backend.waitForConnection(deviceId, 20s, backend.connectionsAccepted(deviceId) + 1)) {
        say("agent: the device did not come back within 20 s");
    }
    backend.pushText(deviceId, R"({"type":"denied","payload":{}})");
    std::this_thread::sleep_for(300ms);
}

}  // namespace demo
