#include "core/api/diagnostics.hpp"

#include <future>

#include "core/api/virela.hpp"
#include "core/capture/capture.hpp"
#include "core/client/client.hpp"
#include "core/control/windows.hpp"

namespace virela {

namespace {
// Runs `work` on the main executor and waits for its result (or its exception).
template <typename Work>
auto onMainAndWait(Work work) -> decltype(work(std::declval<VirelaClient&>())) {
    auto client = Virela::sharedClient();
    const auto& main = client->platform().main;
    if (main->isCurrent()) return work(*client);
    using Result = decltype(work(*client));
    auto task =
        std::make_shared<std::packaged_task<Result()>>([client, work] { return work(*client); });
    auto result = task->get_future();
    main->post([task] { (*task)(); });
    return result.get();
}
}  // namespace

void VirelaDiagnostics::observeChannel(ChannelEvents events) {
    onMainAndWait(
        [&events](VirelaClient& client) { client.channel().setEvents(std::move(events)); });
}

std::optional<DeviceDiagnostics> VirelaDiagnostics::device() {
    return onMainAndWait([](VirelaClient& client) -> std::optional<DeviceDiagnostics> {
        const RegisterResult* registration = client.registration();
        auto transport = client.transport();
        if (!registration || !transport) return std::nullopt;
        return DeviceDiagnostics{registration->deviceId, client.installId(transport->apiKey()),
                                 registration->captureMode, registration->isTest};
    });
}

ScreenDiagnostics VirelaDiagnostics::captureScreen(bool live) {
    return onMainAndWait([live](VirelaClient& client) {
        const Platform& platform = client.platform();
        if (!platform.host || !platform.renderer) {
            throw VirelaError(0, "no_window", "No visible window to capture.");
        }
        ScreenCapture capture(client.windows(), platform.renderer, platform.log);
        ScreenDiagnostics screen;
        screen.bytes = capture.capture(live);
        for (const auto& step : capture.lastPlan().steps) {
            screen.redactionBoxes += step.kind == CaptureStep::Kind::paintRedaction;
        }
        return screen;
    });
}

std::optional<WindowFacts> VirelaDiagnostics::captureWindow(HostInterface& host) {
    return findCaptureWindow(host);
}

}  // namespace virela
