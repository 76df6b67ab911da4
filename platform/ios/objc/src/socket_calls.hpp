#pragma once

// The outstanding sends and receives of one WebSocket task, each completed exactly once. Kept
// free of Objective-C so that the Linux test suite runs it.
//
// Foundation completes every send and receive it is given, except when the connection drops
// without a close frame: the task then ends (its delegate hears didCompleteWithError) while an
// outstanding receive is never called back, and a receive loop waiting on it would wait forever.
// So the task's end fails whatever is still outstanding, and whichever of the two reaches a call
// first completes it; the other finds it already settled.

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <variant>

namespace virela::ios {

class SocketCalls {
  public:
    using Fail = std::function<void(std::exception_ptr)>;

    // Registers a call about to be handed to the task; `fail` completes it should the task end
    // first. Once the task has ended nothing is registered and the end's error comes back
    // instead, for the caller to complete the call with.
    std::variant<std::uint64_t, std::exception_ptr> add(Fail fail);

    // Claims call `id` for its own completion: true once, false when the end got there first.
    bool settle(std::uint64_t id);

    // The task has ended with `error`: fails every outstanding call in the order they were
    // made, on this thread and outside the lock. Only the first end counts.
    void end(std::exception_ptr error);

  private:
    std::mutex mutex_;
    std::uint64_t next_ = 0;
    std::map<std::uint64_t, Fail> pending_;
    bool ended_ = false;
    std::exception_ptr error_;
};

}  // namespace virela::ios
