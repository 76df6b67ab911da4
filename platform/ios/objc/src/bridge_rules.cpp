#include "platform/ios/objc/src/bridge_rules.hpp"

namespace virela::ios {

std::optional<std::int64_t> delayNanoseconds(double seconds) noexcept {
    if (!(seconds > 0)) return 0;  // also catches NaN
    const double nanos = seconds * 1e9;
    // 2^63 is exact as a double, and every double below it fits in an int64.
    constexpr double kTwoToThe63 = 9223372036854775808.0;
    if (nanos >= kTwoToThe63) return std::nullopt;
    return static_cast<std::int64_t>(nanos);
}

std::optional<VirelaEnvironment> customEnvironment(std::string_view absoluteUrl) {
    auto url = Url::parse(absoluteUrl);
    if (!url || !url->isAbsolute()) return std::nullopt;
    return VirelaEnvironment::custom(*url);
}

SocketState socketStateOf(long taskState) noexcept {
    switch (taskState) {
        case task_state::running:
            return SocketState::running;
        case task_state::suspended:
            return SocketState::suspended;
        case task_state::canceling:
            return SocketState::canceling;
        default:
            return SocketState::completed;
    }
}

}  // namespace virela::ios
