#include "core/base/records.hpp"

namespace virela {

namespace {
constexpr const char* kLiveBaseUrl = "https://api.virela.io";
}

const char* rawValue(CaptureMode mode) noexcept {
    switch (mode) {
        case CaptureMode::askEveryTime:
            return "AskEveryTime";
        case CaptureMode::perSession:
            return "PerSession";
        case CaptureMode::liveView:
            return "LiveView";
    }
    return "AskEveryTime";
}

std::optional<CaptureMode> captureModeFromRaw(std::string_view raw) noexcept {
    if (raw == "AskEveryTime") return CaptureMode::askEveryTime;
    if (raw == "PerSession") return CaptureMode::perSession;
    if (raw == "LiveView") return CaptureMode::liveView;
    return std::nullopt;
}

VirelaEnvironment VirelaEnvironment::live() {
    static const Url url = *Url::parse(kLiveBaseUrl);
    return VirelaEnvironment(true, url);
}

VirelaEnvironment VirelaEnvironment::custom(Url url) {
    return VirelaEnvironment(false, std::move(url));
}

}  // namespace virela
