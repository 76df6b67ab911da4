#include "platform/headless/executors.hpp"

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include "platform/headless/detail/io_threads.hpp"
#include "platform/headless/detail/timer_set.hpp"

namespace virela::headless {

namespace asio = boost::asio;
using detail::IoThreads;
using detail::TimerSet;

namespace {

class StrandQueue final : public SerialQueue {
  public:
    StrandQueue(std::shared_ptr<IoThreads> threads, std::string label)
        : threads_(std::move(threads)),
          strand_(asio::make_strand(threads_->context())),
          timers_(TimerSet::create(threads_, strand_)),
          label_(std::move(label)) {}

    void post(std::function<void()> work) override {
        if (!work || threads_->stopped()) return;
        asio::post(strand_, std::move(work));
    }

    std::shared_ptr<VirelaCancellable> postAfter(double seconds,
                                                 std::function<void()> work) override {
        return timers_->once(seconds, std::move(work));
    }

  private:
    std::shared_ptr<IoThreads> threads_;  // outlives the strand and the timers below
    asio::strand<asio::io_context::executor_type> strand_;
    std::shared_ptr<TimerSet> timers_;
    std::string label_;  // kept for debugging sessions
};

}  // namespace

struct WorkerPool::Impl {
    std::shared_ptr<IoThreads> threads;
};

WorkerPool::WorkerPool(int threadCount, std::string threadName)
    : impl_(std::make_unique<Impl>(Impl{IoThreads::start(std::move(threadName), threadCount)})) {}

WorkerPool::~WorkerPool() {
    shutdown();
}

void WorkerPool::post(std::function<void()> work) {
    if (!work || impl_->threads->stopped()) return;
    asio::post(impl_->threads->context(), std::move(work));
}

std::shared_ptr<SerialQueue> WorkerPool::makeSerialQueue(const std::string& label) {
    return std::make_shared<StrandQueue>(impl_->threads, label);
}

void WorkerPool::shutdown() {
    impl_->threads->shutdown();
    // Work still queued (a probe's timer holding its own queue) would keep the pool alive.
    impl_->threads->dropPending();
}

struct MainLoop::Impl {
    std::shared_ptr<WorkerPool> background;
    std::shared_ptr<IoThreads> threads;
    std::shared_ptr<TimerSet> timers;
};

MainLoop::MainLoop(std::shared_ptr<WorkerPool> background) : impl_(std::make_unique<Impl>()) {
    impl_->background = std::move(background);
    impl_->threads = IoThreads::start("main", 1);
    impl_->timers = TimerSet::create(impl_->threads, impl_->threads->context().get_executor());
}

MainLoop::~MainLoop() {
    shutdown();
}

void MainLoop::post(std::function<void()> work) {
    if (!work || impl_->threads->stopped()) return;
    asio::post(impl_->threads->context(), std::move(work));
}

std::shared_ptr<VirelaCancellable> MainLoop::postAfter(double seconds, std::function<void()> work) {
    return impl_->timers->once(seconds, std::move(work));
}

std::shared_ptr<VirelaCancellable> MainLoop::repeat(double interval, std::function<void()> work) {
    return impl_->timers->every(interval, std::move(work));
}

bool MainLoop::isCurrent() const {
    return impl_->threads->runsCurrentThread();
}

void MainLoop::postBackground(std::function<void()> work) {
    if (impl_->background) impl_->background->post(std::move(work));
}

void MainLoop::shutdown() {
    impl_->threads->shutdown();
    // A completion posted to main just before it stopped (a health probe's answer holding the
    // loop it is posted to) would keep the loop and all it reaches alive for ever.
    impl_->threads->dropPending();
}

bool MainLoop::stopped() const {
    return impl_->threads->stopped();
}

}  // namespace virela::headless
