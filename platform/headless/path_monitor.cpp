#include "platform/headless/path_monitor.hpp"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <atomic>
#include <optional>
#include <string_view>
#include <utility>

namespace virela::headless {

namespace fs = std::filesystem;

NetworkPath readNetworkPath(const fs::path& root) {
    NetworkPath path;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return path;
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr) continue;
        int family = entry->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6) continue;
        unsigned flags = entry->ifa_flags;
        if ((flags & IFF_LOOPBACK) != 0 || (flags & IFF_UP) == 0 || (flags & IFF_RUNNING) == 0) {
            continue;
        }
        std::string_view name = entry->ifa_name;
        path.satisfied = true;
        std::error_code ec;
        fs::path device = root / "sys/class/net" / std::string(name);
        if (fs::exists(device / "wireless", ec) || fs::exists(device / "phy80211", ec)) {
            path.usesWifi = true;
        }
        if (name.starts_with("wwan") || name.starts_with("rmnet")) path.usesCellular = true;
    }
    ::freeifaddrs(list);
    return path;
}

// One start()..cancel() span. Everything but `active` is touched only on the caller's queue.
struct InterfacePathMonitor::Watch : std::enable_shared_from_this<Watch> {
    std::shared_ptr<SerialQueue> queue;
    std::function<void(const NetworkPath&)> onUpdate;
    std::function<NetworkPath()> read;
    double pollSeconds = 2.0;
    std::optional<NetworkPath> last;

    // Guards the start of each delivery against cancel(): an update either begins before
    // cancel() returns or never.
    std::recursive_mutex deliveryMutex;
    std::atomic<bool> active{true};
    std::mutex pendingMutex;
    std::shared_ptr<VirelaCancellable> pending;

    void poll() {
        auto path = read();
        if (!last || *last != path) {
            last = path;
            std::lock_guard lock(deliveryMutex);
            if (!active.load()) return;
            onUpdate(path);
        }
        if (!active.load()) return;
        auto next = queue->postAfter(pollSeconds, [weak = weak_from_this()] {
            if (auto self = weak.lock(); self && self->active.load()) self->poll();
        });
        std::lock_guard lock(pendingMutex);
        if (active.load()) {
            pending = std::move(next);
        } else {
            next->cancel();
        }
    }

    void stop() {
        {
            // Recursive, so an update may cancel its own monitor.
            std::lock_guard lock(deliveryMutex);
            active.store(false);
        }
        std::shared_ptr<VirelaCancellable> work;
        {
            std::lock_guard lock(pendingMutex);
            work = std::move(pending);
        }
        if (work) work->cancel();
    }
};

InterfacePathMonitor::InterfacePathMonitor() : InterfacePathMonitor(Options{}) {}

InterfacePathMonitor::InterfacePathMonitor(Options options) : options_(std::move(options)) {
    if (!options_.read) options_.read = [] { return readNetworkPath(); };
}

InterfacePathMonitor::~InterfacePathMonitor() {
    cancel();
}

void InterfacePathMonitor::start(std::shared_ptr<SerialQueue> queue,
                                 std::function<void(const NetworkPath&)> onUpdate) {
    if (!queue || !onUpdate) {
        cancel();
        return;
    }
    auto watch = std::make_shared<Watch>();
    watch->queue = queue;
    watch->onUpdate = std::move(onUpdate);
    watch->read = options_.read;
    watch->pollSeconds = options_.pollSeconds;
    std::shared_ptr<Watch> previous;
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(watch_, watch);
    }
    if (previous) previous->stop();
    queue->post([weak = std::weak_ptr<Watch>(watch)] {
        if (auto self = weak.lock(); self && self->active.load()) self->poll();
    });
}

void InterfacePathMonitor::cancel() {
    std::shared_ptr<Watch> watch;
    {
        std::lock_guard lock(mutex_);
        watch = std::exchange(watch_, nullptr);
    }
    if (watch) watch->stop();
}

}  // namespace virela::headless
