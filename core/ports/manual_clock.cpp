#include "core/ports/manual_clock.hpp"

#include <algorithm>
#include <limits>

namespace virela {

struct ManualClock::State {
    struct Entry {
        std::uint64_t id;
        TimerId name;
        double due;
        double interval;  // 0 for one-shot work
        std::function<void()> work;
    };
    double now = 0;
    std::uint64_t nextId = 1;
    std::vector<Entry> entries;
    std::vector<double> delays;

    void remove(std::uint64_t id) {
        std::erase_if(entries, [id](const Entry& e) { return e.id == id; });
    }
};

namespace {
class ManualToken final : public VirelaCancellable {
  public:
    ManualToken(std::weak_ptr<ManualClock::State> state, std::uint64_t id)
        : state_(std::move(state)), id_(id) {}
    void cancel() override {
        if (auto state = state_.lock()) state->remove(id_);
    }

  private:
    std::weak_ptr<ManualClock::State> state_;
    std::uint64_t id_;
};
}  // namespace

ManualClock::ManualClock(double start) : state_(std::make_shared<State>()) {
    state_->now = start;
}
ManualClock::~ManualClock() = default;

std::shared_ptr<VirelaCancellable> ManualClock::after(TimerId name, double seconds,
                                                      std::function<void()> work) {
    state_->delays.push_back(seconds);
    auto id = state_->nextId++;
    state_->entries.push_back({id, name, state_->now + std::max(0.0, seconds), 0, std::move(work)});
    return std::make_shared<ManualToken>(state_, id);
}

std::shared_ptr<VirelaCancellable> ManualClock::every(TimerId name, double interval,
                                                      std::function<void()> work) {
    auto id = state_->nextId++;
    double step = std::max(interval, std::numeric_limits<double>::min());
    state_->entries.push_back({id, name, state_->now + step, step, std::move(work)});
    return std::make_shared<ManualToken>(state_, id);
}

void ManualClock::advance(double seconds) {
    const double end = state_->now + seconds;
    for (;;) {
        auto& entries = state_->entries;
        auto next =
            std::min_element(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
                return a.due < b.due || (a.due == b.due && a.id < b.id);
            });
        if (next == entries.end() || next->due > end) break;
        state_->now = next->due;
        std::function<void()> work = next->work;
        if (next->interval > 0) {
            next->due += next->interval;
        } else {
            entries.erase(next);
        }
        work();  // may schedule or cancel; iterators are re-derived each round
    }
    state_->now = end;
}

double ManualClock::now() const {
    return state_->now;
}
const std::vector<double>& ManualClock::requestedDelays() const {
    return state_->delays;
}
std::size_t ManualClock::pendingCount() const {
    return state_->entries.size();
}
bool ManualClock::isScheduled(TimerId id) const {
    return dueIn(id).has_value();
}
std::optional<double> ManualClock::dueIn(TimerId id) const {
    std::optional<double> soonest;
    for (const auto& e : state_->entries) {
        if (e.name == id && (!soonest || e.due - state_->now < *soonest))
            soonest = e.due - state_->now;
    }
    return soonest;
}

}  // namespace virela
