#include "core/health/health_reporter.hpp"

#include "core/health/device_health.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

std::shared_ptr<HealthReporter> HealthReporter::create(HealthPorts ports, FlowContext& context) {
    return std::shared_ptr<HealthReporter>(new HealthReporter(std::move(ports), context));
}

HealthReporter::HealthReporter(HealthPorts ports, FlowContext& context)
    : ports_(std::move(ports)), context_(context) {}

HealthReporter::~HealthReporter() {
    stop();
}

void HealthReporter::start() {
    stop();
    if (!ports_.makePathMonitor || !ports_.makeSerialQueue) return;
    auto queue = ports_.makeSerialQueue("virela.network");
    pathMonitor_ = ports_.makePathMonitor();
    std::weak_ptr<HealthReporter> weak = weak_from_this();
    auto main = ports_.main;
    pathMonitor_->start(queue, [weak, main](const NetworkPath&) {
        main->post([weak] {
            if (auto self = weak.lock()) self->report();
        });
    });
}

void HealthReporter::stop() {
    if (pathMonitor_) pathMonitor_->cancel();
    pathMonitor_.reset();
}

void HealthReporter::report(std::function<void()> done) {
    VIRELA_ASSERT_MAIN(*ports_.main, "HealthReporter::report");
    if (inFlight_) {
        // Deciding now would compare against a report that may still fail.
        waiting_.push_back(std::move(done));
        return;
    }
    send(std::move(done));
}

void HealthReporter::send(std::function<void()> done) {
    if (!context_.transport()) {
        if (done) done();
        return;
    }
    inFlight_ = true;
    std::weak_ptr<HealthReporter> weak = weak_from_this();
    DeviceHealth(ports_).collect(
        [weak, done = std::move(done)](const DeviceHealthSnapshot& snapshot) {
            auto self = weak.lock();
            if (!self) return;
            auto transport = self->context_.transport();
            const auto& network = snapshot.network;
            // Only the network decides: a report for the network last accepted tells the agent
            // nothing new.
            if (!transport || (network && network == self->lastNetworkSent_)) {
                self->finish(network, false);
                if (done) done();
                return;
            }
            transport->postJson(paths::health, health::reportBody(snapshot), false,
                                [weak, network, done](const SendResult& result) {
                                    if (auto reporter = weak.lock()) {
                                        reporter->finish(network, static_cast<bool>(result));
                                    }
                                    if (done) done();
                                });
        });
}

void HealthReporter::finish(const std::optional<std::string>& network, bool accepted) {
    if (accepted) lastNetworkSent_ = network;
    inFlight_ = false;
    if (waiting_.empty()) return;
    // Everything that waited is answered by one fresh decision: several updates on one
    // network still send one report.
    auto waiting = std::move(waiting_);
    waiting_.clear();
    send([waiting = std::move(waiting)] {
        for (const auto& done : waiting) {
            if (done) done();
        }
    });
}

}  // namespace virela
