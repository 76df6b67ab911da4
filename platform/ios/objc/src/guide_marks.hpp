#pragma once

// The agent's guides in UIKit: the laser dot and the marks (box, fill, arrow, label), each a view
// placed where core's geometry says. Main thread only.

#import <UIKit/UIKit.h>

#import "VirelaAgentObjC/VIRThemedLayerView.h"
#include "core/ports/overlay.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

CGPoint toCGPoint(Point point);
bool isFinite(Point point);

VIRThemedLayerView* makeLaserDot();

// Nil when the geometry does not fit the kind or holds a value that is not a finite number
// (a layer placed at NaN raises).
UIView* _Nullable makeMark(const MarkGeometry& mark, UIColor* color);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
