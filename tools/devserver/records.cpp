#include "tools/devserver/records.hpp"

#include <utility>

#include "tools/devserver/exchange.hpp"

namespace virela::devserver {

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
    for (const Header& h : headers) {
        if (equalsIgnoringCase(h.name, name)) return h.value;
    }
    return std::nullopt;
}

ControlInput ControlInput::tapAt(double x, double y) {
    ControlInput input;
    input.x = x;
    input.y = y;
    return input;
}

ControlInput ControlInput::scrollAt(double x, double y, double dx, double dy) {
    ControlInput input = tapAt(x, y);
    input.action = "scroll";
    input.dx = dx;
    input.dy = dy;
    return input;
}

ControlInput ControlInput::typeText(std::string text) {
    ControlInput input;
    input.action = "type";
    input.text = std::move(text);
    return input;
}

ControlInput ControlInput::pressKey(std::string key) {
    ControlInput input;
    input.action = "key";
    input.key = std::move(key);
    return input;
}

}  // namespace virela::devserver
