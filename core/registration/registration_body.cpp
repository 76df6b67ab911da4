#include "core/registration/registration_body.hpp"

#include <cmath>
#include <limits>

#include "core/wire/json_fields.hpp"

namespace virela {

namespace {
std::string integerText(double value) {
    // Truncates toward zero like an integer conversion; out-of-range sizes are clamped rather
    // than left undefined.
    if (!std::isfinite(value)) return "0";
    constexpr double kMax = static_cast<double>(std::numeric_limits<long long>::max());
    double clamped = std::fmax(-kMax, std::fmin(kMax, value));
    return std::to_string(static_cast<long long>(clamped));
}
}  // namespace

std::string screenSizeText(double widthPixels, double heightPixels) {
    return integerText(widthPixels) + " \u00d7 " + integerText(heightPixels);
}

std::string osText(std::string_view systemName, std::string_view systemVersion) {
    return std::string(systemName) + " " + std::string(systemVersion);
}

JsonFields registrationBody(const std::optional<VirelaUser>& user, const RegistrationFacts& facts) {
    using nlohmann::json;
    auto text = [](const std::optional<std::string>& value) -> std::optional<json> {
        if (!value) return std::nullopt;
        return json(*value);
    };
    const DeviceHealthSnapshot& health = facts.health;
    return JsonFields{
        {"userId", user ? std::optional<json>(user->id) : std::nullopt},
        {"userName", user ? text(user->name) : std::nullopt},
        {"model", json(facts.model)},
        {"os", json(facts.os)},
        {"appVersion", json(facts.appVersion)},
        {"sdkVersion", json(kSdkVersion)},
        {"language", json(facts.language)},
        {"screenSize", json(facts.screenSize)},
        {"installId", json(facts.installId)},
        {"appId", text(facts.appId)},
        {"modelName", text(health.modelIdentifier)},
        {"vendorId", text(facts.vendorId)},
        {"battery", text(health.battery)},
        {"batteryState", text(health.batteryState)},
        {"network", text(health.network)},
        {"storage", text(health.storage)},
        {"memory", text(health.memory)},
        {"appearance", text(health.appearance)},
        {"textSize", text(health.textSize)},
        {"accessibility", text(health.accessibility)},
    };
}

}  // namespace virela
