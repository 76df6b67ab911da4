#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/base/records.hpp"
#include "core/base/version.hpp"
#include "core/health/device_health.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/device_records.hpp"

namespace virela {

inline constexpr const char* kInstallIdKeyPrefix = "com.virela.installId.";

// The device facts of the registration body, as texts.
struct RegistrationFacts {
    std::string model;
    std::string os;
    std::string language;
    std::string appVersion;
    std::string screenSize;
    std::optional<std::string> vendorId;
    std::optional<std::string> appId;
    std::string installId;
    DeviceHealthSnapshot health;
};

// "1170 × 2532": each side converted to an integer.
std::string screenSizeText(double widthPixels, double heightPixels);
// The operating-system text: name, one space, version ("iOS 17.2", "Linux 6.1").
std::string osText(std::string_view systemName, std::string_view systemVersion);

// The twenty keys of the registration body, in their wire order, absent values kept as null.
JsonFields registrationBody(const std::optional<VirelaUser>& user, const RegistrationFacts& facts);

}  // namespace virela
