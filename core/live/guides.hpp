#pragma once

// What the agent's guides draw on the live overlay, as plain geometry: which kind a guide is,
// its colour, and where each mark goes on a root view of a given size. The platform builds its
// views and layers from these numbers; nothing here touches a view.

#include <optional>
#include <string>
#include <string_view>

#include "core/base/geometry.hpp"
#include "core/base/records.hpp"
#include "core/ports/overlay.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

// Matched exactly and case-sensitively; nullopt for any other kind, which is ignored.
std::optional<GuideKind> guideKindNamed(std::string_view kind);

// How long the pill says that support is pointing after a guide of `kind`.
double pointingSeconds(GuideKind kind);

// The agent's colour when `color` is exactly "#RRGGBB" (hex digits in either case), opaque;
// nullopt for every other form, which means the palette's liveRed.
std::optional<Color> guideColor(const std::optional<std::string>& color);

// The text a "label" guide shows: `text` trimmed of whitespace and newlines at both ends, cut
// to its first 40 characters (a character being what a reader counts: a base with its combining
// marks, an emoji with its modifiers and joined parts); "Tap here" when nothing is left.
std::string guideLabelText(const std::optional<std::string>& text);

// What the rules below lay marks out and time them with; the sizes and timings the presenter
// draws with sit beside its port, in core/ports/overlay.hpp.
namespace guide {
inline constexpr double arrowMargin = 16;
inline constexpr double arrowHeadLength = 13;
inline constexpr double labelMaxWidthFraction = 0.7;
inline constexpr double fadeAfterSeconds = 3.6;
inline constexpr std::size_t labelMaxCharacters = 40;
}  // namespace guide

// The point a guide's x and y name on a root view of `root` points (absent values are the
// centre; nothing is clamped, so fractions outside 0 to 1 land off screen).
Point guidePoint(const GuidePush& push, Size root);

// The mark an "arrow", "box", "fill" or "label" guide draws on a root view of `root` points;
// nullopt for the laser kinds and unknown ones.
std::optional<MarkGeometry> guideMark(const GuidePush& push, Size root);

}  // namespace virela
