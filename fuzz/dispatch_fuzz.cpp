// Arbitrary bytes as realtime frames: decoding and routing must never crash, and a frame either
// reaches its handler or is dropped.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string_view>

#include "core/client/client.hpp"
#include "core/client/platform.hpp"

namespace {

using namespace virela;

class QueueExecutor final : public MainExecutor {
  public:
    void post(std::function<void()> work) override { queue.push_back(std::move(work)); }
    std::unique_ptr<ScheduledWork> postAfter(double, std::function<void()>) override {
        return nullptr;
    }
    std::unique_ptr<ScheduledWork> repeat(double, std::function<void()>) override {
        return nullptr;
    }
    bool isCurrent() const override { return true; }
    void postBackground(std::function<void()> work) override { post(std::move(work)); }
    void drain() {
        while (!queue.empty()) {
            auto work = std::move(queue.front());
            queue.pop_front();
            work();
        }
    }
    std::deque<std::function<void()>> queue;
};

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
    fixture.client->dispatch(std::string_view(reinterpret_cast<const char*>(data), size));
    fixture.executor->drain();
    return 0;
}
