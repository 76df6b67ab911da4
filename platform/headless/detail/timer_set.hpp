#pragma once

// Internal: delayed and repeating work on one Asio executor (the main loop, or a strand of the
// worker pool). Entries are only touched on that executor.

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "core/ports/platform.hpp"
#include "platform/headless/detail/io_threads.hpp"

namespace virela::headless::detail {

// Clamps a delay in seconds from the ports (possibly negative, NaN or huge) to a duration.
std::chrono::steady_clock::duration toDuration(double seconds, double minimumSeconds);

class TimerSet : public std::enable_shared_from_this<TimerSet> {
  public:
    // `threads` owns the io_context behind `executor`; holding it keeps the timers valid.
    static std::shared_ptr<TimerSet> create(const std::shared_ptr<IoThreads>& threads,
                                            boost::asio::any_io_executor executor);

    std::shared_ptr<VirelaCancellable> once(double seconds, std::function<void()> work);
    std::shared_ptr<VirelaCancellable> every(double interval, std::function<void()> work);

    // Drops every entry. Only while nothing runs the executor (after its threads are joined).
    void clearStopped();

  private:
    using Clock = std::chrono::steady_clock;
    struct Entry;
    class Handle;

    TimerSet(std::shared_ptr<IoThreads> threads, boost::asio::any_io_executor executor);
    std::shared_ptr<VirelaCancellable> schedule(Clock::duration delay, Clock::duration interval,
                                                std::function<void()> work);
    void arm(std::uint64_t id, Entry& entry);
    void fired(std::uint64_t id);

    std::shared_ptr<IoThreads> threads_;
    boost::asio::any_io_executor executor_;
    std::atomic<std::uint64_t> nextId_{1};
    std::unordered_map<std::uint64_t, std::unique_ptr<Entry>> entries_;
};

}  // namespace virela::headless::detail
