#pragma once

// The replies of the device endpoints: registration and reset.

#include <optional>
#include <string>
#include <string_view>

#include "core/base/records.hpp"

namespace virela {

struct RegisterResult {
    std::string deviceId;
    std::string deviceToken;
    std::optional<std::string> supportCode;
    std::string consentCopy;
    CaptureMode captureMode = CaptureMode::askEveryTime;
    bool isTest = false;

    // Throws DecodingError for a missing required key, a wrong JSON type or an unknown mode.
    static RegisterResult decode(std::string_view bytes);
};

struct ResetResult {
    std::optional<std::string> supportCode;
    static ResetResult decode(std::string_view bytes);
};

}  // namespace virela
