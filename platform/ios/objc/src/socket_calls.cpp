#include "platform/ios/objc/src/socket_calls.hpp"

#include <utility>

namespace virela::ios {

std::variant<std::uint64_t, std::exception_ptr> SocketCalls::add(Fail fail) {
    std::lock_guard lock(mutex_);
    if (ended_) return error_;
    const std::uint64_t id = next_++;
    pending_.emplace(id, std::move(fail));
    return id;
}

bool SocketCalls::settle(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    return pending_.erase(id) > 0;
}

void SocketCalls::end(std::exception_ptr error) {
    std::map<std::uint64_t, Fail> failing;
    {
        std::lock_guard lock(mutex_);
        if (ended_) return;
        ended_ = true;
        error_ = error;
        failing.swap(pending_);
    }
    // A completion may call straight back into the socket (the core re-arms its receive).
    for (auto& [id, fail] : failing) fail(error);
}

}  // namespace virela::ios
