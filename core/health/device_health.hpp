#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/ports/platform.hpp"
#include "core/transport/transport.hpp"

namespace virela {

// The health card an agent sees, as display-ready texts.
struct DeviceHealthSnapshot {
    std::optional<std::string> modelIdentifier;
    std::optional<std::string> battery;
    std::optional<std::string> batteryState;
    std::optional<std::string> network;
    std::optional<std::string> storage;
    std::optional<std::string> memory;
    std::optional<std::string> appearance;
    std::optional<std::string> textSize;
    std::optional<std::string> accessibility;
    friend bool operator==(const DeviceHealthSnapshot&, const DeviceHealthSnapshot&) = default;
};

// The ports the health card is read from.
struct HealthPorts {
    std::shared_ptr<MainExecutor> main;
    std::shared_ptr<DeviceFacts> device;
    std::function<std::shared_ptr<SerialQueue>(const std::string& label)> makeSerialQueue;
    std::function<std::shared_ptr<PathMonitor>()> makePathMonitor;

    static HealthPorts of(const Platform& platform) {
        return {platform.main, platform.device, platform.makeSerialQueue, platform.makePathMonitor};
    }
};

class DeviceHealth {
  public:
    using Snapshot = DeviceHealthSnapshot;

    // The texts that come from facts readable only on the main thread.
    struct UIKitFields {
        std::optional<std::string> battery;
        std::optional<std::string> batteryState;
        std::optional<std::string> appearance;
        std::optional<std::string> textSize;
        std::string accessibility;
    };

    // Guards the one-shot network probe against answering twice. Touched only on the probe's
    // serial queue.
    struct ProbeState {
        bool resumed = false;
    };

    explicit DeviceHealth(HealthPorts ports);

    // Gathers every field; `done` runs on the main executor. Model, storage and memory are read
    // on the calling thread, the UIKit fields on the main thread, the network by the probe.
    void collect(std::function<void(Snapshot)> done) const;

    // The one-shot probe: the first path update's name, or nullopt when none came within
    // one second. `done` runs once, on the probe's own queue.
    void collectNetwork(std::function<void(std::optional<std::string>)> done) const;

    UIKitFields readUIKitFields() const;  // main thread only

  private:
    HealthPorts ports_;
};

namespace health {

// "12.3 GB free" from one decimal gigabyte up, else "840 MB free"; powers of ten.
std::string sizeText(std::int64_t bytes);
// "85%" for 0.856: the level in percent, truncated; nullopt for a negative (unknown) level.
std::optional<std::string> batteryText(double level);
std::optional<std::string> batteryStateText(int state);
std::optional<std::string> appearanceText(Appearance appearance);
std::optional<std::string> textSizeName(ContentSizeCategory category);
std::string accessibilityText(const AssistiveTechnologies& running);
std::optional<std::string> networkName(const NetworkPath& path);
// SIMULATOR_MODEL_IDENTIFIER when set, else the machine field.
std::string modelIdentifier(const std::string& machine);

// The eight keys of a health report, in wire order; the model identifier is not sent.
JsonFields reportBody(const DeviceHealthSnapshot& snapshot);

}  // namespace health
}  // namespace virela
