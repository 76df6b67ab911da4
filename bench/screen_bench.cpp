// The cost of what runs about three times a second on the main thread while a screen is
// shared: finding the redacted views of a window, and a whole capture (walk, draw, paint,
// encode) of a phone-sized screen.

#include <benchmark/benchmark.h>

#include <random>

#include "core/capture/capture.hpp"
#include "core/control/input_engine.hpp"
#include "core/control/windows.hpp"
#include "core/live/live_overlay.hpp"
#include "core/transport/transport.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/render/renderer.hpp"

namespace {

using namespace virela;
using namespace virela::headless;

class NullLog final : public Log {
  public:
    void write(LogLevel, std::string_view) override {}
};

// A screen of `views` views: nested containers with fan-out of about six, a third of them with
// an opaque background, `redacted` of them marked (spread evenly through the tree).
struct GeneratedScreen {
    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    std::shared_ptr<Window> window;

    GeneratedScreen(int views, int redacted) {
        window = makeAppWindow(*host, {390, 844});
        std::mt19937 rng(7);
        std::uniform_real_distribution<double> unit(0, 1);
        std::vector<View*> parents{window.get()};
        const int every = redacted > 0 ? views / redacted : views + 1;
        for (int i = 0; i < views; ++i) {
            View* parent = parents[static_cast<std::size_t>(i / 6) % parents.size()];
            const Rect area = parent->bounds();
            const double w = std::max(4.0, area.width * (0.2 + 0.6 * unit(rng)));
            const double h = std::max(4.0, area.height * (0.1 + 0.4 * unit(rng)));
            auto v = add(*parent,
                         view({(area.width - w) * unit(rng), (area.height - h) * unit(rng), w, h}));
            if (unit(rng) < 0.33) v->background = rgb(0xE5E1D4);
            v->clipsToBounds = unit(rng) < 0.2;
            if (i % every == every / 2) v->setVirelaRedacted(true);
            parents.push_back(v.get());
        }
    }
};

void redactionWalk(benchmark::State& state) {
    const auto views = static_cast<int>(state.range(0));
    GeneratedScreen screen(views, views / 100);
    const WindowFacts window = *screen.host->readWindow(screen.window->handle());
    RedactionFinder finder;
    std::size_t found = 0;
    for (auto _ : state) {
        found = finder.find(*screen.host, window).size();
        benchmark::DoNotOptimize(found);
    }
    state.counters["found"] = static_cast<double>(found);
    state.SetComplexityN(views);
}
BENCHMARK(redactionWalk)
    ->Arg(1000)
    ->Arg(3000)
    ->Arg(10000)
    ->Arg(30000)
    ->Complexity(benchmark::oN)
    ->Unit(benchmark::kMicrosecond);

// Baseline for redactionWalk: a visitor that descends into every view of the same tree and
// does nothing, so the ratio is what the rules add to reading the host.
void redactionWalkBaselineBareScan(benchmark::State& state) {
    const auto views = static_cast<int>(state.range(0));
    GeneratedScreen screen(views, views / 100);
    struct Nothing final : ViewVisitor {
        std::size_t seen = 0;
        bool visit(const ViewFacts&) override {
            ++seen;
            return true;
        }
    } visitor;
    for (auto _ : state) {
        visitor.seen = 0;
        screen.host->walkViews(screen.window->handle(), visitor);
        benchmark::DoNotOptimize(visitor.seen);
    }
    state.counters["visited"] = static_cast<double>(visitor.seen);
}
BENCHMARK(redactionWalkBaselineBareScan)
    ->Arg(1000)
    ->Arg(3000)
    ->Arg(10000)
    ->Arg(30000)
    ->Unit(benchmark::kMicrosecond);

// The same walk over facts read once and replayed: core's own share, without the cost of
// reading the headless host's view objects.
class ReplayHost final : public HostInterface {
  public:
    ReplayHost(HostInterface& source, HostHandle window) {
        struct Recorder final : ViewVisitor {
            std::vector<ViewFacts>* out;
            bool visit(const ViewFacts& v) override {
                out->push_back(v);
                return true;
            }
        } recorder;
        recorder.out = &facts_;
        source.walkViews(window, recorder);
    }
    void readScenes(std::vector<SceneFacts>& out) override { out.clear(); }
    std::optional<WindowFacts> readWindow(HostHandle) override { return std::nullopt; }
    void walkViews(HostHandle, ViewVisitor& visitor) override {
        // Depth first: skip a subtree whose root the visitor declines.
        for (std::size_t i = 0; i < facts_.size(); ++i) {
            if (visitor.visit(facts_[i])) continue;
            const auto depth = facts_[i].depth;
            while (i + 1 < facts_.size() && facts_[i + 1].depth > depth) ++i;
        }
    }
    std::unique_ptr<Subscription> observeWindowVisibility(
        std::function<void(HostHandle, bool)>) override {
        return nullptr;
    }

  private:
    std::vector<ViewFacts> facts_;  // marks point into the source's views, which outlive this
};

void redactionWalkCoreOnly(benchmark::State& state) {
    const auto views = static_cast<int>(state.range(0));
    GeneratedScreen screen(views, views / 100);
    const WindowFacts window = *screen.host->readWindow(screen.window->handle());
    ReplayHost replay(*screen.host, window.handle);
    RedactionFinder finder;
    for (auto _ : state) benchmark::DoNotOptimize(finder.find(replay, window).size());
    state.SetComplexityN(views);
}
BENCHMARK(redactionWalkCoreOnly)
    ->Arg(1000)
    ->Arg(3000)
    ->Arg(10000)
    ->Arg(30000)
    ->Complexity(benchmark::oN)
    ->Unit(benchmark::kMicrosecond);

// A remote tap through the ladder on the same kind of tree: hit-test, the locked test, the
// accessibility candidates under the point (every seventh view is an element that refuses),
// the menu-row lookup, and the activation of the one element that accepts.
void tapLadder(benchmark::State& state) {
    const auto views = static_cast<int>(state.range(0));
    GeneratedScreen screen(views - 1, 0);
    WindowRegistry registry{screen.host};
    int index = 0;
    std::vector<View*> pending{screen.window.get()};
    while (!pending.empty()) {
        View* v = pending.back();
        pending.pop_back();
        if (++index % 7 == 0) {
            v->isAccessibilityElement = true;
            v->onActivate = [] { return false; };
        }
        for (const auto& child : v->subviews()) pending.push_back(child.get());
    }
    auto target = add(*screen.window, view({180, 400, 40, 40}));
    target->isAccessibilityElement = true;
    int activations = 0;
    target->onActivate = [&] { return ++activations > 0; };
    InputEngine engine{{screen.host, screen.host->actions(), std::make_shared<NullLog>()},
                       registry};
    const WindowFacts window = *screen.host->readWindow(screen.window->handle());
    const ControlInputPush tap{.action = "tap", .x = 200 / 390.0, .y = 420 / 844.0};
    for (auto _ : state) benchmark::DoNotOptimize(engine.route(tap, window));
    if (activations == 0) state.SkipWithError("the tap activated nothing");
    state.SetComplexityN(views);
}
BENCHMARK(tapLadder)
    ->Arg(1000)
    ->Arg(10000)
    ->Complexity(benchmark::oN)
    ->Unit(benchmark::kMicrosecond);

// Baseline for tapLadder: a bare scan of a tree of the same size.
void tapLadderBaselineBareScan(benchmark::State& state) {
    redactionWalkBaselineBareScan(state);
}
BENCHMARK(tapLadderBaselineBareScan)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// A realistic 390 × 844 screen: a list of cards with labels and fields, a few redacted.
struct PhoneScreen {
    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    std::shared_ptr<Window> window = makeAppWindow(*host, {390, 844}, rgb(0xF3F0E6));
    WindowRegistry registry{host};
    ScreenCapture capture{registry, std::make_shared<HeadlessRenderer>(),
                          std::make_shared<NullLog>()};

    PhoneScreen() {
        add(*window, label({16, 56, 358, 32}, "Payment details"));
        auto list = add(*window, scrollView({0, 100, 390, 690}, {390, 2400}));
        for (int row = 0; row < 12; ++row) {
            auto card = add(*list, view({16, 12.0 + row * 96, 358, 84}, rgb(0xFFFFFF)));
            card->borderColor = rgb(0xE5E1D4);
            card->borderWidth = 1;
            add(*card, label({12, 8, 200, 20}, "Account " + std::to_string(row + 1)));
            auto field =
                add(*card, textField({12, 36, 334, 36}, "4111 1111 1111 1111", row % 4 == 0));
            if (row % 3 == 1) field->setVirelaRedacted(true);
        }
        add(*window, button({16, 796, 358, 40}, "Pay now"));
    }
};

// Walk, draw, paint and encode: PNG for a still, JPEG for a live frame.
void capture(benchmark::State& state, bool live) {
    PhoneScreen screen;
    std::size_t bytes = 0;
    for (auto _ : state) bytes = screen.capture.capture(live).size();
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK_CAPTURE(capture, still, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(capture, liveFrame, true)->Unit(benchmark::kMillisecond);

// One tick of live sharing as the main thread runs it: the check for a screen change under the
// agent's marks (the controller chain of a navigation stack with a modal on top), then the walk,
// draw, paint and JPEG encode, then the multipart body of the upload. Compare with
// capture/liveFrameBaselineJpegEncode.
void liveFrameTick(benchmark::State& state) {
    PhoneScreen screen;
    auto navigation =
        std::make_shared<ViewController>("UINavigationController", ControllerKind::navigation);
    navigation->children = {std::make_shared<ViewController>(), std::make_shared<ViewController>()};
    navigation->presented = std::make_shared<ViewController>();
    screen.window->rootViewController = navigation;
    Transport transport(*Url::parse("https://api.example.com"), "vk_bench", nullptr, nullptr);
    transport.setDeviceToken("tok-0123456789abcdef");
    std::size_t bytes = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            topScreen(*screen.host, screen.host->actions().reader.get(), screen.window->handle()));
        const std::vector<std::uint8_t> jpeg = screen.capture.capture(true);
        const auto request = transport.imageUploadRequest(
            "/v1/sdk/live/s-1/frame",
            std::string_view(reinterpret_cast<const char*>(jpeg.data()), jpeg.size()));
        bytes = request.body.size();
        benchmark::DoNotOptimize(request.body.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(liveFrameTick)->Name("capture/liveFrameTick")->Unit(benchmark::kMillisecond);

// Baseline for capture/liveFrame and capture/liveFrameTick: the JPEG encode alone of the very
// pixels a live frame draws, so the ratio is what walking, planning and drawing add to the encode.
void liveFrameBaselineJpegEncode(benchmark::State& state) {
    PhoneScreen screen;
    screen.capture.capture(true);
    HeadlessRenderer renderer;
    const Image pixels = renderer.draw(screen.capture.lastPlan());
    const double quality = screen.capture.lastPlan().jpegQuality;
    std::size_t bytes = 0;
    for (auto _ : state) bytes = encodeJpeg(pixels, quality).size();
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(liveFrameBaselineJpegEncode)
    ->Name("capture/liveFrameBaselineJpegEncode")
    ->Unit(benchmark::kMillisecond);

}  // namespace
