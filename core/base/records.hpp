#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "core/base/errors.hpp"
#include "core/base/url.hpp"

namespace virela {

struct VirelaUser {
    std::string id;
    std::optional<std::string> name;

    VirelaUser(std::string userId, std::optional<std::string> userName = std::nullopt)
        : id(std::move(userId)), name(std::move(userName)) {}
};

struct CaptureResult {
    std::string captureId;
    std::string imageUrl;
    friend bool operator==(const CaptureResult&, const CaptureResult&) = default;
};

struct LiveSession {
    std::string sessionId;
    friend bool operator==(const LiveSession&, const LiveSession&) = default;
};

enum class CaptureMode { askEveryTime, perSession, liveView };

const char* rawValue(CaptureMode mode) noexcept;
std::optional<CaptureMode> captureModeFromRaw(std::string_view raw) noexcept;

// Where the backend lives: the production service or any base URL the host gives.
class VirelaEnvironment {
  public:
    static VirelaEnvironment live();
    static VirelaEnvironment custom(Url url);

    bool isLive() const noexcept { return live_; }
    const Url& url() const noexcept { return url_; }

  private:
    VirelaEnvironment(bool live, Url url) : live_(live), url_(std::move(url)) {}
    bool live_;
    Url url_;
};

// sRGB components in 0...1.
struct Color {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;
    friend bool operator==(const Color&, const Color&) = default;
};

struct VirelaRedaction {
    Color color;
    std::string label;
    Color labelColor;
    friend bool operator==(const VirelaRedaction&, const VirelaRedaction&) = default;
};

// Error values handed to the host: a VirelaError, a NetworkError from the platform, or a
// DecodingError / SerializationError. Rethrow to inspect, or use describe().
// What the host attaches to a view to have it painted over: the style is copied in when the
// mark is made, so a later change of the default style leaves existing marks as they are.
struct RedactionMark {
    VirelaRedaction style;
};

using VirelaErrorValue = std::exception_ptr;

struct VirelaCallbacks {
    std::function<void()> onRequestShown{};
    std::function<void(const CaptureResult&)> onAllowed{};
    std::function<void()> onDenied{};
    std::function<void()> onExpired{};
    std::function<void(const VirelaErrorValue&)> onError{};
    std::function<void(bool)> onRemoteControl{};
    std::function<void(const LiveSession&)> onLiveEnded{};
};

}  // namespace virela
