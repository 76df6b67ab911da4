#include "platform/headless/overlay_presenter.hpp"

#include <algorithm>
#include <cmath>

#include "core/ports/palette.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/render/font.hpp"

namespace virela::headless {

namespace {

// Above the host's alerts and the session banner.
constexpr double kOverlayLevel = 2001;
// The renderer draws a label's text at this share of its height, this far from its left edge:
// labels are sized so that their text comes out at the font size asked for.
constexpr double kTextRatio = 0.6;
constexpr double kTextInset = 4;
constexpr double kLineHeight = 1.2;  // of the font size, for wrapped label marks
constexpr double kPillTop = 12;      // below the safe area, which has no inset here
constexpr double kGapUnderPill = 10;
constexpr double kScreenEdgeGap = 12;  // the banner keeps this far from the sides
constexpr double kDotSize = 8;

std::shared_ptr<View> textLabel(const std::string& text, double fontSize, Color color) {
    return label({0, 0, textWidth(text, fontSize) + 2 * kTextInset, fontSize / kTextRatio}, text,
                 color);
}

std::shared_ptr<View> dot(Color color) {
    auto d = view({0, 0, kDotSize, kDotSize}, color);
    d->cornerRadius = kDotSize / 2;
    d->userInteractionEnabled = false;
    return d;
}

// A horizontal stack: `items` left to right with `spacing` between them, centred vertically,
// inside `container`, which takes the size that holds them within `margins`.
void stack(View& container, const std::vector<std::shared_ptr<View>>& items, double spacing,
           EdgeInsets margins) {
    double height = 0;
    for (const auto& item : items) height = std::max(height, item->frame.height);
    double x = margins.left;
    for (const auto& item : items) {
        item->frame.x = x;
        item->frame.y = margins.top + (height - item->frame.height) / 2;
        x += item->frame.width + spacing;
        if (item->superview() != &container) container.addSubview(item);
    }
    if (!items.empty()) x -= spacing;
    container.frame.width = x + margins.right;
    container.frame.height = margins.top + height + margins.bottom;
}

std::shared_ptr<View> capsuleButton(const std::string& title, Color background,
                                    std::function<void()> action) {
    auto b = button({0, 0, textWidth(title, 12) + 2 * 11, 12 / kTextRatio}, title, background);
    b->textColor = palette::white.resolve();
    b->cornerRadius = 12;
    b->onActions = [action = std::move(action)](std::uint64_t events) {
        if ((events & controlEventTouchUpInside) && action) action();
    };
    return b;
}

// Words laid into lines no wider than `width` at `fontSize`; a word wider than a line has one to
// itself (and is cut off by the bubble).
std::vector<std::string> wrap(const std::string& text, double fontSize, double width) {
    std::vector<std::string> lines;
    std::string line;
    std::size_t at = 0;
    while (at <= text.size()) {
        std::size_t end = text.find(' ', at);
        if (end == std::string::npos) end = text.size();
        const std::string word = text.substr(at, end - at);
        const std::string longer = line.empty() ? word : line + " " + word;
        if (!line.empty() && textWidth(longer, fontSize) > width) {
            lines.push_back(line);
            line = word;
        } else {
            line = longer;
        }
        at = end + 1;
    }
    lines.push_back(line);
    return lines;
}

}  // namespace

HeadlessOverlayPresenter::HeadlessOverlayPresenter(std::function<Appearance()> appearance)
    : appearance_(std::move(appearance)) {}

HeadlessOverlayPresenter::~HeadlessOverlayPresenter() {
    onChange_ = nullptr;
    hide();
}

Appearance HeadlessOverlayPresenter::look() const {
    return appearance_ ? appearance_() : Appearance::unspecified;
}

// Animations (the pulses, the pop-in, the laser's glide, the fades) end at once on this screen:
// every view is shown in its final state, and a fade removes its view right away.

bool HeadlessOverlayPresenter::show(HostHandle anchor, const std::string& status,
                                    std::function<void()> onStop) {
    hide();
    Window* host = resolve<Window>(anchor);
    if (!host || !host->scene()) return false;
    const Appearance appearance = look();
    const Color red = palette::liveRed.resolve(appearance);
    onStop_ = std::move(onStop);

    window_ = std::make_shared<Window>("VIRPassthroughWindow");
    window_->frame = host->frame;
    window_->screenOrigin = host->screenOrigin;
    window_->level = kOverlayLevel;
    window_->passthrough = true;  // touches fall through but for its targets; never captured
    root_ = view({0, 0, host->frame.width, host->frame.height});
    window_->rootViewController = std::make_shared<ViewController>();
    window_->rootViewController->view = root_;
    window_->addSubview(root_);

    // The screen frame. The display's corner radius is not known here, so it is square.
    auto frame = view({0, 0, root_->frame.width, root_->frame.height});
    frame->accessibilityIdentifier = "virela.live.frame";
    frame->borderColor = red;
    frame->borderWidth = 3;
    frame->userInteractionEnabled = false;
    frame->clipsToBounds = true;
    root_->addSubview(frame);

    pill_ = view({}, red);
    pill_->accessibilityIdentifier = "virela.live.pill";
    pill_->cornerRadius = 22;
    pillContent_ = view({});
    pillContent_->userInteractionEnabled = false;
    pillContent_->isAccessibilityElement = true;
    pillContent_->accessibilityLabel = "Sharing your screen live";
    pillContent_->addSubview(dot(palette::onAccent.resolve(appearance)));
    statusLabel_ = textLabel(status, 13, palette::white.resolve());
    pillContent_->addSubview(statusLabel_);
    stopButton_ = capsuleButton("Stop", palette::whiteGlass24.resolve(), [this] {
        // Copied: stopping may take this overlay down while the callback runs.
        if (auto stop = onStop_) stop();
    });
    layOutPill();
    root_->addSubview(pill_);
    window_->targets.push_back([weak = std::weak_ptr<View>(stopButton_)] { return weak.lock(); });

    host->scene()->addWindow(window_);
    window_->show();
    changed();
    return isShowing();
}

void HeadlessOverlayPresenter::layOutPill() {
    stack(*pillContent_, pillContent_->subviews(), 8, {});
    stack(*pill_, {pillContent_, stopButton_}, 10, {9, 14, 9, 10});
    pill_->frame.x = (root_->frame.width - pill_->frame.width) / 2;
    pill_->frame.y = kPillTop;
}

Point HeadlessOverlayPresenter::underPill() const {
    return {pill_->frame.midX(), pill_->frame.maxY() + kGapUnderPill};
}

void HeadlessOverlayPresenter::hide() {
    if (!window_) return;
    removeToast();
    hideControlBanner();
    marks_.clear();
    laser_.reset();
    window_->hide();
    if (Scene* scene = window_->scene()) scene->removeWindow(*window_);
    window_.reset();
    root_.reset();
    pill_.reset();
    pillContent_.reset();
    statusLabel_.reset();
    stopButton_.reset();
    onStop_ = nullptr;
    changed();
}

bool HeadlessOverlayPresenter::isShowing() {
    return window_ && !window_->hidden && window_->scene() && pill_ && pill_->superview();
}

void HeadlessOverlayPresenter::setStatus(const std::string& text) {
    if (!statusLabel_) return;
    statusLabel_->text = text;
    statusLabel_->accessibilityLabel = text;
    statusLabel_->frame.width = textWidth(text, 13) + 2 * kTextInset;
    layOutPill();
    changed();
}

Size HeadlessOverlayPresenter::rootSize() {
    if (!root_) return {};
    return {root_->frame.width, root_->frame.height};
}

bool HeadlessOverlayPresenter::showToast(const OverlayToast& toast) {
    if (!root_ || !pill_) return false;
    removeToast();
    const Appearance appearance = look();
    toast_ = view({}, palette::ink.resolve());
    toast_->accessibilityIdentifier = "virela.live.toast";
    toast_->cornerRadius = 12;
    toast_->userInteractionEnabled = false;
    std::shared_ptr<View> lead = toast.recording ? dot(palette::onAccent.resolve(appearance))
                                                 : textLabel("\u2713", 13, palette::mint.resolve());
    // onAccent on ink in both appearances, as on the device.
    stack(*toast_, {lead, textLabel(toast.text, 12, palette::onAccent.resolve(appearance))}, 7,
          {9, 13, 9, 13});
    const Point at = underPill();
    toast_->frame.x = at.x - toast_->frame.width / 2;
    toast_->frame.y = at.y;
    root_->addSubview(toast_);
    toastState_ = toast;
    changed();
    return true;
}

void HeadlessOverlayPresenter::removeToast() {
    if (toast_) toast_->removeFromSuperview();
    toast_.reset();
    toastState_.reset();
}

void HeadlessOverlayPresenter::fadeOutToast() {
    if (!toast_) return;
    removeToast();
    changed();
}

bool HeadlessOverlayPresenter::showControlBanner(std::function<void()> onTakeBack) {
    if (!window_ || !root_ || !pill_) return false;
    hideControlBanner();
    onTakeBack_ = std::move(onTakeBack);
    const Color white = palette::white.resolve();
    banner_ = view({}, palette::ink.resolve());
    banner_->accessibilityIdentifier = "virela.live.control";
    banner_->cornerRadius = 20;
    auto text = textLabel("Support is controlling your screen", 13, white);
    text->clipsToBounds = true;  // squeezed, it is cut off at the end
    takeBackButton_ = capsuleButton("Take back control", palette::whiteGlass18.resolve(), [this] {
        if (auto takeBack = onTakeBack_) takeBack();
    });
    const EdgeInsets margins{10, 15, 10, 12};
    stack(*banner_, {dot(palette::mint.resolve()), text, takeBackButton_}, 10, margins);
    // Kept inside the screen's edges: the text gives way.
    const double room = root_->frame.width - 2 * kScreenEdgeGap;
    if (banner_->frame.width > room) {
        text->frame.width = std::max(0.0, text->frame.width - (banner_->frame.width - room));
        stack(*banner_, banner_->subviews(), 10, margins);
    }
    const Point at = underPill();
    banner_->frame.x = at.x - banner_->frame.width / 2;
    banner_->frame.y = at.y;
    root_->addSubview(banner_);
    window_->targets.push_back(
        [weak = std::weak_ptr<View>(takeBackButton_)] { return weak.lock(); });
    changed();
    return banner_->superview() != nullptr;
}

void HeadlessOverlayPresenter::hideControlBanner() {
    if (takeBackButton_ && window_) {
        // The button's entry goes, and with it any entry whose view is gone.
        std::erase_if(window_->targets, [&](const auto& target) {
            const std::shared_ptr<View> v = target ? target() : nullptr;
            return !v || v == takeBackButton_;
        });
    }
    const bool wasShown = banner_ != nullptr;
    if (banner_) banner_->removeFromSuperview();
    banner_.reset();
    takeBackButton_.reset();
    onTakeBack_ = nullptr;
    if (wasShown) changed();
}

bool HeadlessOverlayPresenter::isShowingControlBanner() {
    return isShowing() && banner_ && banner_->superview();
}

void HeadlessOverlayPresenter::moveLaser(Point to) {
    if (!root_) return;
    if (!laser_ || laser_->superview() != root_.get()) {
        laser_ = view({}, palette::liveRed.resolve(look()));
        laser_->accessibilityIdentifier = "virela.live.laser";
        laser_->cornerRadius = 15.0 / 2;
        laser_->userInteractionEnabled = false;
        root_->addSubview(laser_);
    }
    laser_->frame = {to.x - 15.0 / 2, to.y - 15.0 / 2, 15, 15};
    laser_->hidden = false;
    changed();
}

void HeadlessOverlayPresenter::hideLaser() {
    if (!laser_ || laser_->hidden) return;
    laser_->hidden = true;
    changed();
}

bool HeadlessOverlayPresenter::addMark(std::uint64_t id, const MarkGeometry& mark,
                                       const std::optional<Color>& color) {
    if (!root_) return false;
    const Color tint = color.value_or(palette::liveRed.resolve(look()));
    const Color white = palette::white.resolve();
    std::shared_ptr<View> v;
    std::string text;
    if (const auto* box = std::get_if<BoxMark>(&mark.shape)) {
        v = view(box->frame);
        v->cornerRadius = box->cornerRadius;
        if (mark.kind == GuideKind::fill) {
            v->background = tint;
            v->clipsToBounds = true;
            text = "REDACTED";
            auto word = textLabel(text, 9.5, white);
            word->frame.x = (box->frame.width - word->frame.width) / 2;
            word->frame.y = (box->frame.height - word->frame.height) / 2;
            v->addSubview(word);
        } else {
            v->borderColor = tint;
            v->borderWidth = 2.5;
        }
    } else if (const auto* arrow = std::get_if<ArrowMark>(&mark.shape)) {
        v = view(arrow->frame);
        v->strokes = {{arrow->start, arrow->end},
                      {arrow->end, arrow->headLeft},
                      {arrow->end, arrow->headRight}};
        v->strokeWidth = 4.5;
        v->strokeColor = tint;
    } else {
        const auto& bubble = std::get<LabelMark>(mark.shape);
        constexpr double font = 12;
        text = bubble.text;
        const std::vector<std::string> lines = wrap(text, font, bubble.maxWidth);
        double width = 0;
        for (const auto& line : lines) width = std::max(width, textWidth(line, font));
        width = std::min(width, bubble.maxWidth);
        const double height = static_cast<double>(lines.size()) * font * kLineHeight;
        // All four corners come out rounded alike here; the sharper top-right corner of the
        // device's bubble is not drawn.
        v = view({bubble.anchor.x, bubble.anchor.y - (height + 6) / 2, width + 16, height + 6},
                 tint);
        // Not clipped: the lines sit inside the bubble, and the renderer would cut a rounded
        // clip short of its corners, text included.
        v->cornerRadius = 8;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            auto line = label({8 - kTextInset,
                               3 + static_cast<double>(i) * font * kLineHeight +
                                   (font * kLineHeight - font / kTextRatio) / 2,
                               width + 2 * kTextInset, font / kTextRatio},
                              lines[i], white);
            v->addSubview(line);
        }
    }
    v->userInteractionEnabled = false;
    root_->addSubview(v);
    marks_.push_back({id, mark.kind, tint, std::move(text), v});
    changed();
    return true;
}

void HeadlessOverlayPresenter::fadeOutMark(std::uint64_t id) {
    const auto it =
        std::find_if(marks_.begin(), marks_.end(), [id](const Mark& m) { return m.id == id; });
    if (it == marks_.end()) return;
    it->view->removeFromSuperview();
    marks_.erase(it);
    changed();
}

void HeadlessOverlayPresenter::removeMarks() {
    if (marks_.empty()) return;
    for (const Mark& m : marks_) m.view->removeFromSuperview();
    marks_.clear();
    changed();
}

std::unique_ptr<Subscription> HeadlessOverlayPresenter::watchScrolls(
    HostHandle anchor, std::function<void()> onScroll) {
    Window* window = resolve<Window>(anchor);
    if (!window) return std::make_unique<CallbackSubscription>([] {});
    auto recognizer = std::make_shared<PanRecognizer>();
    // Only movement counts; a drag that starts and ends in place scrolled nothing.
    recognizer->action = [onScroll = std::move(onScroll)](PanRecognizer::State state, Point) {
        if (state == PanRecognizer::State::changed && onScroll) onScroll();
    };
    window->panRecognizers.push_back(recognizer);
    return std::make_unique<CallbackSubscription>([anchor, recognizer] {
        if (Window* w = resolve<Window>(anchor)) std::erase(w->panRecognizers, recognizer);
    });
}

std::optional<OverlayState> HeadlessOverlayPresenter::state() const {
    if (!window_ || !statusLabel_) return std::nullopt;
    OverlayState s;
    s.status = statusLabel_->text;
    s.toast = toastState_;
    s.controlBanner = banner_ && banner_->superview();
    if (laser_ && !laser_->hidden && laser_->superview()) {
        s.laser = Point{laser_->frame.midX(), laser_->frame.midY()};
    }
    for (const Mark& m : marks_) {
        s.marks.push_back({m.id, m.kind, m.view->frame, m.color, m.text});
    }
    return s;
}

bool HeadlessOverlayPresenter::press(std::string_view title) {
    if (!window_ || window_->hidden) return false;
    for (const auto& target : std::vector(window_->targets)) {
        const std::shared_ptr<View> v = target ? target() : nullptr;
        if (!v || v->hidden || v->window() != window_.get() || v->text != title) continue;
        // The action may take the overlay, and this button, down.
        const auto action = v->onActions;
        if (action) action(controlEventTouchUpInside);
        return true;
    }
    return false;
}

void HeadlessOverlayPresenter::changed() {
    if (onChange_) onChange_();
}

}  // namespace virela::headless
