// Request building: the JSON registration body and the multipart upload of a capture-sized PNG.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "core/registration/registration_body.hpp"
#include "core/transport/transport.hpp"

namespace virela {
namespace {

Transport makeTransport() {
    Transport transport(*Url::parse("https://api.example.com"), "vk_bench", nullptr, nullptr);
    transport.setDeviceToken("tok-0123456789abcdef");
    return transport;
}

RegistrationFacts sampleFacts() {
    RegistrationFacts facts;
    facts.model = "iPhone";
    facts.os = "iOS 17.2";
    facts.language = "en_GB";
    facts.appVersion = "4.2.0";
    facts.screenSize = screenSizeText(1170, 2532);
    facts.appId = "com.example.shop";
    facts.installId = "8A1F3C2E-5B7D-4E9A-9C1B-2D3E4F5A6B7C";
    facts.health.modelIdentifier = "iPhone15,2";
    facts.health.battery = "85%";
    facts.health.network = "Wi-Fi";
    facts.health.storage = "12.3 GB free";
    facts.health.accessibility = "";
    return facts;
}

void BM_RegistrationRequest(benchmark::State& state) {
    const Transport transport = makeTransport();
    const RegistrationFacts facts = sampleFacts();
    const VirelaUser user("user-42", "Ana");
    for (auto _ : state) {
        auto request =
            transport.jsonRequest("/v1/sdk/devices", registrationBody(user, facts), true);
        benchmark::DoNotOptimize(request.body.data());
    }
}
BENCHMARK(BM_RegistrationRequest);

void BM_MultipartUpload(benchmark::State& state) {
    const Transport transport = makeTransport();
    const std::string png(static_cast<std::size_t>(state.range(0)), '\x5a');
    for (auto _ : state) {
        auto request = transport.imageUploadRequest("/v1/sdk/captures/req-1/upload", png);
        benchmark::DoNotOptimize(request.body.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_MultipartUpload)->Arg(64 << 10)->Arg(1 << 20)->Arg(4 << 20);

// Baseline for BM_MultipartUpload: a plain copy of the same bytes into a fresh string, so the
// ratio is what framing the part and the headers add to copying the image once.
void BM_MultipartUploadBaselineCopy(benchmark::State& state) {
    const std::string png(static_cast<std::size_t>(state.range(0)), '\x5a');
    for (auto _ : state) {
        std::string copy(png);
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_MultipartUploadBaselineCopy)->Arg(64 << 10)->Arg(1 << 20)->Arg(4 << 20);

}  // namespace
}  // namespace virela

BENCHMARK_MAIN();
