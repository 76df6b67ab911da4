// The main executor and serial queues, over Grand Central Dispatch and the main run loop.
//
// Dropping a token does not cancel it: like a submitted work item, the work still runs
// (and a repeating timer keeps firing) until cancel() is called. Only cancel() stops work.

#import <Foundation/Foundation.h>

#include <atomic>

#include "platform/ios/objc/src/bridge_rules.hpp"
#include "platform/ios/objc/src/ports.hpp"

namespace virela::ios {
namespace {

// A submitted dispatch work item; cancelling keeps it from starting.
class WorkItem final : public VirelaCancellable {
  public:
    explicit WorkItem(dispatch_block_t block) : block_(block) {}
    void cancel() override { dispatch_block_cancel(block_); }

  private:
    dispatch_block_t block_;
};

std::shared_ptr<VirelaCancellable> submitAfter(dispatch_queue_t queue, double seconds,
                                               std::function<void()> work) {
    dispatch_block_t block = dispatch_block_create(static_cast<dispatch_block_flags_t>(0), ^{
      work();
    });
    // A delay too long to represent never comes due; dispatch_after does not take "forever".
    if (const auto nanos = delayNanoseconds(seconds)) {
        dispatch_after(dispatch_time(DISPATCH_TIME_NOW, *nanos), queue, block);
    }
    return std::make_unique<WorkItem>(block);
}

// A repeating NSTimer on the main run loop, in the common modes so that it keeps firing while
// the user scrolls. A timer may only be scheduled and invalidated on the main thread, so both
// hop there; the flag makes cancel() take effect at once, whatever thread calls it.
class RepeatingTimer final : public VirelaCancellable {
  public:
    RepeatingTimer(double interval, std::function<void()> work)
        : cancelled_(std::make_shared<std::atomic<bool>>(false)) {
        auto cancelled = cancelled_;
        timer_ = [NSTimer timerWithTimeInterval:interval
                                        repeats:YES
                                          block:^(NSTimer* timer) {
                                            if (cancelled->load()) {
                                                [timer invalidate];
                                                return;
                                            }
                                            work();
                                          }];
        NSTimer* timer = timer_;
        onMainThread(^{
          if (cancelled->load()) return;
          [NSRunLoop.mainRunLoop addTimer:timer forMode:NSRunLoopCommonModes];
        });
    }

    void cancel() override {
        if (cancelled_->exchange(true)) return;
        NSTimer* timer = timer_;
        onMainThread(^{
          [timer invalidate];
        });
    }

  private:
    static void onMainThread(dispatch_block_t block) {
        if (NSThread.isMainThread) {
            block();
        } else {
            dispatch_async(dispatch_get_main_queue(), block);
        }
    }

    std::shared_ptr<std::atomic<bool>> cancelled_;
    NSTimer* timer_;
};

class MainQueueExecutor final : public MainExecutor {
  public:
    void post(std::function<void()> work) override {
        dispatch_async(dispatch_get_main_queue(), ^{
          work();
        });
    }

    std::shared_ptr<VirelaCancellable> postAfter(double seconds,
                                                 std::function<void()> work) override {
        return submitAfter(dispatch_get_main_queue(), seconds, std::move(work));
    }

    std::shared_ptr<VirelaCancellable> repeat(double interval,
                                              std::function<void()> work) override {
        return std::make_unique<RepeatingTimer>(interval, std::move(work));
    }

    bool isCurrent() const override { return NSThread.isMainThread; }

    void postBackground(std::function<void()> work) override {
        dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
          work();
        });
    }
};

class DispatchSerialQueue final : public SerialQueue {
  public:
    explicit DispatchSerialQueue(const std::string& label)
        : queue_(dispatch_queue_create(label.c_str(), DISPATCH_QUEUE_SERIAL)) {}

    void post(std::function<void()> work) override {
        dispatch_async(queue_, ^{
          work();
        });
    }

    std::shared_ptr<VirelaCancellable> postAfter(double seconds,
                                                 std::function<void()> work) override {
        return submitAfter(queue_, seconds, std::move(work));
    }

    dispatch_queue_t queue() const { return queue_; }

  private:
    dispatch_queue_t queue_;
};

}  // namespace

std::shared_ptr<MainExecutor> makeMainExecutor() { return std::make_shared<MainQueueExecutor>(); }

std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) {
    return std::make_shared<DispatchSerialQueue>(label);
}

dispatch_queue_t _Nullable dispatchQueueOf(const SerialQueue& queue) {
    auto* ours = dynamic_cast<const DispatchSerialQueue*>(&queue);
    return ours ? ours->queue() : nil;
}

}  // namespace virela::ios
