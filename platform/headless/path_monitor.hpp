#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>

#include "core/ports/platform.hpp"

namespace virela::headless {

// The machine's network path now: satisfied when a non-loopback interface is up and running with
// an IPv4 or IPv6 address; Wi-Fi when such an interface is wireless (per /sys/class/net, under
// `root`), cellular when its name starts with "wwan" or "rmnet".
NetworkPath readNetworkPath(const std::filesystem::path& root = "/");

// The PathMonitor port: polls the interfaces on the caller's queue. The first update is
// delivered right after start(), later ones only when the path changes.
class InterfacePathMonitor final : public PathMonitor {
  public:
    struct Options {
        double pollSeconds = 2.0;
        std::function<NetworkPath()> read;  // readNetworkPath() when empty
    };

    InterfacePathMonitor();
    explicit InterfacePathMonitor(Options options);
    ~InterfacePathMonitor() override;  // cancel()

    // A second start() replaces the first.
    void start(std::shared_ptr<SerialQueue> queue,
               std::function<void(const NetworkPath&)> onUpdate) override;
    // After this returns no update starts; one already running on another thread is waited for.
    // Safe from inside an update.
    void cancel() override;

  private:
    struct Watch;
    Options options_;
    std::mutex mutex_;
    std::shared_ptr<Watch> watch_;
};

}  // namespace virela::headless
