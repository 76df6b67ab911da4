#pragma once

/// @file
/// The public records: what the host gives the library and what its callbacks receive.

#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "core/base/errors.hpp"
#include "core/base/url.hpp"

namespace virela {

/// The end user the host identifies at configure time.
struct VirelaUser {
    std::string id;                   ///< The app's own identifier for the user.
    std::optional<std::string> name;  ///< A name the support agent sees, when the app has one.

    /// A user with `userId` and, optionally, a name.
    VirelaUser(std::string userId, std::optional<std::string> userName = std::nullopt)
        : id(std::move(userId)), name(std::move(userName)) {}
};

/// An allowed capture, uploaded.
struct CaptureResult {
    std::string captureId;  ///< The backend's identifier of the capture.
    std::string imageUrl;   ///< The uploaded image's URL as the backend reports it.
    /// Member-wise equality.
    friend bool operator==(const CaptureResult&, const CaptureResult&) = default;
};

/// A live screen-sharing session.
struct LiveSession {
    std::string sessionId;  ///< The backend's identifier of the session.
    /// Member-wise equality.
    friend bool operator==(const LiveSession&, const LiveSession&) = default;
};

/// How the backend has the customer asked for captures; the backend decides, per registration.
enum class CaptureMode {
    askEveryTime,  ///< A prompt for every capture ("AskEveryTime").
    perSession,    ///< One prompt allows captures for the rest of the call ("PerSession").
    liveView,      ///< Captures come from a live screen-sharing session ("LiveView").
};

/// The backend's name of `mode`: "AskEveryTime", "PerSession" or "LiveView".
const char* rawValue(CaptureMode mode) noexcept;
/// The mode the backend calls `raw`; nullopt for any other text (there is no fallback).
std::optional<CaptureMode> captureModeFromRaw(std::string_view raw) noexcept;

/// Where the backend lives: the production service or any base URL the host gives.
class VirelaEnvironment {
  public:
    /// The production service.
    static VirelaEnvironment live();
    /// Any base URL (staging, tests). Request paths are absolute, so they replace a path that
    /// `url` has.
    static VirelaEnvironment custom(Url url);

    /// True for the production service.
    bool isLive() const noexcept { return live_; }
    /// The base URL: the production origin for live(), the given URL for custom().
    const Url& url() const noexcept { return url_; }

  private:
    VirelaEnvironment(bool live, Url url) : live_(live), url_(std::move(url)) {}
    bool live_;
    Url url_;
};

/// A colour: sRGB components in 0...1.
struct Color {
    double red = 0;    ///< Red component.
    double green = 0;  ///< Green component.
    double blue = 0;   ///< Blue component.
    double alpha = 1;  ///< Opacity; 1 is opaque.
    /// Member-wise equality.
    friend bool operator==(const Color&, const Color&) = default;
};

/// How a redacted view is painted in captures and live frames: a fill in `color` with `label`
/// centred on it in `labelColor`. The default is `#E23B37` with "REDACTED" in white.
struct VirelaRedaction {
    Color color;        ///< The fill.
    std::string label;  ///< The text drawn on the fill.
    Color labelColor;   ///< The colour of that text.
    /// Member-wise equality.
    friend bool operator==(const VirelaRedaction&, const VirelaRedaction&) = default;
};

/// What the host attaches to a view to have it painted over: the style is copied in when the
/// mark is made, so a later change of the default style leaves existing marks as they are.
struct RedactionMark {
    VirelaRedaction style;  ///< The style the view is painted with.
};

/// An error value handed to the host: a VirelaError, a NetworkError from the platform, or a
/// DecodingError / SerializationError. Rethrow it to inspect it, or use describe().
using VirelaErrorValue = std::exception_ptr;

/// The host's callbacks. Every one is optional (an empty one is not called) and runs on the main
/// executor. Virela::on() stores a copy.
struct VirelaCallbacks {
    /// A consent prompt for a support request is on screen.
    std::function<void()> onRequestShown{};
    /// The customer allowed a capture and the upload succeeded.
    std::function<void(const CaptureResult&)> onAllowed{};
    /// The customer declined, or the backend reported the request as denied.
    std::function<void()> onDenied{};
    /// The request expired before the customer answered.
    std::function<void()> onExpired{};
    /// A flow failed, typically a request to the backend.
    std::function<void(const VirelaErrorValue&)> onError{};
    /// Remote control became active (true) or stopped (false).
    std::function<void(bool)> onRemoteControl{};
    /// A live screen-sharing session ended.
    std::function<void(const LiveSession&)> onLiveEnded{};
};

}  // namespace virela
