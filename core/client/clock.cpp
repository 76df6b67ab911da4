#include "core/client/clock.hpp"

#include <chrono>

#include "core/client/platform.hpp"

namespace virela {

WorkItemToken::WorkItemToken(std::unique_ptr<ScheduledWork> item) : item_(std::move(item)) {}
WorkItemToken::~WorkItemToken() = default;
void WorkItemToken::cancel() {
    if (item_) item_->cancel();
}

TimerToken::TimerToken(std::unique_ptr<ScheduledWork> timer) : timer_(std::move(timer)) {}
TimerToken::~TimerToken() = default;
void TimerToken::cancel() {
    if (timer_) timer_->cancel();
}

SystemClock::SystemClock(std::shared_ptr<MainExecutor> main) : main_(std::move(main)) {}

double SystemClock::now() const {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

std::shared_ptr<VirelaCancellable> SystemClock::after(double seconds, std::function<void()> work) {
    return std::make_shared<WorkItemToken>(main_->postAfter(seconds, std::move(work)));
}

std::shared_ptr<VirelaCancellable> SystemClock::every(double interval, std::function<void()> work) {
    return std::make_shared<TimerToken>(main_->repeat(interval, std::move(work)));
}

}  // namespace virela
