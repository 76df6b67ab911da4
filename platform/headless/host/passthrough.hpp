#pragma once

#include <cstddef>
#include <functional>
#include <optional>

namespace virela::headless {

// The overlay window's hit-test: which of its targets, tried in order, takes a touch. `probe`
// says for one target whether it exists, whether it is hidden and whether the touch lies inside
// its bounds; no answer lets the touch fall through to the app.
struct PassthroughTarget {
    bool exists = false;
    bool hidden = false;
    bool containsPoint = false;
};
std::optional<std::size_t> passthroughTarget(
    std::size_t count, const std::function<PassthroughTarget(std::size_t)>& probe);

}  // namespace virela::headless
