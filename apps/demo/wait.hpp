#pragma once

// The demo watches for effects: the facade's fire-and-forget calls and the agent's pushes give
// it no completion to wait on.

#include <chrono>
#include <thread>

namespace demo {

// Polls `ready` until it holds or `limit` has passed; false on time-out.
template <class Predicate>
bool waitFor(Predicate ready, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!ready()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace demo
