#include "platform/headless/detail/io_threads.hpp"

#include <pthread.h>

#include <algorithm>
#include <exception>

#include "platform/headless/detail/timer_set.hpp"
#include "platform/headless/stderr_log.hpp"

namespace virela::headless::detail {

std::shared_ptr<IoThreads> IoThreads::start(std::string name, int threadCount) {
    std::shared_ptr<IoThreads> self(new IoThreads(std::move(name), std::max(threadCount, 1)));
    std::lock_guard lock(self->mutex_);
    for (int i = 0; i < self->threadCount_; ++i) {
        self->threads_.emplace_back([keep = self] { keep->run(); });
    }
    return self;
}

IoThreads::IoThreads(std::string name, int threadCount)
    : guard_(boost::asio::make_work_guard(io_)),
      name_(std::move(name)),
      threadCount_(threadCount) {}

IoThreads::~IoThreads() {
    // Threads hold a reference while they run, so by now they have all finished.
    for (auto& thread : threads_) {
        if (thread.joinable()) thread.detach();
    }
}

bool IoThreads::runsCurrentThread() const {
    return io_.get_executor().running_in_this_thread();
}

void IoThreads::run() {
    // Linux limits thread names to 15 characters.
    pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
    for (;;) {
        try {
            io_.run();
            return;
        } catch (const std::exception& e) {
            writeStderrLine(LogLevel::error,
                            "uncaught exception on thread " + name_ + ": " + e.what());
        } catch (...) {
            writeStderrLine(LogLevel::error, "uncaught exception on thread " + name_);
        }
    }
}

void IoThreads::shutdown() {
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(mutex_);
        if (stopped_.exchange(true, std::memory_order_acq_rel)) return;
        guard_.reset();
        io_.stop();
        threads.swap(threads_);
    }
    bool selfJoin = false;
    for (auto& thread : threads) {
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
            selfJoin = true;
        } else {
            thread.join();
        }
    }
    // A thread shutting down its own loop is still inside a handler; the timers stay until the
    // io_context goes, which the thread's own reference delays until it has returned.
    if (selfJoin) return;
    std::vector<std::weak_ptr<TimerSet>> sets;
    {
        std::lock_guard lock(mutex_);
        sets.swap(timerSets_);
    }
    for (auto& weak : sets) {
        if (auto timers = weak.lock()) timers->clearStopped();
    }
}

void IoThreads::dropPending() {
    if (!stopped() || runsCurrentThread()) return;
    io_.dropPending();
}

void IoThreads::track(const std::shared_ptr<TimerSet>& timers) {
    std::lock_guard lock(mutex_);
    std::erase_if(timerSets_, [](const std::weak_ptr<TimerSet>& w) { return w.expired(); });
    timerSets_.push_back(timers);
}

}  // namespace virela::headless::detail
