#pragma once

#include <string>
#include <vector>

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

}  // namespace virela::devserver
