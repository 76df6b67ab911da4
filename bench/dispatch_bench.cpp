// Realtime frames decoded and routed to their flows per second, over a mix of every kind of
// push (including a few that are dropped).

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/client/client.hpp"
#include "core/ports/platform.hpp"
#include "tests/support/queue_executor.hpp"

namespace virela {
namespace {

using testing::QueueExecutor;

const std::vector<std::string>& mixedFrames() {
    static const std::vector<std::string> frames{
        R"({"type":"consent","payload":{"requestId":"req-1","mode":"AskEveryTime","consentCopy":"{company} would like a screenshot.","promptId":"p-1","agentName":"Sam","workspaceName":"Acme","logoUrl":"https://cdn.example.com/logo.png","expiresAt":"2026-11-21T10:00:00Z"}})",
        R"({"type":"capture","payload":{"requestId":"req-3"}})",
        R"({"type":"live","payload":{"sessionId":"live-1","state":"active","generation":"4"}})",
        R"({"type":"live-note","payload":{"sessionId":"live-1","kind":"frameSaved","generation":"5"}})",
        R"({"type":"guide","payload":{"sessionId":"live-1","kind":"laser","x":0.42,"y":0.61}})",
        R"({"type":"guide","payload":{"sessionId":"live-1","kind":"arrow","x":0.1,"y":0.2,"x2":0.8,"y2":0.9,"color":"#FF3B30"}})",
        R"({"type":"control","payload":{"sessionId":"live-1","state":"active","generation":"9"}})",
        R"({"type":"control-input","payload":{"sessionId":"live-1","action":"tap","x":120.5,"y":300}})",
        R"({"type":"control-input","payload":{"sessionId":"live-1","action":"scroll","dx":0,"dy":-40}})",
        R"({"type":"session","payload":{"state":"ended"}})",
        R"({"type":"expired","payload":{}})",
        R"({"type":"live-note","payload":{"sessionId":"live-1","kind":"frameSaved","generation":5}})",
    };
    return frames;
}

void BM_DispatchMixedFrames(benchmark::State& state) {
    auto executor = std::make_shared<QueueExecutor>();
    auto platform = std::make_shared<Platform>();
    platform->main = executor;
    // The flows find no screen here, so each push costs its decoding and its routing.
    auto client = VirelaClient::create(platform);
    std::size_t routed = 0;
    client->channel().setEvents({.onPush = [&routed](const Push&) { ++routed; }});
    const auto& frames = mixedFrames();
    std::size_t i = 0;
    for (auto _ : state) {
        client->channel().dispatch(frames[i]);
        executor->drain();
        if (++i == frames.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["routed"] = static_cast<double>(routed);
}
BENCHMARK(BM_DispatchMixedFrames);

// Baseline: a plain JSON parse of the same frames, so BM_DispatchMixedFrames over this is what
// decoding into records and routing add to parsing.
void BM_DispatchMixedFramesBaselineJsonParse(benchmark::State& state) {
    const auto& frames = mixedFrames();
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(nlohmann::json::parse(frames[i], nullptr, false));
        if (++i == frames.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DispatchMixedFramesBaselineJsonParse);

// Decoding into records without routing: between the two above.
void BM_DecodeOnly(benchmark::State& state) {
    const auto& frames = mixedFrames();
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(decodePush(frames[i]));
        if (++i == frames.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeOnly);

}  // namespace
}  // namespace virela
