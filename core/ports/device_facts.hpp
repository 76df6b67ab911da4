#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace virela {

enum class Appearance { unspecified, light, dark };

enum class ContentSizeCategory {
    unspecified,
    extraSmall,
    small,
    medium,
    large,
    extraLarge,
    extraExtraLarge,
    extraExtraExtraLarge,
    accessibilityMedium,
    accessibilityLarge,
    accessibilityExtraLarge,
    accessibilityExtraExtraLarge,
    accessibilityExtraExtraExtraLarge,
};

struct AssistiveTechnologies {
    bool voiceOver = false;
    bool switchControl = false;
    bool assistiveTouch = false;
};

// The facts that the platform only lets us read on the main thread.
struct MainThreadFacts {
    double batteryLevel = -1;  // 0...1, negative when unknown
    int batteryState = 0;      // 0 unknown, 1 unplugged, 2 charging, 3 full
    Appearance appearance = Appearance::unspecified;
    ContentSizeCategory textSize = ContentSizeCategory::unspecified;
    AssistiveTechnologies assistive;
    double screenWidthPixels = 0;  // the main screen's native bounds
    double screenHeightPixels = 0;
};

// Raw device facts; core turns them into the texts the backend receives.
class DeviceFacts {
  public:
    virtual ~DeviceFacts() = default;
    virtual std::string model() const = 0;          // generic model name ("iPhone")
    virtual std::string systemName() const = 0;     // "iOS", "Linux"
    virtual std::string systemVersion() const = 0;  // "17.2", "6.1"
    virtual std::string localeIdentifier() const = 0;
    virtual std::optional<std::string> appVersion() const = 0;  // the bundle's short version
    virtual std::optional<std::string> appId() const = 0;       // the bundle identifier
    virtual std::optional<std::string> vendorId() const = 0;
    virtual std::string machine() const = 0;  // the machine field of uname()
    virtual std::optional<std::int64_t> availableStorageBytes() const = 0;
    virtual std::int64_t availableMemoryBytes() const = 0;
    // Call on the main thread only.
    virtual MainThreadFacts readMainThreadFacts() const = 0;
};

}  // namespace virela
