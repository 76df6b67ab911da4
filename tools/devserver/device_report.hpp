#pragma once

#include <functional>
#include <string>
#include <variant>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

// What a device reported through an SDK endpoint, told by the route once the backend accepted
// it, or, for an indicator or a frame, turned it away for a lapsed lease. The books hold the
// state; these are for whoever narrates it (the console's journal) or acts on it.
namespace report {
struct Identified {
    IdentifiedUser user;
};
struct HealthReported {};
struct PromptShown {
    std::string promptId;
};
struct ScreenshotAnswered {
    std::string requestId;
    bool allow = false;
};
struct ScreenshotUploaded {
    std::string requestId;
    std::string captureId;
};
struct IndicatorConfirmed {
    std::string sessionId;
    std::string kind;
    std::string generation;
    bool accepted = true;  // false: answered 409 lease_mismatch
    std::string reason;    // why it was refused
};
struct ScreenshotRefused {
    std::string requestId;
    std::string reason;
};
struct FrameReceived {
    std::string sessionId;
    bool dropped = false;  // refused: not allowed, or the sharing lease lapsed
    std::string reason;    // why it was refused
};
struct LiveAnswered {
    std::string sessionId;
    bool allow = false;
};
struct ControlAnswered {
    std::string sessionId;
    bool allow = false;
};
struct ControlFeedback {
    std::string sessionId;
    std::string kind;
};
}  // namespace report

struct DeviceReport {
    std::string deviceId;
    std::variant<report::Identified, report::HealthReported, report::PromptShown,
                 report::ScreenshotAnswered, report::ScreenshotUploaded, report::ScreenshotRefused,
                 report::IndicatorConfirmed, report::FrameReceived, report::LiveAnswered,
                 report::ControlAnswered, report::ControlFeedback>
        what;
};

// Called on the server thread before the reply goes out; empty when nobody listens.
using ReportHandler = std::function<void(const DeviceReport&)>;

}  // namespace virela::devserver
