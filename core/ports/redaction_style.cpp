#include "core/ports/redaction_style.hpp"

#include <mutex>

namespace virela {
namespace {

struct DefaultStyle {
    std::mutex lock;
    VirelaRedaction style{Color{226.0 / 255, 59.0 / 255, 55.0 / 255, 1}, "REDACTED",
                          Color{1, 1, 1, 1}};
};

DefaultStyle& defaults() {
    static DefaultStyle instance;
    return instance;
}

}  // namespace

VirelaRedaction defaultRedactionStyle() {
    auto& d = defaults();
    std::lock_guard guard(d.lock);
    return d.style;
}

void setDefaultRedactionStyle(VirelaRedaction style) {
    auto& d = defaults();
    std::lock_guard guard(d.lock);
    d.style = std::move(style);
}

std::shared_ptr<const RedactionMark> makeRedactionMark() {
    return std::make_shared<const RedactionMark>(RedactionMark{defaultRedactionStyle()});
}

std::shared_ptr<const RedactionMark> makeRedactionMark(std::optional<Color> color,
                                                       std::optional<std::string> label,
                                                       std::optional<Color> labelColor) {
    VirelaRedaction style = defaultRedactionStyle();
    if (color) style.color = *color;
    if (label) style.label = std::move(*label);
    if (labelColor) style.labelColor = *labelColor;
    return std::make_shared<const RedactionMark>(RedactionMark{std::move(style)});
}

}  // namespace virela
