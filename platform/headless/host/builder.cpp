#include "platform/headless/host/builder.hpp"

namespace virela::headless {

Color rgb(std::uint32_t hex, double alpha) noexcept {
    return {static_cast<double>((hex >> 16) & 0xFF) / 255,
            static_cast<double>((hex >> 8) & 0xFF) / 255, static_cast<double>(hex & 0xFF) / 255,
            alpha};
}

std::shared_ptr<Window> makeAppWindow(HeadlessHost& host, Size size, Color background) {
    auto scene = host.addScene(SceneActivation::foregroundActive);
    auto window = scene->addWindow(std::make_shared<Window>());
    window->frame = {0, 0, size.width, size.height};
    window->background = background;
    window->makeKeyAndVisible();
    return window;
}

std::shared_ptr<Window> addWindow(const Window& sibling, double level, std::string typeName) {
    auto window = std::make_shared<Window>(std::move(typeName));
    window->frame = sibling.frame;
    window->screenOrigin = sibling.screenOrigin;
    window->level = level;
    if (Scene* scene = sibling.scene()) scene->addWindow(window);
    window->show();
    return window;
}

namespace {

// A view that is its own accessibility element, as UIKit's labels and controls are.
std::shared_ptr<View> element(ViewKind kind, Rect frame) {
    auto v = std::make_shared<View>(kind);
    v->frame = frame;
    v->isAccessibilityElement = true;
    return v;
}

}  // namespace

std::shared_ptr<View> view(Rect frame, std::optional<Color> background) {
    auto v = std::make_shared<View>();
    v->frame = frame;
    v->background = background;
    return v;
}

std::shared_ptr<View> label(Rect frame, std::string text, Color color) {
    auto v = element(ViewKind::label, frame);
    v->text = std::move(text);
    v->textColor = color;
    v->accessibilityLabel = v->text;
    return v;
}

std::shared_ptr<View> button(Rect frame, std::string title, Color background) {
    auto v = element(ViewKind::button, frame);
    v->text = std::move(title);
    v->textColor = {1, 1, 1, 1};
    v->background = background;
    v->accessibilityLabel = v->text;
    v->accessibilityTraits = 0x1;  // button
    return v;
}

std::shared_ptr<View> textField(Rect frame, std::string text, bool secure) {
    auto v = element(ViewKind::textField, frame);
    v->text = std::move(text);
    v->secureTextEntry = secure;
    v->background = Color{1, 1, 1, 1};
    v->borderColor = Color{0.8, 0.8, 0.78, 1};
    v->borderWidth = 1;
    return v;
}

std::shared_ptr<View> textView(Rect frame, std::string text) {
    auto v = element(ViewKind::textView, frame);
    v->text = std::move(text);
    return v;
}

std::shared_ptr<View> switchControl(Rect frame, bool on) {
    auto v = element(ViewKind::switchControl, frame);
    v->isOn = on;
    return v;
}

std::shared_ptr<View> slider(Rect frame, double value, double minimum, double maximum) {
    auto v = element(ViewKind::slider, frame);
    v->value = value;
    v->minimumValue = minimum;
    v->maximumValue = maximum;
    return v;
}

std::shared_ptr<View> segmented(Rect frame, long segments, long selected) {
    auto v = element(ViewKind::segmentedControl, frame);
    v->numberOfSegments = segments;
    v->selectedSegment = selected;
    return v;
}

std::shared_ptr<View> scrollView(Rect frame, Size contentSize) {
    auto v = std::make_shared<View>(ViewKind::scrollView);
    v->frame = frame;
    v->contentSize = contentSize;
    v->clipsToBounds = true;
    return v;
}

}  // namespace virela::headless
