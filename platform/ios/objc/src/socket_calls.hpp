#pragma once

// The outstanding sends and receives of one WebSocket task, each completed exactly once. Kept
// free of Objective-C so that the Linux test suite runs it.
//
// Foundation completes every send and receive it is given, except when the connection drops
// without a close frame: the task then ends (its delegate hears didCompleteWithError) while an
// outstanding receive may never be called back, and a receive loop waiting on it would wait
// forever. So the task's end fails what is still outstanding, and whichever of the two reaches a
// call first completes it; the other finds it already settled.
//
// Receives are the exception to failing at once: messages that arrived before the close may
// still sit in Foundation's buffer, and must be delivered before the end is. A receive therefore
// outlives the end: it is still handed to the task, which answers with a buffered message or its
// own error, and only when it has not answered within a grace period does the end's error stand
// in (expire).

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <variant>
#include <vector>

namespace virela::ios {

class SocketCalls {
  public:
    using Fail = std::function<void(std::exception_ptr)>;
    enum class Kind { send, receive };

    // Registers a call about to be handed to the task; `fail` completes it should the task end
    // first. Once the task has ended a send is not registered and the end's error comes back
    // instead, for the caller to complete the send with; a receive is registered all the same,
    // and the caller expires it after the grace period.
    std::variant<std::uint64_t, std::exception_ptr> add(Kind kind, Fail fail);

    // Claims call `id` for its own completion: true once, false when the end got there first.
    bool settle(std::uint64_t id);

    // The task has ended with `error`: fails every outstanding send in the order they were
    // made, on this thread and outside the lock, and returns the outstanding receives for the
    // caller to expire after the grace period. Only the first end counts.
    std::vector<std::uint64_t> end(std::exception_ptr error);

    // Fails receive `id` with the end's error unless it has been settled meanwhile.
    void expire(std::uint64_t id);

    bool ended();

  private:
    struct Call {
        Kind kind;
        Fail fail;
    };

    std::mutex mutex_;
    std::uint64_t next_ = 0;
    std::map<std::uint64_t, Call> pending_;
    bool ended_ = false;
    std::exception_ptr error_;
};

}  // namespace virela::ios
