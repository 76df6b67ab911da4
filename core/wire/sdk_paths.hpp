#pragma once

// Every path the device sends to, in one place. Identifiers from pushes go in as they arrive;
// the flows refuse an identifier that would not make a valid path before they act on it.

#include <string>
#include <string_view>

namespace virela::paths {

inline constexpr const char* devices = "/v1/sdk/devices";
inline constexpr const char* identify = "/v1/sdk/devices/identify";
inline constexpr const char* reset = "/v1/sdk/devices/reset";
inline constexpr const char* health = "/v1/sdk/devices/health";

inline std::string promptShown(std::string_view promptId) {
    return "/v1/sdk/prompts/" + std::string(promptId) + "/shown";
}

inline std::string captureRespond(std::string_view requestId) {
    return "/v1/sdk/captures/" + std::string(requestId) + "/respond";
}
inline std::string captureUpload(std::string_view requestId) {
    return "/v1/sdk/captures/" + std::string(requestId) + "/upload";
}

// A live session's own requests: "/respond", "/frame", "/indicator", "/control/respond",
// "/control/feedback".
inline std::string live(std::string_view sessionId, std::string_view what) {
    return "/v1/sdk/live/" + std::string(sessionId) + std::string(what);
}

}  // namespace virela::paths
