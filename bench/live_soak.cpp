// virela-live-soak: one live session against the local backend for a given time, three frames
// a second with the agent pointing now and then, to show that sharing does not grow the process.
// Not a test: it runs for minutes and prints what it measured.
//
//   build/rel/bench/virela-live-soak [--seconds N]    (default 600)
//
// Every ten seconds it prints the frames the backend received, the frames the device skipped
// (ticks that sent nothing), resident memory and open descriptors. At the end it prints their
// growth since the first minute, when buffers and connections have reached their working size.

#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "core/client/client.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace {

using namespace std::chrono_literals;
using namespace virela;
using Clock = std::chrono::steady_clock;

constexpr double kWarmUpSeconds = 60;
constexpr double kFramesPerSecond = 3;

long residentKiB() {
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    if (!statm) return -1;
    long pages = 0;
    long resident = 0;
    const int read = std::fscanf(statm, "%ld %ld", &pages, &resident);
    std::fclose(statm);
    return read == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

long openDescriptors() {
    std::error_code error;
    long count = 0;
    for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
         it.increment(error)) {
        ++count;
    }
    return error ? -1 : count;
}

std::optional<double> parseSeconds(int argc, char** argv) {
    double seconds = 600;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg != "--seconds" || i + 1 >= argc) return std::nullopt;
        const std::string_view value = argv[++i];
        const auto [end, error] =
            std::from_chars(value.data(), value.data() + value.size(), seconds);
        if (error != std::errc() || end != value.data() + value.size() || seconds <= 0) {
            return std::nullopt;
        }
    }
    return seconds;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<double> seconds = parseSeconds(argc, argv);
    if (!seconds) {
        std::fprintf(stderr, "usage: virela-live-soak [--seconds N]\n");
        return 2;
    }

    devserver::Options backendOptions;
    backendOptions.keepRequests = false;
    devserver::Server backend;
    backend.start(backendOptions);

    const auto stateDir =
        std::filesystem::temp_directory_path() / ("virela-soak-" + std::to_string(::getpid()));
    headless::RuntimeOptions runtimeOptions;
    runtimeOptions.stateDirectory = stateDir;
    auto runtime = std::make_unique<headless::Runtime>(runtimeOptions);

    std::shared_ptr<headless::View> clockLabel;
    auto client = runtime->runOnMain([&] {
        auto window = headless::makeAppWindow(*runtime->host(), {390, 844});
        headless::add(*window, headless::label({16, 60, 358, 32}, "Soak"));
        headless::add(*window, headless::textField({16, 120, 358, 44}, "hunter2", true));
        auto list = headless::add(*window, headless::scrollView({0, 180, 390, 600}, {390, 2400}));
        for (int row = 0; row < 20; ++row) {
            headless::add(*list, headless::label({16, 12.0 + row * 40, 358, 28},
                                                 "Row " + std::to_string(row + 1)));
        }
        clockLabel = headless::add(*window, headless::label({16, 790, 358, 32}, "0"));
        return VirelaClient::create(runtime->platform());
    });

    std::promise<std::exception_ptr> configured;
    runtime->runOnMain([&] {
        client->configure(*Url::parse(backend.url()), "vk_demo_local", std::nullopt, false,
                          [&](std::exception_ptr e) { configured.set_value(e); });
    });
    if (configured.get_future().get()) {
        std::fprintf(stderr, "soak: configure failed\n");
        return 1;
    }
    const std::string deviceId =
        runtime->runOnMain([&] { return client->registration()->deviceId; });
    if (!backend.waitForConnection(deviceId, 10s)) {
        std::fprintf(stderr, "soak: the device did not connect\n");
        return 1;
    }

    const std::string sessionId = "soak-1";
    if (!backend.activateLive(deviceId, sessionId, "g1")) {
        std::fprintf(stderr, "soak: could not start the live session\n");
        return 1;
    }
    std::printf("soak: sharing for %.0f s at %.0f frames a second\n", *seconds, kFramesPerSecond);
    std::fflush(stdout);

    const auto start = Clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    auto frames = [&] {
        const auto record = backend.liveSession(sessionId);
        return record ? record->frames : std::size_t{0};
    };
    long baseMemory = -1;
    long baseDescriptors = -1;
    std::size_t baseFrames = 0;
    double baseTime = 0;
    int tick = 0;
    for (double now = 0; now < *seconds; now = elapsed()) {
        std::this_thread::sleep_for(500ms);
        ++tick;
        runtime->runOnMain([&] {
            clockLabel->text = std::to_string(tick);  // every frame shows something new
        });
        if (tick % 4 == 0) {
            devserver::Guide guide;
            guide.kind = tick % 8 == 0 ? "box" : "laser";
            guide.x = 0.1 + 0.05 * (tick % 16);
            guide.y = 0.4;
            backend.sendGuide(deviceId, sessionId, guide);
        }
        if (tick % 20 != 0) continue;
        now = elapsed();
        const std::size_t received = frames();
        const double expected = now * kFramesPerSecond;
        const long memory = residentKiB();
        const long descriptors = openDescriptors();
        std::printf(
            "soak: %4.0f s  frames %zu  skipped %.0f  rss %ld KiB  fds %ld\n", now, received,
            expected > static_cast<double>(received) ? expected - static_cast<double>(received)
                                                     : 0.0,
            memory, descriptors);
        std::fflush(stdout);
        if (baseMemory < 0 && now >= std::min(kWarmUpSeconds, *seconds / 2)) {
            baseMemory = memory;
            baseDescriptors = descriptors;
            baseFrames = received;
            baseTime = now;
        }
    }

    const double total = elapsed();
    const std::size_t received = frames();
    const double expected = total * kFramesPerSecond;
    std::printf(
        "soak: frames sent %zu, skipped %.0f of %.0f ticks\n", received,
        expected > static_cast<double>(received) ? expected - static_cast<double>(received) : 0.0,
        expected);
    if (baseMemory >= 0) {
        std::printf(
            "soak: after the warm-up (%.0f s, %zu frames): resident memory %+ld KiB, open "
            "descriptors %+ld\n",
            baseTime, received - baseFrames, residentKiB() - baseMemory,
            openDescriptors() - baseDescriptors);
    }
    std::fflush(stdout);

    backend.endLive(deviceId, sessionId);
    runtime->runOnMain([&] { client->stop(); });
    runtime->runOnMain([&] { client.reset(); });
    runtime.reset();
    backend.stop();
    std::filesystem::remove_all(stateDir);
    return 0;
}
