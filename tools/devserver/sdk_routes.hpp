#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/capture_book.hpp"
#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/router.hpp"

namespace virela::devserver {

struct SdkSettings {
    std::vector<std::string> apiKeys;
    std::string consentCopy;
    std::string captureMode;
};

// The device endpoints under "/v1/sdk/devices". The registry must outlive the router.
void addDeviceRoutes(Router& router, DeviceRegistry& registry, SdkSettings settings);

struct CaptureSettings {
    std::chrono::milliseconds session{0};  // of an allowed PerSession request
    std::function<std::string()> baseUrl;  // the server's url, for the image links
};

// The screenshot endpoints a device calls ("/v1/sdk/prompts/..." and "/v1/sdk/captures/..."),
// the uploaded images at "/captures/{id}.png" and the logo at kLogoPath. The registry and the
// book must outlive the router.
void addCaptureRoutes(Router& router, const DeviceRegistry& registry, CaptureBook& book,
                      CaptureSettings settings);

inline constexpr std::string_view kLogoPath = "/assets/logo.png";

}  // namespace virela::devserver
