#pragma once

// Confirms to the backend that an indicator the customer sees is on screen: "sharing" (the live
// overlay), "recording" (its recording toast) and "control" (the control banner), each under the
// generation the backend granted. The backend holds frames, recordings and input to these
// confirmations; the device only reports, so a refusal or failure is logged and the next check
// tries again. Main executor only.

#include <memory>
#include <string>

namespace virela {

class FlowContext;
class Log;

class IndicatorConfirmations {
  public:
    // `context` outlives these confirmations.
    IndicatorConfirmations(FlowContext& context, std::shared_ptr<Log> log)
        : context_(context), log_(std::move(log)) {}

    void confirm(const std::string& sessionId, const std::string& kind,
                 const std::string& generation);

  private:
    FlowContext& context_;
    std::shared_ptr<Log> log_;
};

}  // namespace virela
