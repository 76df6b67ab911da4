#include "core/health/device_health.hpp"

#include <cmath>
#include <cstdlib>
#include <mutex>

namespace virela {

namespace health {

std::string sizeText(std::int64_t bytes) {
    if (bytes >= 1'000'000'000) {
        // Tenths of a gigabyte in integers, rounded half to even as printf's "%.1f" would, so
        // that the text never depends on the process locale's decimal mark.
        std::int64_t tenths = bytes / 100'000'000;
        const std::int64_t rest = bytes % 100'000'000;
        if (rest > 50'000'000 || (rest == 50'000'000 && tenths % 2 == 1)) ++tenths;
        return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " GB free";
    }
    return std::to_string(bytes / 1'000'000) + " MB free";
}

std::optional<std::string> batteryText(double level) {
    if (!(level >= 0)) return std::nullopt;  // negative or NaN: unknown
    // UIKit reports the level as a 32-bit float: 0.35f widens to 0.34999999403..., a whole
    // percent read one low. The epsilon, 1e-4 of a percent, is well above a float's error at
    // this scale (under 1e-5 of a percent) and well below any fraction a device reports, so
    // whole percents read as the status bar shows them and genuine fractions still truncate.
    double percent = std::floor(std::fmin(level, 1e6) * 100.0 + 1e-4);
    return std::to_string(static_cast<long long>(percent)) + "%";
}

std::optional<std::string> batteryStateText(int state) {
    switch (state) {
        case 0:
            return "unknown";
        case 1:
            return "unplugged";
        case 2:
            return "charging";
        case 3:
            return "full";
        default:
            return std::nullopt;
    }
}

std::optional<std::string> appearanceText(Appearance appearance) {
    switch (appearance) {
        case Appearance::light:
            return "light";
        case Appearance::dark:
            return "dark";
        case Appearance::unspecified:
            return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::string> textSizeName(ContentSizeCategory category) {
    // One step behind the platform's own names: its "large" default reads "Default".
    switch (category) {
        case ContentSizeCategory::extraSmall:
            return "Extra Small";
        case ContentSizeCategory::small:
            return "Small";
        case ContentSizeCategory::medium:
            return "Medium";
        case ContentSizeCategory::large:
            return "Default";
        case ContentSizeCategory::extraLarge:
            return "Large (XL)";
        case ContentSizeCategory::extraExtraLarge:
            return "Extra Large (XXL)";
        case ContentSizeCategory::extraExtraExtraLarge:
            return "Extra Extra Large (XXXL)";
        case ContentSizeCategory::accessibilityMedium:
            return "Accessibility Medium";
        case ContentSizeCategory::accessibilityLarge:
            return "Accessibility Large";
        case ContentSizeCategory::accessibilityExtraLarge:
            return "Accessibility Extra Large";
        case ContentSizeCategory::accessibilityExtraExtraLarge:
            return "Accessibility Extra Extra Large";
        case ContentSizeCategory::accessibilityExtraExtraExtraLarge:
            return "Accessibility Extra Extra Extra Large";
        case ContentSizeCategory::unspecified:
            return std::nullopt;
    }
    return std::nullopt;
}

std::string accessibilityText(const AssistiveTechnologies& running) {
    std::string text;
    auto add = [&text](bool on, const char* name) {
        if (!on) return;
        if (!text.empty()) text += ", ";
        text += name;
    };
    add(running.voiceOver, "VoiceOver");
    add(running.switchControl, "Switch Control");
    add(running.assistiveTouch, "AssistiveTouch");
    return text;
}

std::optional<std::string> networkName(const NetworkPath& path) {
    if (!path.satisfied) return "Offline";
    if (path.usesWifi) return "Wi-Fi";
    if (path.usesCellular) return "Cellular";
    return std::nullopt;
}

std::string modelIdentifier(const std::string& machine) {
    if (const char* simulated = std::getenv("SIMULATOR_MODEL_IDENTIFIER")) return simulated;
    return machine;
}

JsonFields reportBody(const DeviceHealthSnapshot& s) {
    auto text = [](const std::optional<std::string>& value) -> std::optional<nlohmann::json> {
        if (!value) return std::nullopt;
        return nlohmann::json(*value);
    };
    return JsonFields{
        {"battery", text(s.battery)},   {"batteryState", text(s.batteryState)},
        {"network", text(s.network)},   {"storage", text(s.storage)},
        {"memory", text(s.memory)},     {"appearance", text(s.appearance)},
        {"textSize", text(s.textSize)}, {"accessibility", text(s.accessibility)},
    };
}

}  // namespace health

DeviceHealth::DeviceHealth(HealthPorts ports) : ports_(std::move(ports)) {}

DeviceHealth::UIKitFields DeviceHealth::readUIKitFields() const {
    const MainThreadFacts facts = ports_.device->readMainThreadFacts();
    return UIKitFields{
        health::batteryText(facts.batteryLevel),    health::batteryStateText(facts.batteryState),
        health::appearanceText(facts.appearance),   health::textSizeName(facts.textSize),
        health::accessibilityText(facts.assistive),
    };
}

void DeviceHealth::collectNetwork(std::function<void(std::optional<std::string>)> done) const {
    auto queue = ports_.makeSerialQueue("com.virela.deviceHealth.network");
    auto monitor = ports_.makePathMonitor();
    // Shared by the first update and the time-out, both on `queue`; whichever comes first
    // answers and cancels the monitor. The pending time-out owns the probe and the monitor's
    // handler only watches it, so nothing outlives the queue if it stops before an answer.
    struct Probe {
        ProbeState state;
        std::shared_ptr<PathMonitor> monitor;
        std::function<void(std::optional<std::string>)> done;

        void answer(std::optional<std::string> name) {
            if (state.resumed) return;
            state.resumed = true;
            monitor->cancel();
            monitor.reset();
            auto callback = std::move(done);
            callback(std::move(name));
        }
    };
    auto probe = std::make_shared<Probe>();
    probe->monitor = std::move(monitor);
    probe->done = std::move(done);
    queue->post([probe, queue] {
        queue->postAfter(1.0, [probe] { probe->answer(std::nullopt); });
        probe->monitor->start(queue, [weak = std::weak_ptr<Probe>(probe)](const NetworkPath& path) {
            if (auto alive = weak.lock()) alive->answer(health::networkName(path));
        });
    });
}

void DeviceHealth::collect(std::function<void(Snapshot)> done) const {
    Snapshot snapshot;
    const DeviceFacts& device = *ports_.device;
    snapshot.modelIdentifier = health::modelIdentifier(device.machine());
    if (auto bytes = device.availableStorageBytes(); bytes && *bytes >= 0) {
        snapshot.storage = health::sizeText(*bytes);
    }
    if (auto bytes = device.availableMemoryBytes(); bytes > 0) {
        snapshot.memory = health::sizeText(bytes);
    }
    auto self = *this;
    auto main = ports_.main;
    main->post([self, main, snapshot, done = std::move(done)]() mutable {
        UIKitFields fields = self.readUIKitFields();
        snapshot.battery = std::move(fields.battery);
        snapshot.batteryState = std::move(fields.batteryState);
        snapshot.appearance = std::move(fields.appearance);
        snapshot.textSize = std::move(fields.textSize);
        snapshot.accessibility = std::move(fields.accessibility);
        self.collectNetwork(
            [main, snapshot, done = std::move(done)](std::optional<std::string> network) mutable {
                snapshot.network = std::move(network);
                main->post([snapshot = std::move(snapshot), done = std::move(done)]() mutable {
                    done(std::move(snapshot));
                });
            });
    });
}

}  // namespace virela
