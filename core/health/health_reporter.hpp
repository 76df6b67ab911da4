#pragma once

// Reports the device's health card to the backend while the client is configured: once when
// the network path monitor first answers, and again whenever the network type changes. Only a
// report the backend accepted counts: after a failure, the next update sends again.
// Confined to the main executor.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/flow/flow_context.hpp"
#include "core/health/device_health.hpp"

namespace virela {

class HealthReporter : public std::enable_shared_from_this<HealthReporter> {
  public:
    // `context` is the client that owns the reporter and outlives it.
    static std::shared_ptr<HealthReporter> create(HealthPorts ports, FlowContext& context);
    ~HealthReporter();
    HealthReporter(const HealthReporter&) = delete;
    HealthReporter& operator=(const HealthReporter&) = delete;

    // Replaces any running watch with a new one on its own queue.
    void start();
    void stop();

    // Sends a report unless the network is the one last reported. While one is on its way, a
    // second request waits for it and then decides. `done`, if given, runs on the main executor
    // once this request was sent, skipped or failed.
    void report(std::function<void()> done = {});

  private:
    HealthReporter(HealthPorts ports, FlowContext& context);
    void send(std::function<void()> done);
    void finish(const std::optional<std::string>& network, bool accepted);

    HealthPorts ports_;
    FlowContext& context_;
    std::shared_ptr<PathMonitor> pathMonitor_;
    std::optional<std::string> lastNetworkSent_;
    bool inFlight_ = false;
    // Requests that came while a report was on its way; they are decided once it is over.
    std::vector<std::function<void()>> waiting_;
};

}  // namespace virela
