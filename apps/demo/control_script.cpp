// Dana takes control of the app inside the live session, played by the embedded local backend.
// She aims her taps the way a console does: at the centres the app printed in its layout.

#include <chrono>
#include <optional>
#include <thread>

#include "apps/demo/live_script.hpp"
#include "apps/demo/transcript.hpp"

namespace demo {

using namespace std::chrono_literals;
using virela::Point;
using virela::devserver::ControlInput;
using virela::devserver::Server;
using virela::headless::Runtime;

namespace {

// The centre of the view labelled `label`, as fractions of the app window; nullopt when the app
// has no such view.
std::optional<Point> centreOf(Runtime& runtime, const std::shared_ptr<SampleApp>& app,
                              std::string_view label) {
    return runtime.runOnMain([&]() -> std::optional<Point> {
        const auto view = app->find(label);
        if (!view) return std::nullopt;
        // A view in another window (the open menu) is placed through the screen.
        const virela::Rect frame = view->frameInWindow();
        const Point origin = view->window() ? view->window()->screenOrigin : Point{};
        const Point appOrigin = app->window()->screenOrigin;
        const virela::Rect window = app->window()->bounds();
        return Point{(frame.x + origin.x - appOrigin.x + frame.width / 2) / window.width,
                     (frame.y + origin.y - appOrigin.y + frame.height / 2) / window.height};
    });
}

// Sends one tap at the centre of `label` and gives the app a moment to answer.
void tap(Server& backend, Runtime& runtime, const std::shared_ptr<SampleApp>& app,
         const std::string& deviceId, const std::string& sessionId, std::string_view label) {
    const std::optional<Point> at = centreOf(runtime, app, label);
    if (!at) return;
    say("agent: taps \"" + std::string(label) + "\" at " + fixed(at->x, 3) + "," + fixed(at->y, 3));
    backend.sendInput(deviceId, sessionId, ControlInput::tapAt(at->x, at->y));
    std::this_thread::sleep_for(300ms);
}

}  // namespace

void playControl(Server& backend, Runtime& runtime, const std::shared_ptr<SampleApp>& app,
                 const std::string& deviceId, const std::string& sessionId, ConsentPolicy policy) {
    virela::devserver::ControlRequest request;
    request.agentName = "Dana";
    request.workspaceName = "Acme";
    say("agent: Dana asks to control the app");
    if (!backend.requestControl(deviceId, sessionId, request)) {
        say("agent: the device is not connected");
        return;
    }
    const auto answerTime = policy == ConsentPolicy::ask ? 70s : 10s;
    if (!backend.waitForControlAnswer(sessionId, answerTime)) {
        say("agent: no answer to the control request");
        return;
    }
    if (!backend.controlSession(sessionId)->answers.front().allow) {
        say("agent: the customer kept control");
        return;
    }

    // The backend grants the lease with a generation; input counts only once the device has
    // confirmed the banner that tells the customer.
    const std::size_t confirmations = backend.liveSession(sessionId)->indicators.size();
    backend.grantControl(deviceId, sessionId, "ctl-1");
    if (backend.waitForIndicator(sessionId, confirmations + 1, 5s)) {
        const auto confirmed = backend.liveSession(sessionId)->indicators.back();
        say("agent: the device confirms the " + confirmed.kind + " indicator (generation " +
            confirmed.generation + ")");
    }
    const bool banner = runtime.runOnMain([&] {
        const auto state = runtime.overlay()->state();
        return state && state->controlBanner;
    });
    if (banner) say("customer: sees \"Support is controlling your screen\" [Take back control]");

    // The customer left the checkout scrolled; the agent brings it back to the layout it knows.
    say("agent: scrolls the checkout back to the top");
    const std::optional<Point> area = centreOf(runtime, app, "Checkout");
    const Point middle = area.value_or(Point{0.5, 0.5});
    backend.sendInput(deviceId, sessionId, ControlInput::scrollAt(middle.x, middle.y, 0, -0.5));
    std::this_thread::sleep_for(300ms);

    tap(backend, runtime, app, deviceId, sessionId, "Save card");
    tap(backend, runtime, app, deviceId, sessionId, "Name");
    say("agent: types \"Ana Demo\"");
    backend.sendInput(deviceId, sessionId, ControlInput::typeText("Ana Demo"));
    std::this_thread::sleep_for(300ms);
    say("agent: tries the password field (the library refuses it: see its log line)");
    tap(backend, runtime, app, deviceId, sessionId, "Password");
    say("agent: tries the gift code and types into it, then Reveal (both refused the same way)");
    tap(backend, runtime, app, deviceId, sessionId, "Gift code");
    backend.sendInput(deviceId, sessionId, ControlInput::typeText("0000"));
    std::this_thread::sleep_for(300ms);
    tap(backend, runtime, app, deviceId, sessionId, "Reveal");

    const std::size_t feedback = backend.controlSession(sessionId)->feedback.size();
    tap(backend, runtime, app, deviceId, sessionId, "Delivery");
    if (backend.waitForFeedback(sessionId, feedback + 1, 3s)) {
        say("agent: the device reports \"" + backend.controlSession(sessionId)->feedback.back() +
            "\"");
    }
    tap(backend, runtime, app, deviceId, sessionId, "Express");

    say("agent: scrolls the checkout a little");
    backend.sendInput(deviceId, sessionId, ControlInput::scrollAt(middle.x, middle.y, 0, 0.05));
    std::this_thread::sleep_for(300ms);

    // A box on the checkout, then a new screen: the marks go and the agent hears why.
    virela::devserver::Guide box;
    box.kind = "box";
    box.x = 0.04;
    box.y = 0.58;
    box.w = 0.92;
    box.h = 0.07;
    backend.sendGuide(deviceId, sessionId, box);
    std::this_thread::sleep_for(200ms);
    const std::size_t views = backend.viewChanges(deviceId).size();
    tap(backend, runtime, app, deviceId, sessionId, "Order details");
    if (backend.waitForViewChanges(deviceId, views + 1, 3s)) {
        say("agent: received " + backend.viewChanges(deviceId).back().text);
    }
    tap(backend, runtime, app, deviceId, sessionId, "Back");

    const std::size_t answers = backend.controlSession(sessionId)->answers.size();
    say("customer: taps [Take back control]");
    runtime.runOnMain([&] { runtime.overlay()->press("Take back control"); });
    if (backend.waitForControlAnswer(sessionId, 5s, answers + 1)) {
        say("agent: control is back with the customer after " +
            std::to_string(backend.controlSession(sessionId)->inputs) + " inputs");
    }
}

}  // namespace demo
