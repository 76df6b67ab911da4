#include "core/ports/platform.hpp"

#include <mutex>

namespace virela {

namespace {
std::mutex& platformMutex() {
    static std::mutex mutex;
    return mutex;
}
std::shared_ptr<const Platform>& platformSlot() {
    static std::shared_ptr<const Platform> slot;
    return slot;
}
}  // namespace

void installPlatform(std::shared_ptr<const Platform> platform) {
    std::lock_guard lock(platformMutex());
    platformSlot() = std::move(platform);
}

std::shared_ptr<const Platform> installedPlatform() {
    std::lock_guard lock(platformMutex());
    return platformSlot();
}

}  // namespace virela
