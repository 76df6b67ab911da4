#include "core/lease/control_intake.hpp"

#include "core/base/errors.hpp"
#include "core/control/windows.hpp"
#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

std::shared_ptr<ControlIntake> ControlIntake::create(Parts parts, FlowContext& context) {
    return std::shared_ptr<ControlIntake>(new ControlIntake(std::move(parts), context));
}

ControlIntake::ControlIntake(Parts parts, FlowContext& context)
    : parts_(std::move(parts)), context_(context) {}

ControlIntake::~ControlIntake() = default;

void ControlIntake::handleInput(const ControlInputPush& input,
                                const std::optional<std::string>& liveSession) {
    VIRELA_ASSERT_MAIN(*parts_.main, "ControlIntake::handleInput");
    // The rules in this order; the first that fails ends the handling.
    if (!parts_.lease->mayApplyInput()) {
        log(LogLevel::error, "control input '" + input.action +
                                 "' dropped: control is not active on this device (banner "
                                 "never attached, or the grant was never confirmed)");
        return;
    }
    if (!liveSession || *liveSession != input.sessionId) {
        log(LogLevel::error, "control input dropped: session mismatch (input for a stale session)");
        return;
    }
    const auto& host = parts_.host;
    const std::optional<WindowFacts> target = host ? findActiveWindow(*host) : std::nullopt;
    if (!target) {
        log(LogLevel::error,
            "control input '" + input.action + "' dropped: no active window to apply it to");
        return;
    }
    // A remote agent must never answer the library's own consent or control prompts.
    if (context_.prompt().showing()) {
        log(LogLevel::info,
            "control input '" + input.action + "' dropped: an SDK prompt is on screen — by design");
        return;
    }
    switch (apply(input, *target)) {
        case ControlOutcome::none:
            return;
        case ControlOutcome::menuOpened:
            sendFeedback(input.sessionId, "menuOpened");
            return;
        case ControlOutcome::menuItemInert:
            sendFeedback(input.sessionId, "menuItemInert");
            return;
    }
}

ControlOutcome ControlIntake::apply(const ControlInputPush& input, const WindowFacts& target) {
    if (parts_.route) return parts_.route(input, target);
    if (!engine_) {
        engine_ = std::make_unique<InputEngine>(
            InputEngine::Parts{parts_.host, parts_.actions, parts_.log}, context_.windows());
    }
    return engine_->route(input, target);
}

void ControlIntake::sendFeedback(const std::string& sessionId, std::string_view kind) {
    auto transport = context_.transport();
    if (!transport) return;
    std::weak_ptr<ControlIntake> weak = weak_from_this();
    // Fire and forget: nothing waits for it and nothing is retried.
    transport->postJson(paths::live(sessionId, "/control/feedback"), {{"kind", std::string(kind)}},
                        false, [weak, kind = std::string(kind)](const SendResult& result) {
                            auto self = weak.lock();
                            if (!self || result) return;
                            self->log(LogLevel::error, "control feedback '" + kind +
                                                           "' failed: " + describe(result.error));
                        });
}

void ControlIntake::log(LogLevel level, const std::string& line) const {
    if (parts_.log) parts_.log->write(level, line);
}

}  // namespace virela
