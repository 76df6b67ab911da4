#include "core/ports/clock.hpp"

#include <chrono>

namespace virela {

std::string_view timerName(TimerId id) noexcept {
    switch (id) {
        case TimerId::heartbeat:
            return "heartbeat";
        case TimerId::reconnect:
            return "reconnect";
        case TimerId::promptExpiry:
            return "prompt expiry";
        case TimerId::bannerRefresh:
            return "banner refresh";
        case TimerId::liveFrame:
            return "live frame";
        case TimerId::visibleState:
            return "visible state";
        case TimerId::toastRemoval:
            return "toast removal";
        case TimerId::pointingReset:
            return "pointing reset";
        case TimerId::markFade:
            return "mark fade";
        case TimerId::other:
            break;
    }
    return "other";
}

SystemClock::SystemClock(std::shared_ptr<MainExecutor> main) : main_(std::move(main)) {}

double SystemClock::now() const {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

std::shared_ptr<VirelaCancellable> SystemClock::after(TimerId, double seconds,
                                                      std::function<void()> work) {
    return main_->postAfter(seconds, std::move(work));
}

std::shared_ptr<VirelaCancellable> SystemClock::every(TimerId, double interval,
                                                      std::function<void()> work) {
    return main_->repeat(interval, std::move(work));
}

}  // namespace virela
