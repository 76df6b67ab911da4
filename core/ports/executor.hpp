#pragma once

// Where work runs: the main executor that owns all client state, and serial queues of their own.

#include <functional>
#include <memory>
#include <string>

#include "core/ports/fatal.hpp"

namespace virela {

// A handle to scheduled work: the one token type for run-once and repeating work alike.
// Cancelling twice, or after the work ran, is harmless.
class VirelaCancellable {
  public:
    virtual ~VirelaCancellable() = default;
    virtual void cancel() = 0;
};

// The main thread. All client state, every view change and every host callback run here.
class MainExecutor {
  public:
    virtual ~MainExecutor() = default;
    virtual void post(std::function<void()> work) = 0;
    // The platform's timers. Core schedules delayed and repeating work only through
    // VirelaClock's named timers, which SystemClock builds on these two, so that a test drives
    // every timer of the library from one ManualClock.
    virtual std::shared_ptr<VirelaCancellable> postAfter(double seconds,
                                                         std::function<void()> work) = 0;
    virtual std::shared_ptr<VirelaCancellable> repeat(double interval,
                                                      std::function<void()> work) = 0;
    virtual bool isCurrent() const = 0;
    // Runs work on a thread that is not the main one (the callback form of configure completes
    // there).
    virtual void postBackground(std::function<void()> work) = 0;
};

// A serial queue of its own (the network probe and the path watch run on one).
class SerialQueue {
  public:
    virtual ~SerialQueue() = default;
    virtual void post(std::function<void()> work) = 0;
    // The platform's timers. Core schedules delayed and repeating work only through
    // VirelaClock's named timers, which SystemClock builds on these two, so that a test drives
    // every timer of the library from one ManualClock.
    virtual std::shared_ptr<VirelaCancellable> postAfter(double seconds,
                                                         std::function<void()> work) = 0;
};

// Code that owns main-thread state says so: in debug builds, reaching it on another thread stops
// the process with the name of the code that was entered.
#ifdef NDEBUG
#define VIRELA_ASSERT_MAIN(executor, where) ((void)0)
#else
#define VIRELA_ASSERT_MAIN(executor, where) ::virela::assertOnMain((executor), (where))
#endif

inline void assertOnMain(const MainExecutor& main, const char* where) {
    if (!main.isCurrent()) fatalPrecondition(std::string(where) + " must run on the main executor");
}

}  // namespace virela
