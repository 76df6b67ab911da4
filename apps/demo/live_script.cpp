#include "apps/demo/live_script.hpp"

#include <chrono>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "apps/demo/transcript.hpp"
#include "apps/demo/wait.hpp"

namespace demo {

using namespace std::chrono_literals;
using virela::devserver::Guide;
using virela::devserver::LiveNote;
using virela::devserver::Server;
using virela::headless::OverlayState;
using virela::headless::Runtime;

namespace {

// What the customer sees of the overlay; nullopt while it is down.
std::optional<OverlayState> overlay(Runtime& runtime) {
    return runtime.runOnMain([&] { return runtime.overlay()->state(); });
}

bool writeFile(const std::filesystem::path& path, const char* data, std::size_t size) {
    std::ofstream file(path, std::ios::binary);
    file.write(data, static_cast<std::streamsize>(size));
    return static_cast<bool>(file);
}

Guide guide(std::string kind, double x, double y) {
    Guide g;
    g.kind = std::move(kind);
    g.x = x;
    g.y = y;
    return g;
}

// The marks and laser on screen, as the customer would describe them.
std::string describeMarks(const OverlayState& state) {
    std::string text;
    for (const auto& mark : state.marks) {
        if (!text.empty()) text += ", ";
        switch (mark.kind) {
            case virela::GuideKind::arrow:
                text += "an arrow";
                break;
            case virela::GuideKind::box:
                text += "a box";
                break;
            case virela::GuideKind::fill:
                text += "a filled box";
                break;
            case virela::GuideKind::label:
                text += "the label \"" + mark.text + "\"";
                break;
            default:
                text += "a mark";
                break;
        }
    }
    if (state.laser) text += std::string(text.empty() ? "" : ", ") + "the laser dot";
    return text.empty() ? "nothing" : text;
}

}  // namespace

std::optional<std::string> playLive(Server& backend, Runtime& runtime,
                                    const std::shared_ptr<SampleApp>& app,
                                    const std::string& deviceId,
                                    const std::filesystem::path& outDir, ConsentPolicy policy) {
    virela::devserver::LiveRequest request;
    request.agentName = "Dana";
    request.workspaceName = "Acme";
    request.logoUrl = backend.logoUrl();
    say("agent: Dana asks to watch the screen live");
    const auto asked = backend.requestLive(deviceId, request);
    if (!asked) {
        say("agent: the device is not connected");
        return std::nullopt;
    }
    const std::string id = asked->sessionId;
    const auto answerTime = policy == ConsentPolicy::ask ? 70s : 10s;
    if (!backend.waitForLiveAnswer(id, answerTime)) {
        say("agent: no answer to the live request");
        return std::nullopt;
    }
    if (backend.liveSession(id)->answers.front() == false) {
        say("agent: the customer chose not to share the screen");
        return std::nullopt;
    }

    // The backend confirms the session with a generation; the device confirms its indicator.
    backend.activateLive(deviceId, id, "share-1");
    if (backend.waitForIndicator(id, 1, 5s)) {
        const auto confirmed = backend.liveSession(id)->indicators.front();
        say("agent: the device confirms the " + confirmed.kind + " indicator (generation " +
            confirmed.generation + ")");
    }
    if (auto state = overlay(runtime)) say("customer: sees the pill \"" + state->status + "\"");

    std::this_thread::sleep_for(3s);
    auto record = backend.liveSession(id);
    say("agent: received " + std::to_string(record->frames) + " frames so far, " +
        oneDecimal(record->frameRate) + " a second, the latest at " +
        record->frameUrl.value_or("-"));

    say("agent: Dana points with the laser, then draws an arrow to \"Pay\", a box around "
        "\"Save card\" and a label");
    for (const double x : {0.3, 0.4, 0.5, 0.6, 0.7}) {
        backend.sendGuide(deviceId, id, guide("laser", x, 0.35));
        std::this_thread::sleep_for(120ms);
    }
    Guide arrow = guide("arrow", 0.22, 0.64);
    arrow.x2 = 0.36;
    arrow.y2 = 0.695;
    backend.sendGuide(deviceId, id, arrow);
    Guide box = guide("box", 0.80, 0.33);
    box.w = 0.18;
    box.h = 0.05;
    box.color = "#1E6FD9";
    backend.sendGuide(deviceId, id, box);
    Guide label = guide("label", 0.05, 0.6);
    label.text = "Tap Pay when you are ready";
    backend.sendGuide(deviceId, id, label);
    waitFor(
        [&] {
            auto state = overlay(runtime);
            return state && state->marks.size() == 3;
        },
        3s);
    if (auto state = overlay(runtime)) {
        say("customer: sees " + describeMarks(*state) + "; the pill says \"" + state->status +
            "\"");
    }

    // Frames keep flowing under the marks; the agent's latest was taken with them on screen.
    std::this_thread::sleep_for(1s);
    const std::string latest = backend.liveSession(id)->latestFrame;
    const auto framePath = outDir / "live-frame.jpg";
    if (writeFile(framePath, latest.data(), latest.size())) {
        say("agent: latest frame written to " + framePath.string() + " (" +
            std::to_string(latest.size()) +
            " bytes JPEG; sensitive views painted over, the "
            "overlay not in it)");
    }
    const std::vector<std::uint8_t> seen = runtime.renderCustomerView();
    const auto viewPath = outDir / "customer-view.png";
    if (!seen.empty() &&
        writeFile(viewPath, reinterpret_cast<const char*>(seen.data()), seen.size())) {
        say("app: what the customer sees written to " + viewPath.string() +
            " (the app with the overlay and the marks)");
    }

    say("agent: saves a snapshot with her marks");
    LiveNote saved;
    saved.kind = "frameSaved";
    saved.guides = true;
    backend.sendLiveNote(deviceId, id, saved);
    waitFor(
        [&] {
            auto state = overlay(runtime);
            return state && state->toast;
        },
        3s);
    if (auto state = overlay(runtime); state && state->toast) {
        say("customer: sees the toast \"" + state->toast->text + "\"");
    }

    std::this_thread::sleep_for(1s);
    say("agent: starts recording");
    const std::size_t confirmations = backend.liveSession(id)->indicators.size();
    LiveNote recording;
    recording.kind = "recordingStarted";
    recording.generation = "rec-1";
    backend.sendLiveNote(deviceId, id, recording);
    waitFor(
        [&] {
            auto state = overlay(runtime);
            return state && state->toast && state->toast->recording;
        },
        3s);
    if (auto state = overlay(runtime); state && state->toast) {
        say("customer: sees the toast \"" + state->toast->text + "\"");
    }
    if (backend.waitForIndicator(id, confirmations + 1, 5s)) {
        const auto confirmed = backend.liveSession(id)->indicators.back();
        say("agent: the device confirms the " + confirmed.kind + " indicator (generation " +
            confirmed.generation + ")");
    }

    // The marks belong to the screen as it was: a scroll takes them away and the agent hears why.
    say("customer: scrolls the checkout while the marks are still up");
    const std::size_t views = backend.viewChanges(deviceId).size();
    runtime.runOnMain([&] { app->window()->drag({195, 420}, {195, 300}); });
    if (backend.waitForViewChanges(deviceId, views + 1, 3s)) {
        say("agent: received " + backend.viewChanges(deviceId).back().text);
    }
    if (auto state = overlay(runtime)) {
        say("customer: the marks are gone (" + describeMarks(*state) + " on screen)");
    }

    return id;
}

void stopSharing(Server& backend, Runtime& runtime, const std::string& sessionId) {
    const std::size_t answers = backend.liveSession(sessionId)->answers.size();
    say("customer: taps [Stop]");
    runtime.runOnMain([&] { runtime.overlay()->press("Stop"); });
    if (backend.waitForLiveAnswer(sessionId, 5s, answers + 1)) {
        say("agent: the device reports that the customer stopped sharing; " +
            std::to_string(backend.liveSession(sessionId)->frames) + " frames in all");
    }
}

}  // namespace demo
