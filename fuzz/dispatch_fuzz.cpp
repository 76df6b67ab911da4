// Arbitrary bytes as realtime frames: decoding and routing must never crash, and a frame either
// reaches its handler or is dropped.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "core/client/client.hpp"
#include "core/ports/platform.hpp"
#include "tests/support/queue_executor.hpp"

namespace {

using namespace virela;

using testing::QueueExecutor;

struct Fixture {
    std::shared_ptr<QueueExecutor> executor = std::make_shared<QueueExecutor>();
    std::shared_ptr<VirelaClient> client;
    Fixture() {
        auto platform = std::make_shared<Platform>();
        platform->main = executor;
        client = VirelaClient::create(platform);
        client->setCallbacks({.onDenied = [] {}, .onExpired = [] {}});
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Fixture fixture;
    fixture.client->channel().dispatch(std::string_view(reinterpret_cast<const char*>(data), size));
    fixture.executor->drain();
    return 0;
}
