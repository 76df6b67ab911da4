#include "core/live/live_overlay.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "core/live/guides.hpp"

namespace virela {

namespace {

constexpr double kToastSeconds = 5.5;
// A controller tree deeper than this is not one a host builds; stop rather than loop.
constexpr int kMaxScreenDepth = 64;

}  // namespace

HostHandle topScreen(HostInterface& host, NodeReader* reader, HostHandle window) {
    if (!reader || window == noHandle) return noHandle;
    const std::optional<WindowFacts> facts = host.readWindow(window);
    if (!facts) return noHandle;
    HostHandle current = facts->rootViewController;
    for (int depth = 0; current != noHandle && depth < kMaxScreenDepth; ++depth) {
        const std::optional<ControllerFacts> controller = reader->readController(current);
        if (!controller) return current;
        if (controller->presented != noHandle) {
            current = controller->presented;
        } else if (controller->kind != ControllerKind::plain && controller->top != noHandle) {
            current = controller->top;
        } else {
            break;
        }
    }
    return current;
}

std::shared_ptr<LiveOverlay> LiveOverlay::create(Parts parts) {
    return std::shared_ptr<LiveOverlay>(new LiveOverlay(std::move(parts)));
}

LiveOverlay::LiveOverlay(Parts parts) : parts_(std::move(parts)) {}

bool LiveOverlay::show(HostHandle anchor, std::function<void()> onStop) {
    hide();
    std::weak_ptr<LiveOverlay> weak = weak_from_this();
    const bool shown = parts_.presenter->show(anchor, std::string(overlay_text::idle), [weak] {
        auto self = weak.lock();
        if (self && self->onStop_) self->onStop_();
    });
    if (!shown) {
        parts_.presenter->hide();
        return false;
    }
    shown_ = true;
    anchor_ = anchor;
    status_ = overlay_text::idle;
    onStop_ = std::move(onStop);
    return isShowing();
}

void LiveOverlay::hide() {
    if (toastRemoval_) toastRemoval_->cancel();
    toastRemoval_.reset();
    if (pointingReset_) pointingReset_->cancel();
    pointingReset_.reset();
    hideControlBanner();
    parts_.presenter->hide();  // the mark views go with the window
    marks_.clear();
    endWatch();
    shown_ = false;
    status_ = overlay_text::idle;
    onStop_ = nullptr;
}

bool LiveOverlay::isShowing() const {
    return shown_ && parts_.presenter->isShowing();
}

bool LiveOverlay::showControlBanner(std::function<void()> onTakeBack) {
    if (!shown_) return false;
    hideControlBanner();
    onTakeBack_ = std::move(onTakeBack);
    std::weak_ptr<LiveOverlay> weak = weak_from_this();
    return parts_.presenter->showControlBanner([weak] {
        auto self = weak.lock();
        if (self && self->onTakeBack_) self->onTakeBack_();
    });
}

void LiveOverlay::hideControlBanner() {
    if (shown_) parts_.presenter->hideControlBanner();
    onTakeBack_ = nullptr;
}

bool LiveOverlay::isShowingControlBanner() const {
    return isShowing() && parts_.presenter->isShowingControlBanner();
}

bool LiveOverlay::showNote(LiveNoteKind kind, bool withMarks) {
    if (!shown_) return false;
    OverlayToast toast;
    toast.recording = kind == LiveNoteKind::recordingStarted;
    toast.text = toast.recording ? overlay_text::recording
                 : withMarks     ? overlay_text::snapshotWithMarks
                                 : overlay_text::snapshot;
    if (toastRemoval_) toastRemoval_->cancel();
    toastRemoval_.reset();
    if (!parts_.presenter->showToast(toast)) return false;

    // The serial makes sure a removal only ever takes the toast it was armed for, even if a
    // cancelled timer were to fire late.
    const std::uint64_t serial = ++toastSerial_;
    std::weak_ptr<LiveOverlay> weak = weak_from_this();
    toastRemoval_ = parts_.clock->after(TimerId::toastRemoval, kToastSeconds, [weak, serial] {
        auto self = weak.lock();
        if (!self || self->toastSerial_ != serial) return;
        self->toastRemoval_.reset();
        if (self->shown_) self->parts_.presenter->fadeOutToast();
    });
    return true;
}

void LiveOverlay::setStatus(std::string_view text) {
    if (status_ == text) return;
    status_ = text;
    if (shown_) parts_.presenter->setStatus(status_);
}

void LiveOverlay::notePointing(double seconds) {
    setStatus(overlay_text::pointing);
    if (pointingReset_) pointingReset_->cancel();
    std::weak_ptr<LiveOverlay> weak = weak_from_this();
    pointingReset_ = parts_.clock->after(TimerId::pointingReset, seconds, [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->pointingReset_.reset();
        self->setStatus(overlay_text::idle);
        // The marks stay until their fade; only the watch for screen changes ends.
        self->endWatch();
    });
    beginWatch();
}

void LiveOverlay::beginWatch() {
    marksShowing_ = true;
    markedScreen_ = topScreen(*parts_.host, parts_.reader.get(), anchor_);
    if (scrollWatch_ || anchor_ == noHandle || !parts_.host->readWindow(anchor_)) return;
    std::weak_ptr<LiveOverlay> weak = weak_from_this();
    scrollWatch_ = parts_.presenter->watchScrolls(anchor_, [weak] {
        if (auto self = weak.lock()) self->scrolled();
    });
}

void LiveOverlay::endWatch() {
    marksShowing_ = false;
    markedScreen_ = noHandle;
    scrollWatch_.reset();
}

void LiveOverlay::clearMarks() {
    parts_.presenter->hideLaser();
    parts_.presenter->removeMarks();
    marks_.clear();
}

void LiveOverlay::viewChanged(std::string_view kind) {
    clearMarks();
    endWatch();
    if (onViewChanged_) onViewChanged_(kind);
}

void LiveOverlay::scrolled() {
    // One drag reports once: the first movement ends the watch.
    if (marksShowing_) viewChanged("scroll");
}

void LiveOverlay::checkScreen() {
    if (!marksShowing_ || markedScreen_ == noHandle || !parts_.reader) return;
    // A marked screen that has been freed proves nothing about where the customer is now.
    if (!parts_.reader->readController(markedScreen_)) return;
    if (markedScreen_ != topScreen(*parts_.host, parts_.reader.get(), anchor_)) {
        viewChanged("nav");
    }
}

void LiveOverlay::setOnViewChanged(std::function<void(std::string_view kind)> onViewChanged) {
    onViewChanged_ = std::move(onViewChanged);
}

void LiveOverlay::drawGuide(const GuidePush& push) {
    if (!shown_) return;
    const std::optional<GuideKind> kind = guideKindNamed(push.kind);
    if (!kind) return;
    const Size root = parts_.presenter->rootSize();
    switch (*kind) {
        case GuideKind::laser: {
            const Point target = guidePoint(push, root);
            if (!std::isfinite(target.x) || !std::isfinite(target.y)) return;
            parts_.presenter->moveLaser(target);
            break;
        }
        case GuideKind::laserOff:
            parts_.presenter->hideLaser();
            break;
        case GuideKind::arrow:
        case GuideKind::box:
        case GuideKind::fill:
        case GuideKind::label: {
            const std::optional<MarkGeometry> mark = guideMark(push, root);
            if (!mark) return;
            const std::uint64_t id = ++nextMark_;
            if (!parts_.presenter->addMark(id, *mark, guideColor(push.color))) return;
            marks_.push_back(id);
            std::weak_ptr<LiveOverlay> weak = weak_from_this();
            parts_.clock->after(TimerId::markFade, guide::fadeAfterSeconds, [weak, id] {
                auto self = weak.lock();
                if (!self) return;
                auto it = std::find(self->marks_.begin(), self->marks_.end(), id);
                // A mark wiped by a scroll or navigation meanwhile is left alone.
                if (it == self->marks_.end()) return;
                self->marks_.erase(it);
                self->parts_.presenter->fadeOutMark(id);
            });
            break;
        }
    }
    notePointing(pointingSeconds(*kind));
}

}  // namespace virela
