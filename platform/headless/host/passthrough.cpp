#include "platform/headless/host/passthrough.hpp"

namespace virela::headless {

std::optional<std::size_t> passthroughTarget(
    std::size_t count, const std::function<PassthroughTarget(std::size_t)>& probe) {
    for (std::size_t i = 0; i < count; ++i) {
        const PassthroughTarget t = probe(i);
        if (!t.exists || t.hidden) continue;
        if (t.containsPoint) return i;
    }
    return std::nullopt;
}

}  // namespace virela::headless
