#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/ports/platform.hpp"

namespace virela::headless {

// What a phone would know about its app and screen but a Linux host cannot read: the host app
// sets these.
struct HeadlessSettings {
    std::optional<std::string> appVersion;
    std::optional<std::string> appId;
    Appearance appearance = Appearance::light;
    ContentSizeCategory textSize = ContentSizeCategory::large;
    AssistiveTechnologies assistive;
    double screenWidthPixels = 1170;
    double screenHeightPixels = 2532;
};

// The settings, changeable from any thread while the platform runs.
class HostSettings {
  public:
    explicit HostSettings(HeadlessSettings initial = {}) : settings_(std::move(initial)) {}

    HeadlessSettings get() const {
        std::lock_guard lock(mutex_);
        return settings_;
    }
    void set(HeadlessSettings settings) {
        std::lock_guard lock(mutex_);
        settings_ = std::move(settings);
    }
    void update(const std::function<void(HeadlessSettings&)>& change) {
        std::lock_guard lock(mutex_);
        change(settings_);
    }

  private:
    mutable std::mutex mutex_;
    HeadlessSettings settings_;
};

// The DeviceFacts port, read from the running Linux machine. `root` prefixes the /sys, /proc and
// /etc paths read (tests point it at a prepared tree); uname() and the environment are always
// the real ones.
class LinuxDeviceFacts final : public DeviceFacts {
  public:
    explicit LinuxDeviceFacts(std::shared_ptr<const HostSettings> settings,
                              std::filesystem::path root = "/");

    std::string model() const override;
    std::string systemName() const override;
    std::string systemVersion() const override;
    std::string localeIdentifier() const override;
    std::optional<std::string> appVersion() const override;
    std::optional<std::string> appId() const override;
    std::optional<std::string> vendorId() const override;
    std::string machine() const override;
    std::optional<std::int64_t> availableStorageBytes() const override;
    std::int64_t availableMemoryBytes() const override;
    MainThreadFacts readMainThreadFacts() const override;

  private:
    std::filesystem::path under(const char* absolute) const;

    std::shared_ptr<const HostSettings> settings_;
    std::filesystem::path root_;
};

}  // namespace virela::headless
