#pragma once

// The one palette every piece of interface the library shows takes its colours from: core picks
// the colour of each part, and the platform's presenters paint with it. Adaptive colours follow
// the device's light and dark appearance; fixed ones never change.

#include <string_view>

#include "core/base/records.hpp"
#include "core/ports/platform.hpp"

namespace virela {

// Lenient on purpose: a leading "#" is dropped, the rest is read as a 32-bit hexadecimal number
// (one leading "+" accepted), and anything unreadable gives black. Bits above the low 24 are
// ignored, so eight digits do not carry alpha.
Color colorFromHex(std::string_view text, double alpha = 1) noexcept;

struct AdaptiveColor {
    std::string_view light;
    std::string_view dark;
    // The dark value in the dark appearance; the light one otherwise (light or unspecified).
    Color resolve(Appearance appearance) const noexcept {
        return colorFromHex(appearance == Appearance::dark ? dark : light);
    }
};

struct FixedColor {
    std::string_view hex;
    double alpha;
    Color resolve() const noexcept { return colorFromHex(hex, alpha); }
};

namespace palette {

inline constexpr AdaptiveColor liveRed{"#DC3834", "#FF6A64"};
inline constexpr AdaptiveColor onAccent{"#FFFFFF", "#0A140F"};
inline constexpr AdaptiveColor shadowDeep{"#172019", "#0A0F0C"};
inline constexpr AdaptiveColor accentDeep{"#0C6B57", "#6FCF9B"};
inline constexpr AdaptiveColor alertOrange{"#FF5A3C", "#FF7A60"};
inline constexpr AdaptiveColor backdrop{"#14201A", "#000000"};
inline constexpr AdaptiveColor sessionTint{"#CFE3D4", "#1F3A2B"};

// The prompts' theme, slots 1 to 8 in order.
inline constexpr AdaptiveColor promptTheme[8] = {
    {"#FFFFFF", "#1C2620"}, {"#172019", "#F2F1E9"}, {"#5E6B60", "#A9B8AC"}, {"#5D6959", "#9AAB9E"},
    {"#F3F0E6", "#232E27"}, {"#E5E1D4", "#2A342C"}, {"#E7F1E9", "#14291F"}, {"#0A5A49", "#7FD8A6"},
};

inline constexpr FixedColor ink{"#1C2620", 1};
inline constexpr FixedColor white{"#FFFFFF", 1};
inline constexpr FixedColor mint{"#6FCF9B", 1};
inline constexpr FixedColor whiteGlass18{"#FFFFFF", 0.18};
inline constexpr FixedColor whiteGlass24{"#FFFFFF", 0.24};

}  // namespace palette
}  // namespace virela
