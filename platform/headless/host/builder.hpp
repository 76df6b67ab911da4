#pragma once

// Describes a screen in a few lines:
//
//   HeadlessHost host;
//   auto window = makeAppWindow(host, {390, 844});
//   auto form = add(*window, view({0, 100, 390, 300}, rgb(0xFFFFFF)));
//   add(*form, textField({16, 16, 358, 44}, "hunter2", /*secure=*/true));

#include <cstdint>
#include <memory>
#include <string>

#include "platform/headless/host/headless_host.hpp"

namespace virela::headless {

Color rgb(std::uint32_t hex, double alpha = 1) noexcept;

// A foreground-active scene with one key window of the given size, shown.
std::shared_ptr<Window> makeAppWindow(HeadlessHost& host, Size size,
                                      Color background = {1, 1, 1, 1});
// Another window in the scene of `sibling`, shown, at `level`.
std::shared_ptr<Window> addWindow(const Window& sibling, double level,
                                  std::string typeName = "UIWindow");

std::shared_ptr<View> view(Rect frame, std::optional<Color> background = std::nullopt);
std::shared_ptr<View> label(Rect frame, std::string text, Color color = {0.09, 0.13, 0.10, 1});
std::shared_ptr<View> button(Rect frame, std::string title,
                             Color background = {0.05, 0.42, 0.34, 1});
std::shared_ptr<View> textField(Rect frame, std::string text, bool secure = false);
std::shared_ptr<View> textView(Rect frame, std::string text);
std::shared_ptr<View> switchControl(Rect frame, bool on);
std::shared_ptr<View> slider(Rect frame, double value, double minimum = 0, double maximum = 1);
std::shared_ptr<View> segmented(Rect frame, long segments, long selected);
std::shared_ptr<View> scrollView(Rect frame, Size contentSize);

// Adds `child` to `parent` and hands the child back.
template <class V>
std::shared_ptr<V> add(View& parent, std::shared_ptr<V> child) {
    parent.addSubview(child);
    return child;
}

}  // namespace virela::headless
