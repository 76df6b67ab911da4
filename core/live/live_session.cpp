#include "core/live/live_session.hpp"

#include "core/base/errors.hpp"
#include "core/base/url.hpp"
#include "core/capture/capture.hpp"
#include "core/control/windows.hpp"
#include "core/flow/consent_prompt.hpp"
#include "core/flow/flow_context.hpp"
#include "core/flow/indicator_confirmations.hpp"
#include "core/flow/sheets.hpp"
#include "core/ports/fatal.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/device_records.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

namespace {

constexpr double kFrameInterval = 1.0 / 3;
constexpr double kVisibleStateInterval = 10;

// The session id goes into paths as it arrives; one that would not make a valid path is
// refused up front, so that sharing never starts without a way to answer or upload.
bool usableInPath(const std::string& sessionId) {
    return Url::parse(paths::live(sessionId, "/respond")).has_value();
}

// The backend no longer knows the session.
bool sessionGone(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const VirelaError& e) {
        return e.status() == 404 || e.status() == 410;
    } catch (...) {
        return false;
    }
}

}  // namespace

std::string viewMessage(std::string_view kind, std::string_view sessionId) {
    std::string message = R"({"type":"view","kind":")";
    message.append(kind).append(R"(","sessionId":")").append(sessionId).append(R"("})");
    return message;
}

std::shared_ptr<LiveSessionFlow> LiveSessionFlow::create(Parts parts, FlowContext& context) {
    return std::shared_ptr<LiveSessionFlow>(new LiveSessionFlow(std::move(parts), context));
}

LiveSessionFlow::LiveSessionFlow(Parts parts, FlowContext& context)
    : parts_(std::move(parts)),
      context_(context),
      indicators_(std::make_shared<IndicatorConfirmations>(context, parts_.log)) {
    lease_ = ControlLease::create(
        {parts_.main, parts_.log, parts_.host, parts_.overlay, indicators_}, context);
    intake_ = ControlIntake::create({.main = parts_.main,
                                     .log = parts_.log,
                                     .host = parts_.host,
                                     .actions = parts_.actions,
                                     .lease = lease_,
                                     .route = std::move(parts_.applyInput)},
                                    context);
}

LiveSessionFlow::~LiveSessionFlow() {
    if (frameTimer_) frameTimer_->cancel();
    if (visibleStateTimer_) visibleStateTimer_->cancel();
}

void LiveSessionFlow::handleLive(const LivePush& push) {
    VIRELA_ASSERT_MAIN(*parts_.main, "LiveSessionFlow::handleLive");
    if (push.state != LiveState::ended && !usableInPath(push.sessionId)) {
        if (parts_.log) {
            parts_.log->write(LogLevel::error, "live request dropped: session id \"" +
                                                   push.sessionId +
                                                   "\" cannot form a request path");
        }
        return;
    }
    switch (push.state) {
        case LiveState::requested:
            ask(push);
            return;
        case LiveState::active:
            start(push.sessionId);
            sharingGeneration_ = push.generation;
            if (sharingGeneration_ && sessionId_ == push.sessionId && parts_.overlay &&
                parts_.overlay->isShowing()) {
                indicators_->confirm(push.sessionId, "sharing", *sharingGeneration_);
            }
            return;
        case LiveState::ended:
            context_.prompt().cancelExpiry();
            context_.prompt().dismiss();
            endLocally();
            return;
    }
}

void LiveSessionFlow::ask(const LivePush& push) {
    const auto& host = parts_.host;
    // Without an overlay sharing could never start; the customer is not asked for nothing.
    if (!context_.registration() || !host || !parts_.overlay) return;
    const std::optional<WindowFacts> window = findCaptureWindow(*host);
    if (!window) return;

    answering_.reset();  // a newer request replaces an answer still on its way
    context_.prompt().dismiss();
    if (const auto& shown = context_.callbacks().onRequestShown) shown();

    const ConsentSheet sheet = makeConsentSheet(
        CaptureMode::liveView, push.consentCopy.value_or(std::string(liveDefaultConsentCopy)),
        push.agentName, push.workspaceName, push.logoUrl);
    std::weak_ptr<LiveSessionFlow> weak = weak_from_this();
    context_.prompt().showConsent(window->handle, sheet, ConsentPrompt::Showing::consent,
                                  [weak, sessionId = push.sessionId](ConsentPrompt::Choice choice) {
                                      if (auto self = weak.lock()) {
                                          self->answer(sessionId,
                                                       choice == ConsentPrompt::Choice::allow);
                                      }
                                  });
    if (push.expiresAt) {
        context_.prompt().armExpiry(*parts_.clock, *push.expiresAt, [weak] {
            auto self = weak.lock();
            if (!self) return;
            if (const auto& expired = self->context_.callbacks().onExpired) expired();
        });
    }
    context_.reportPromptShown(push.promptId);
}

void LiveSessionFlow::answer(const std::string& sessionId, bool allow) {
    context_.prompt().cancelExpiry();
    auto transport = context_.transport();
    if (!transport) fatalPrecondition("a live answer needs the transport that configure made");
    if (allow) answering_ = sessionId;
    std::weak_ptr<LiveSessionFlow> weak = weak_from_this();
    transport->postJson(
        paths::live(sessionId, "/respond"), {{"allow", allow}}, false,
        [weak, sessionId, allow, epoch = context_.epoch()](const SendResult& result) {
            auto self = weak.lock();
            if (!self || !self->context_.isCurrent(epoch)) return;
            if (!result) {
                if (const auto& onError = self->context_.callbacks().onError) onError(result.error);
                return;
            }
            // A live request that is declined has no further outcome.
            if (!allow || self->answering_ != sessionId) return;
            self->answering_.reset();
            self->start(sessionId);
        });
}

void LiveSessionFlow::start(const std::string& sessionId) {
    // A repeated "active", or one that follows our own start, changes nothing.
    if (sessionId_ == sessionId && frameTimer_) return;
    endLocally();
    const auto& host = parts_.host;
    if (!host) return;
    const std::optional<WindowFacts> window = findCaptureWindow(*host);
    if (!window) return;
    sessionId_ = sessionId;

    std::weak_ptr<LiveSessionFlow> weak = weak_from_this();
    // The customer is never watched without seeing it: no overlay, no sharing.
    if (!parts_.overlay || !parts_.overlay->show(window->handle, [weak] {
            if (auto self = weak.lock()) self->customerStop();
        })) {
        endLocally();
        return;
    }
    parts_.overlay->setOnViewChanged([weak, sessionId](std::string_view kind) {
        auto self = weak.lock();
        // A message never names a session that is over.
        if (self && self->sessionId_ == sessionId && self->parts_.sendText) {
            self->parts_.sendText(viewMessage(kind, sessionId));
        }
    });

    frameTimer_ = parts_.clock->every(TimerId::liveFrame, kFrameInterval, [weak, sessionId] {
        if (auto self = weak.lock()) self->frameTick(sessionId);
    });
    visibleStateTimer_ =
        parts_.clock->every(TimerId::visibleState, kVisibleStateInterval, [weak, sessionId] {
            if (auto self = weak.lock()) self->visibleStateCheck(sessionId);
        });
    // The agent sees the screen at once, not a third of a second later.
    frameTick(sessionId);
}

void LiveSessionFlow::frameTick(const std::string& sessionId) {
    if (parts_.lifecycle && parts_.lifecycle->inBackground()) return;
    if (sessionId_ != sessionId) return;
    // The screen may have changed under the agent's marks since the last tick.
    if (parts_.overlay) parts_.overlay->checkScreen();

    std::vector<std::uint8_t> jpeg;
    try {
        if (!parts_.renderer) return;
        if (!capture_) {
            capture_ =
                std::make_unique<ScreenCapture>(context_.windows(), parts_.renderer, parts_.log);
        }
        jpeg = capture_->capture(true);
    } catch (const VirelaError&) {
        return;  // nothing to show this tick; the next one tries again
    }
    if (sessionId_ != sessionId) return;

    auto transport = context_.transport();
    if (!transport) return;
    const std::string_view bytes(reinterpret_cast<const char*>(jpeg.data()), jpeg.size());
    std::weak_ptr<LiveSessionFlow> weak = weak_from_this();
    // Not held back by the uploads still out: a slow backend never delays the next tick, and
    // the request timeout bounds how many can be out at once.
    transport->send(transport->imageUploadRequest(paths::live(sessionId, "/frame"), bytes),
                    [weak, sessionId](const SendResult& result) {
                        auto self = weak.lock();
                        if (!self || result || !sessionGone(result.error)) return;
                        if (self->sessionId_ == sessionId) self->endLocally();
                    });
}

void LiveSessionFlow::customerStop() {
    const std::optional<std::string> stopped = sessionId_;
    endLocally();
    auto transport = context_.transport();
    if (!stopped || !transport) return;
    // Only a report: the session has already ended here.
    transport->postJson(paths::live(*stopped, "/respond"), {{"allow", false}}, false,
                        [](const SendResult&) {});
}

void LiveSessionFlow::endLocally() {
    const std::optional<std::string> ended = std::move(sessionId_);
    sessionId_.reset();
    answering_.reset();
    if (frameTimer_) frameTimer_->cancel();
    frameTimer_.reset();
    if (visibleStateTimer_) visibleStateTimer_->cancel();
    visibleStateTimer_.reset();
    sharingGeneration_.reset();
    recordingGeneration_.reset();
    if (parts_.overlay) parts_.overlay->hide();
    lease_->endLocally();
    if (!ended) return;
    if (const auto& onLiveEnded = context_.callbacks().onLiveEnded)
        onLiveEnded(LiveSession{*ended});
}

void LiveSessionFlow::visibleStateCheck(const std::string& sessionId) {
    if (sessionId_ != sessionId) return;
    if (!parts_.overlay || !parts_.overlay->isShowing()) {
        endLocally();
        return;
    }
    if (sharingGeneration_) indicators_->confirm(sessionId, "sharing", *sharingGeneration_);
    if (recordingGeneration_) indicators_->confirm(sessionId, "recording", *recordingGeneration_);
    lease_->visibleStateCheck(sessionId);
}

void LiveSessionFlow::handleNote(const LiveNotePush& push) {
    if (!sessionId_ || push.sessionId != *sessionId_ || !parts_.overlay) return;
    switch (push.kind) {
        case LiveNoteKind::frameSaved:
            if (parts_.overlay->showNote(LiveNoteKind::frameSaved, push.guides.value_or(false))) {
                context_.reportPromptShown(push.promptId);
            }
            return;
        case LiveNoteKind::recordingStarted:
            // A recording the customer was not shown is not confirmed to the backend.
            if (!parts_.overlay->showNote(LiveNoteKind::recordingStarted, false)) return;
            context_.reportPromptShown(push.promptId);
            recordingGeneration_ = push.generation;
            if (recordingGeneration_) {
                indicators_->confirm(*sessionId_, "recording", *recordingGeneration_);
            }
            return;
        case LiveNoteKind::recordingStopped:
            recordingGeneration_.reset();
            return;
    }
}

void LiveSessionFlow::handleControl(const ControlPush& push) {
    // Control exists only inside the live session it belongs to.
    if (!sessionId_ || *sessionId_ != push.sessionId) return;
    lease_->handleControl(push);
}

void LiveSessionFlow::handleInput(const ControlInputPush& push) {
    intake_->handleInput(push, sessionId_);
}

void LiveSessionFlow::onEnterForeground() {
    std::optional<ControlPush> held = lease_->takePending();
    if (!held) return;
    std::weak_ptr<LiveSessionFlow> weak = weak_from_this();
    parts_.main->post([weak, held = std::move(*held)] {
        if (auto self = weak.lock()) self->handleControl(held);
    });
}

void LiveSessionFlow::handleGuide(const GuidePush& push) {
    if (!sessionId_ || push.sessionId != *sessionId_ || !parts_.overlay) return;
    parts_.overlay->drawGuide(push);
}

}  // namespace virela
