#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/capture_book.hpp"
#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/device_report.hpp"
#include "tools/devserver/live_book.hpp"
#include "tools/devserver/router.hpp"

namespace virela::devserver {

struct SdkSettings {
    std::vector<std::string> apiKeys;
    std::string consentCopy;
    std::string captureMode;
    ReportHandler report;  // told of identifications and health reports
};

// The device endpoints under "/v1/sdk/devices". The registry must outlive the router.
void addDeviceRoutes(Router& router, DeviceRegistry& registry, SdkSettings settings);

struct CaptureSettings {
    std::chrono::milliseconds session{0};  // of an allowed PerSession request
    std::function<std::string()> baseUrl;  // the server's url, for the image links
    ReportHandler report;                  // told of prompts shown, answers and uploads
};

// The screenshot endpoints a device calls ("/v1/sdk/prompts/..." and "/v1/sdk/captures/..."),
// the uploaded images at "/captures/{id}.png" and the logo at kLogoPath. A prompt reported shown
// is recorded in both books, as live requests and notes have prompts too. The registry and the
// books must outlive the router.
void addCaptureRoutes(Router& router, const DeviceRegistry& registry, CaptureBook& book,
                      LiveBook& live, CaptureSettings settings);

// The live endpoints a device calls ("/v1/sdk/live/{sessionId}/...") and the latest frame of
// each session at liveFramePath(). `baseUrl` gives the server's url, for the frame links;
// `report` is told of answers, frames, confirmations and feedback. The registry and the book
// must outlive the router.
void addLiveRoutes(Router& router, const DeviceRegistry& registry, LiveBook& live,
                   std::function<std::string()> baseUrl, ReportHandler report = {});

// "/live/{sessionId}/latest.jpg".
std::string liveFramePath(std::string_view sessionId);
// "/captures/{captureId}.png", where an uploaded screenshot is served.
std::string captureImagePath(std::string_view captureId);

inline constexpr std::string_view kLogoPath = "/assets/logo.png";
// The header in which a device sends its token.
inline constexpr const char* kDeviceHeader = "X-Virela-Device";

}  // namespace virela::devserver
