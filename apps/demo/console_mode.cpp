#include "apps/demo/console_mode.hpp"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <system_error>
#include <vector>

#include "apps/demo/transcript.hpp"

namespace demo {

namespace {

using virela::headless::OverlayState;

// What makes the customer's view differ: the laser counts by presence, not by every move, so a
// pointing agent does not make the file churn.
std::string signature(const std::optional<OverlayState>& state) {
    if (!state) return "-";
    std::string text = state->status + '|' + (state->toast ? state->toast->text : "") + '|' +
                       (state->controlBanner ? "c" : "") + (state->laser ? "l" : "");
    for (const auto& mark : state->marks) text += '|' + std::to_string(mark.id);
    return text;
}

const char* const kCustomerHelp =
    "customer: type scroll, background, foreground, stop, take back, offline or help (Enter "
    "after each)";

void act(const std::string& line, virela::headless::Runtime& runtime,
         const std::shared_ptr<SampleApp>& app, virela::devserver::Server& backend,
         const std::string& deviceId) {
    if (line == "scroll") {
        say("customer: scrolls the checkout");
        runtime.runOnMain([&] { app->window()->drag({195, 420}, {195, 300}); });
    } else if (line == "background") {
        say("customer: leaves the app");
        runtime.runOnMain([&] { runtime.lifecycle().enterBackground(); });
    } else if (line == "foreground") {
        say("customer: comes back to the app");
        runtime.runOnMain([&] { runtime.lifecycle().enterForeground(); });
    } else if (line == "stop" || line == "take back") {
        const std::string title = line == "stop" ? "Stop" : "Take back control";
        say("customer: taps [" + title + "]");
        if (!runtime.runOnMain([&] { return runtime.overlay()->press(title); })) {
            say("customer: (there is no [" + title + "] on screen)");
        }
    } else if (line == "offline") {
        say("customer: loses the network for a moment");
        backend.dropConnection(deviceId);
    } else if (!line.empty()) {
        say(kCustomerHelp);
    }
}

}  // namespace

void playCustomerAtTerminal(virela::headless::Runtime& runtime,
                            const std::shared_ptr<SampleApp>& app,
                            virela::devserver::Server& backend, const std::string& deviceId,
                            const std::atomic<bool>& interrupted) {
    using namespace std::chrono_literals;
    say(kCustomerHelp);
    bool reading = true;
    std::string pending;
    while (!interrupted) {
        if (!reading) {
            std::this_thread::sleep_for(50ms);
            continue;
        }
        // Polled, so that Ctrl-C never waits for a line; read raw, so that no line waits in a
        // stream's buffer unseen by poll.
        pollfd input{STDIN_FILENO, POLLIN, 0};
        if (::poll(&input, 1, 100) <= 0) continue;
        char chunk[512];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            reading = false;
            continue;
        }
        pending.append(chunk, static_cast<std::size_t>(n));
        for (std::size_t end = pending.find('\n'); end != std::string::npos;
             end = pending.find('\n')) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
            act(line, runtime, app, backend, deviceId);
        }
    }
}

CustomerViewWriter::CustomerViewWriter(virela::headless::Runtime& runtime,
                                       std::filesystem::path outDir)
    : runtime_(runtime), outDir_(std::move(outDir)), thread_([this] { run(); }) {}

CustomerViewWriter::~CustomerViewWriter() {
    stopping_ = true;
    thread_.join();
}

void CustomerViewWriter::run() {
    using namespace std::chrono_literals;
    std::optional<std::string> written;
    while (!stopping_) {
        const std::optional<OverlayState> state =
            runtime_.runOnMain([this] { return runtime_.overlay()->state(); });
        const std::string now = signature(state);
        if (now != written) {
            const std::vector<std::uint8_t> png = runtime_.renderCustomerView();
            const std::filesystem::path partial = outDir_ / "customer-view.png.partial";
            std::ofstream file(partial, std::ios::binary | std::ios::trunc);
            file.write(reinterpret_cast<const char*>(png.data()),
                       static_cast<std::streamsize>(png.size()));
            file.close();
            std::error_code error;
            if (file && !png.empty()) std::filesystem::rename(partial, path(), error);
            written = now;
        }
        std::this_thread::sleep_for(150ms);
    }
}

}  // namespace demo
