#pragma once

#include <deque>
#include <functional>
#include <memory>

#include "core/ports/platform.hpp"

namespace virela::testing {

// A main executor for single-threaded drivers (benchmarks, fuzz targets): work waits in a queue
// until drain(); delayed work never runs.
class QueueExecutor final : public MainExecutor {
  public:
    void post(std::function<void()> work) override { queue_.push_back(std::move(work)); }
    std::shared_ptr<VirelaCancellable> postAfter(double, std::function<void()>) override {
        return nullptr;
    }
    std::shared_ptr<VirelaCancellable> repeat(double, std::function<void()>) override {
        return nullptr;
    }
    bool isCurrent() const override { return true; }
    void postBackground(std::function<void()> work) override { post(std::move(work)); }
    void drain() {
        while (!queue_.empty()) {
            auto work = std::move(queue_.front());
            queue_.pop_front();
            work();
        }
    }

  private:
    std::deque<std::function<void()>> queue_;
};

}  // namespace virela::testing
