// virela-live-soak: one live session against the local backend for a given time, three frames
// a second with the agent pointing now and then, to show that sharing does not grow the process.
// Not a test: it runs for minutes and prints what it measured.
//
//   build/rel/bench/virela-live-soak [--seconds N] [--stall-seconds S]    (default 600, 0)
//
// Every ten seconds it prints the frames the backend received, the frames the device skipped
// (ticks that sent nothing), resident memory and open descriptors. At the end it prints their
// growth since the first minute, when buffers and connections have reached their working size.
//
// With --stall-seconds the backend stops answering frame uploads ten seconds into sharing for S
// seconds, then recovers. The program prints the most uploads the device had in flight, the
// peak resident memory, and how long after the recovery the agent's picture moved again.

#include <unistd.h>

#include <algorithm>
#include <atomic>
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
constexpr double kStallStartSeconds = 10;

// The platform's HTTP client, counting the requests it has out.
class CountingHttp final : public HttpClient {
  public:
    explicit CountingHttp(std::shared_ptr<HttpClient> inner) : inner_(std::move(inner)) {}
    std::shared_ptr<VirelaCancellable> send(HttpRequest request,
                                            std::function<void(HttpOutcome)> done) override {
        const int now = ++state_->inFlight;
        int peak = state_->peak.load();
        while (now > peak && !state_->peak.compare_exchange_weak(peak, now)) {
        }
        return inner_->send(std::move(request),
                            [state = state_, done = std::move(done)](HttpOutcome outcome) {
                                --state->inFlight;
                                done(std::move(outcome));
                            });
    }
    int peak() const { return state_->peak.load(); }

  private:
    struct State {
        std::atomic<int> inFlight{0};
        std::atomic<int> peak{0};
    };
    std::shared_ptr<HttpClient> inner_;
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

// The process's peak resident memory (VmHWM), or -1.
long peakResidentKiB() {
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return -1;
    char line[256];
    long peak = -1;
    while (std::fgets(line, sizeof line, status)) {
        if (std::sscanf(line, "VmHWM: %ld kB", &peak) == 1) break;
    }
    std::fclose(status);
    return peak;
}

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

struct SoakOptions {
    double seconds = 600;
    double stallSeconds = 0;
};

std::optional<SoakOptions> parseOptions(int argc, char** argv) {
    SoakOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        double* target = arg == "--seconds"         ? &options.seconds
                         : arg == "--stall-seconds" ? &options.stallSeconds
                                                    : nullptr;
        if (!target || i + 1 >= argc) return std::nullopt;
        const std::string_view value = argv[++i];
        const auto [end, error] =
            std::from_chars(value.data(), value.data() + value.size(), *target);
        if (error != std::errc() || end != value.data() + value.size() || *target < 0) {
            return std::nullopt;
        }
    }
    if (options.seconds <= 0) return std::nullopt;
    // The recovery needs time to show after the stall.
    if (options.stallSeconds > 0) {
        options.seconds = std::max(options.seconds, kStallStartSeconds + options.stallSeconds + 10);
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<SoakOptions> options = parseOptions(argc, argv);
    if (!options) {
        std::fprintf(stderr, "usage: virela-live-soak [--seconds N] [--stall-seconds S]\n");
        return 2;
    }
    const double seconds = options->seconds;

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
    std::shared_ptr<CountingHttp> http;
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
        auto platform = std::make_shared<Platform>(*runtime->platform());
        http = std::make_shared<CountingHttp>(platform->http);
        platform->http = http;
        return VirelaClient::create(platform);
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
    std::printf("soak: sharing for %.0f s at %.0f frames a second\n", seconds, kFramesPerSecond);
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
    std::optional<double> stallEnd;
    std::optional<double> recovery;
    for (double now = 0; now < seconds; now = elapsed()) {
        std::this_thread::sleep_for(500ms);
        if (options->stallSeconds > 0 && !stallEnd && elapsed() >= kStallStartSeconds) {
            backend.stallFrames(
                std::chrono::milliseconds(static_cast<long long>(options->stallSeconds * 1000)));
            stallEnd = elapsed() + options->stallSeconds;
            std::printf("soak: the backend stalls frame uploads for %.0f s\n",
                        options->stallSeconds);
            std::fflush(stdout);
        }
        if (stallEnd && !recovery && elapsed() >= *stallEnd - 0.6) {
            // Watch closely from the moment the backend answers again.
            while (elapsed() < *stallEnd) std::this_thread::sleep_for(1ms);
            const std::size_t before = frames();
            const double recovered = elapsed();
            while (frames() == before && elapsed() - recovered < 30) {
                std::this_thread::sleep_for(5ms);
            }
            recovery = elapsed() - recovered;
            std::printf("soak: the backend answers again; the picture moved after %.3f s\n",
                        *recovery);
            std::fflush(stdout);
        }
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
        if (baseMemory < 0 && now >= std::min(kWarmUpSeconds, seconds / 2)) {
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

    if (stallEnd) {
        std::printf(
            "soak: stall of %.0f s: most uploads in flight %d, peak resident memory %ld KiB, "
            "picture moved %.3f s after the recovery\n",
            options->stallSeconds, http->peak(), peakResidentKiB(), recovery.value_or(-1));
        std::fflush(stdout);
    }

    backend.endLive(deviceId, sessionId);
    runtime->runOnMain([&] { client->stop(); });
    runtime->runOnMain([&] { client.reset(); });
    runtime.reset();
    backend.stop();
    std::filesystem::remove_all(stateDir);
    return 0;
}
