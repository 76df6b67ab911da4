#include "platform/ios/objc/src/socket_calls.hpp"

#include <utility>

namespace virela::ios {

std::variant<std::uint64_t, std::exception_ptr> SocketCalls::add(Kind kind, Fail fail) {
    std::lock_guard lock(mutex_);
    if (ended_ && kind == Kind::send) return error_;
    const std::uint64_t id = next_++;
    pending_.emplace(id, Call{kind, std::move(fail)});
    return id;
}

bool SocketCalls::settle(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    return pending_.erase(id) > 0;
}

std::vector<std::uint64_t> SocketCalls::end(std::exception_ptr error) {
    std::vector<Fail> failing;
    std::vector<std::uint64_t> receives;
    {
        std::lock_guard lock(mutex_);
        if (ended_) return {};
        ended_ = true;
        error_ = error;
        for (auto it = pending_.begin(); it != pending_.end();) {
            if (it->second.kind == Kind::receive) {
                receives.push_back(it->first);
                ++it;
            } else {
                failing.push_back(std::move(it->second.fail));
                it = pending_.erase(it);
            }
        }
    }
    for (auto& fail : failing) fail(error);
    return receives;
}

void SocketCalls::expire(std::uint64_t id) {
    Fail fail;
    std::exception_ptr error;
    {
        std::lock_guard lock(mutex_);
        auto it = pending_.find(id);
        if (!ended_ || it == pending_.end()) return;
        fail = std::move(it->second.fail);
        error = error_;
        pending_.erase(it);
    }
    // A completion may call straight back into the socket (the core re-arms its receive).
    fail(error);
}

bool SocketCalls::ended() {
    std::lock_guard lock(mutex_);
    return ended_;
}

}  // namespace virela::ios
