#include "platform/headless/detail/timer_set.hpp"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <cmath>

namespace virela::headless::detail {

namespace asio = boost::asio;

std::chrono::steady_clock::duration toDuration(double seconds, double minimumSeconds) {
    // About 30 years: far enough to mean "never", small enough not to overflow the clock.
    constexpr double kLongest = 1e9;
    if (std::isnan(seconds)) seconds = minimumSeconds;
    seconds = std::clamp(seconds, minimumSeconds, kLongest);  // also takes care of infinities
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

struct TimerSet::Entry {
    Entry(const asio::any_io_executor& executor, std::shared_ptr<std::function<void()>> w,
          Clock::duration every, Clock::time_point at, std::shared_ptr<std::atomic<bool>> flag)
        : timer(executor),
          work(std::move(w)),
          interval(every),
          due(at),
          cancelled(std::move(flag)) {}
    asio::steady_timer timer;
    std::shared_ptr<std::function<void()>> work;
    Clock::duration interval;  // zero for one-shot work
    Clock::time_point due;
    std::shared_ptr<std::atomic<bool>> cancelled;
};

// Dropping the handle leaves the work scheduled; only cancel() stops it.
class TimerSet::Handle final : public VirelaCancellable {
  public:
    Handle(std::weak_ptr<TimerSet> set, std::uint64_t id, std::shared_ptr<std::atomic<bool>> flag)
        : set_(std::move(set)), id_(id), cancelled_(std::move(flag)) {}

    void cancel() override {
        // The flag alone guarantees the work never starts; removing the entry on the executor
        // releases the closure promptly.
        if (cancelled_->exchange(true)) return;
        auto set = set_.lock();
        if (!set || set->threads_->stopped()) return;
        asio::post(set->executor_, [weak = set_, id = id_] {
            if (auto s = weak.lock()) s->entries_.erase(id);
        });
    }

  private:
    std::weak_ptr<TimerSet> set_;
    std::uint64_t id_;
    std::shared_ptr<std::atomic<bool>> cancelled_;
};

std::shared_ptr<TimerSet> TimerSet::create(const std::shared_ptr<IoThreads>& threads,
                                           asio::any_io_executor executor) {
    auto set = std::shared_ptr<TimerSet>(new TimerSet(threads, std::move(executor)));
    threads->track(set);
    return set;
}

TimerSet::TimerSet(std::shared_ptr<IoThreads> threads, asio::any_io_executor executor)
    : threads_(std::move(threads)), executor_(std::move(executor)) {}

std::shared_ptr<VirelaCancellable> TimerSet::once(double seconds, std::function<void()> work) {
    return schedule(toDuration(seconds, 0.0), Clock::duration::zero(), std::move(work));
}

std::shared_ptr<VirelaCancellable> TimerSet::every(double interval, std::function<void()> work) {
    // A zero or negative interval would spin the loop; one millisecond is the floor.
    auto step = toDuration(interval, 0.001);
    return schedule(step, step, std::move(work));
}

std::shared_ptr<VirelaCancellable> TimerSet::schedule(Clock::duration delay,
                                                      Clock::duration interval,
                                                      std::function<void()> work) {
    auto id = nextId_.fetch_add(1);
    auto flag = std::make_shared<std::atomic<bool>>(false);
    auto handle = std::make_unique<Handle>(weak_from_this(), id, flag);
    if (!work || threads_->stopped()) {
        flag->store(true);
        return handle;
    }
    // The due time counts from now, even when the entry is created later on the executor.
    auto due = Clock::now() + delay;
    asio::dispatch(executor_, [weak = weak_from_this(), id, interval, due, flag,
                               w = std::make_shared<std::function<void()>>(std::move(work))]() {
        auto self = weak.lock();
        if (!self || flag->load()) return;
        auto entry = std::make_unique<Entry>(self->executor_, w, interval, due, flag);
        auto& ref = *entry;
        self->entries_.emplace(id, std::move(entry));
        self->arm(id, ref);
    });
    return handle;
}

void TimerSet::arm(std::uint64_t id, Entry& entry) {
    entry.timer.expires_at(entry.due);
    entry.timer.async_wait([weak = weak_from_this(), id](boost::system::error_code ec) {
        if (ec) return;  // cancelled: the entry is gone or going
        if (auto self = weak.lock()) self->fired(id);
    });
}

void TimerSet::fired(std::uint64_t id) {
    auto it = entries_.find(id);
    if (it == entries_.end()) return;
    Entry& entry = *it->second;
    if (entry.cancelled->load()) {
        entries_.erase(it);
        return;
    }
    // Keep the closure alive locally: the work may cancel its own handle.
    auto work = entry.work;
    if (entry.interval == Clock::duration::zero()) {
        entries_.erase(it);
        (*work)();
        return;
    }
    // Schedule the next tick before running this one, on the original grid so that ticks do
    // not drift; ticks missed while the loop was busy are skipped, not replayed.
    auto now = Clock::now();
    entry.due += entry.interval;
    if (entry.due <= now) entry.due += ((now - entry.due) / entry.interval + 1) * entry.interval;
    arm(id, entry);
    (*work)();
}

void TimerSet::clearStopped() {
    entries_.clear();
}

}  // namespace virela::headless::detail
