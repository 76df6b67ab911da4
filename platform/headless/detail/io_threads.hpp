#pragma once

// Internal: an io_context driven by a fixed set of named threads. Only .cpp files of the headless
// platform include this header, so Asio stays out of the public ones.

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace virela::headless::detail {

class TimerSet;

// The threads keep the object alive while they run, so even a shutdown() issued from one of its
// own threads (for example when the last owner is released inside a handler) cannot destroy the
// io_context under a running thread.
class IoThreads : public std::enable_shared_from_this<IoThreads> {
  public:
    static std::shared_ptr<IoThreads> start(std::string name, int threadCount);
    ~IoThreads();

    IoThreads(const IoThreads&) = delete;
    IoThreads& operator=(const IoThreads&) = delete;

    boost::asio::io_context& context() noexcept { return io_; }
    bool stopped() const noexcept { return stopped_.load(std::memory_order_acquire); }
    bool runsCurrentThread() const;

    // Stops the loop, joins the threads (a thread calling this on itself is detached instead)
    // and clears every registered timer set, which releases the work they hold. Idempotent.
    void shutdown();
    // After shutdown() has joined the threads: destroys every handler still queued, unrun, so
    // that what they hold is released now. A handler that holds what holds this loop would
    // otherwise keep both alive for ever. Does nothing on a loop thread.
    void dropPending();

    // Timer sets on this loop; shutdown() clears the ones still alive.
    void track(const std::shared_ptr<TimerSet>& timers);

  private:
    IoThreads(std::string name, int threadCount);
    void run();

    // An io_context whose services can be shut down before it is destroyed.
    class Context : public boost::asio::io_context {
      public:
        using io_context::io_context;
        void dropPending() { shutdown(); }
    };
    mutable Context io_;  // get_executor() is not const
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> guard_;
    std::string name_;
    int threadCount_;
    std::atomic<bool> stopped_{false};
    std::mutex mutex_;
    std::vector<std::thread> threads_;
    std::vector<std::weak_ptr<TimerSet>> timerSets_;
};

}  // namespace virela::headless::detail
