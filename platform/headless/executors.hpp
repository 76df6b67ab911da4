#pragma once

// The headless threads: a main loop on a thread named "main", and a small worker pool for
// background work and serial queues. Asio stays behind the pimpl.

#include <functional>
#include <memory>
#include <string>

#include "core/ports/platform.hpp"

namespace virela::headless {

// A few worker threads. post() runs work on any of them; each serial queue is a strand on them.
class WorkerPool {
  public:
    explicit WorkerPool(int threadCount = 2, std::string threadName = "virela-worker");
    ~WorkerPool();  // shutdown()

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void post(std::function<void()> work);
    std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label);

    // Stops and joins the threads; queued work that has not started is dropped. Later posts are
    // dropped too. Idempotent.
    void shutdown();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The MainExecutor port. Work posted from one thread runs in order; isCurrent() is true only
// on the loop's own thread. Dropping a token does not cancel it.
class MainLoop final : public MainExecutor {
  public:
    // Background work goes to `background`.
    explicit MainLoop(std::shared_ptr<WorkerPool> background);
    ~MainLoop() override;  // shutdown()

    void post(std::function<void()> work) override;
    std::shared_ptr<VirelaCancellable> postAfter(double seconds,
                                                 std::function<void()> work) override;
    std::shared_ptr<VirelaCancellable> repeat(double interval, std::function<void()> work) override;
    bool isCurrent() const override;
    void postBackground(std::function<void()> work) override;

    // Stops and joins the main thread; pending work never runs and later posts are dropped.
    // Called on the main thread, the loop ends once the current work returns. Idempotent.
    void shutdown();
    bool stopped() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace virela::headless
