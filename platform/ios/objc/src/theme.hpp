#pragma once

// UIKit colours from the core's palette. The palette decides which value an appearance takes;
// this only turns the values into UIColor.

#import <UIKit/UIKit.h>

#include "core/base/records.hpp"
#include "core/ports/palette.hpp"
#include "core/ports/platform.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

Appearance appearanceOf(UIUserInterfaceStyle style);

// Component for component, in sRGB.
UIColor* toUIColor(const Color& color);
UIColor* toUIColor(const FixedColor& color);
// A dynamic colour: UIKit resolves it for the view's appearance whenever it draws. `alpha`
// replaces the palette's opaque alpha (the sheet's dimming is drawn translucent).
UIColor* toUIColor(const AdaptiveColor& color, double alpha = 1);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
