#pragma once

#include <functional>
#include <memory>
#include "core/ports/executor.hpp"

namespace virela {

struct NetworkPath {
    bool satisfied = false;
    bool usesWifi = false;
    bool usesCellular = false;
    friend bool operator==(const NetworkPath&, const NetworkPath&) = default;
};

// Watches the device's network path. The first update comes soon after start(); later ones on
// changes. Updates are delivered on `queue` and stop once cancel() returns.
class PathMonitor {
  public:
    virtual ~PathMonitor() = default;
    virtual void start(std::shared_ptr<SerialQueue> queue,
                       std::function<void(const NetworkPath&)> onUpdate) = 0;
    virtual void cancel() = 0;
};

}  // namespace virela
