// The network path monitor over NWPathMonitor.

#import <Foundation/Foundation.h>
#import <Network/Network.h>

#include <atomic>
#include <functional>
#include <memory>

#include "platform/ios/objc/src/ports.hpp"

namespace virela::ios {
namespace {

NetworkPath networkPathOf(nw_path_t path) {
    NetworkPath result;
    result.satisfied = nw_path_get_status(path) == nw_path_status_satisfied;
    result.usesWifi = nw_path_uses_interface_type(path, nw_interface_type_wifi);
    result.usesCellular = nw_path_uses_interface_type(path, nw_interface_type_cellular);
    return result;
}

// nw_path_monitor_cancel() stops the monitor asynchronously, and an update may already be on
// its way to the queue; the flag keeps that update from being delivered once cancel() returned.
class NetworkPathMonitor final : public PathMonitor {
  public:
    ~NetworkPathMonitor() override { cancel(); }

    void start(std::shared_ptr<SerialQueue> queue,
               std::function<void(const NetworkPath&)> onUpdate) override {
        cancel();
        auto cancelled = std::make_shared<std::atomic<bool>>(false);
        cancelled_ = cancelled;
        queue_ = queue;
        monitor_ = nw_path_monitor_create();

        if (dispatch_queue_t dispatchQueue = dispatchQueueOf(*queue)) {
            nw_path_monitor_set_queue(monitor_, dispatchQueue);
            nw_path_monitor_set_update_handler(monitor_, ^(nw_path_t path) {
              if (!cancelled->load()) onUpdate(networkPathOf(path));
            });
        } else {
            // A queue we did not make: watch on a private one and hand each update over.
            nw_path_monitor_set_queue(
                monitor_, dispatch_queue_create("com.virela.pathMonitor", DISPATCH_QUEUE_SERIAL));
            std::weak_ptr<SerialQueue> weakQueue = queue;
            nw_path_monitor_set_update_handler(monitor_, ^(nw_path_t path) {
              auto target = weakQueue.lock();
              if (!target || cancelled->load()) return;
              target->post([cancelled, onUpdate, update = networkPathOf(path)] {
                  if (!cancelled->load()) onUpdate(update);
              });
            });
        }
        nw_path_monitor_start(monitor_);
    }

    void cancel() override {
        if (cancelled_) cancelled_->store(true);
        if (monitor_) nw_path_monitor_cancel(monitor_);
        monitor_ = nil;
        cancelled_.reset();
        queue_.reset();
    }

  private:
    nw_path_monitor_t _Nullable monitor_ = nil;
    std::shared_ptr<std::atomic<bool>> cancelled_;
    std::shared_ptr<SerialQueue> queue_;
};

}  // namespace

std::shared_ptr<PathMonitor> makePathMonitor() { return std::make_shared<NetworkPathMonitor>(); }

}  // namespace virela::ios
