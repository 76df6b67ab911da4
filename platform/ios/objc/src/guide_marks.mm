// The agent's guides drawn in UIKit: the laser dot and the marks.

#include "platform/ios/objc/src/guide_marks.hpp"

#import <QuartzCore/QuartzCore.h>

#include <algorithm>
#include <cmath>
#include <variant>

#include "core/ports/overlay.hpp"
#include "platform/ios/objc/src/overlay_chrome.hpp"
#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {
namespace {

// Laser dot.
constexpr float kLaserShadowOpacity = 0.6f;
constexpr float kLaserShadowOpacityLow = 0.3f;
constexpr CGFloat kLaserShadowRadius = 10;
constexpr CFTimeInterval kLaserPulseSeconds = 0.7;

// Marks.
constexpr CGFloat kRedactedTextSize = 9.5;
constexpr CGFloat kRedactedKern = 1.33;
constexpr float kArrowShadowOpacity = 0.55f;
constexpr CGFloat kArrowShadowRadius = 6;
constexpr CGFloat kBubbleCornerRadius = 8;
constexpr CGFloat kBubblePointRadius = 2;  // the top-right corner, towards the anchor

NSString* const kRedacted = @"REDACTED";

CGRect toCGRect(const Rect& rect) { return CGRectMake(rect.x, rect.y, rect.width, rect.height); }

UIView* makeBoxMark(const BoxMark& box, UIColor* color) {
    VIRThemedLayerView* view =
        [[VIRThemedLayerView alloc] initWithApply:^(VIRThemedLayerView* themed) {
          themed.layer.borderColor =
              [color resolvedColorWithTraitCollection:themed.traitCollection].CGColor;
        }];
    view.frame = toCGRect(box.frame);
    view.backgroundColor = UIColor.clearColor;
    view.layer.borderWidth = guide::boxBorderWidth;
    view.layer.cornerRadius = box.cornerRadius;
    return view;
}

UIView* makeFillMark(const BoxMark& box, UIColor* color) {
    UIView* view = [[UIView alloc] initWithFrame:toCGRect(box.frame)];
    view.backgroundColor = color;
    view.layer.cornerRadius = box.cornerRadius;
    view.clipsToBounds = YES;
    UILabel* word = [[UILabel alloc] initWithFrame:CGRectZero];
    word.attributedText = [[NSAttributedString alloc]
        initWithString:kRedacted
            attributes:@{
                NSFontAttributeName : boldFont(kRedactedTextSize),
                NSForegroundColorAttributeName : toUIColor(palette::white),
                NSKernAttributeName : @(kRedactedKern),
            }];
    [word sizeToFit];
    word.center = CGPointMake(CGRectGetMidX(view.bounds), CGRectGetMidY(view.bounds));
    word.autoresizingMask =
        UIViewAutoresizingFlexibleLeftMargin | UIViewAutoresizingFlexibleRightMargin |
        UIViewAutoresizingFlexibleTopMargin | UIViewAutoresizingFlexibleBottomMargin;
    [view addSubview:word];
    return view;
}

UIView* makeArrowMark(const ArrowMark& arrow, UIColor* color) {
    CAShapeLayer* shape = [CAShapeLayer layer];
    __weak CAShapeLayer* weakShape = shape;
    VIRThemedLayerView* view =
        [[VIRThemedLayerView alloc] initWithApply:^(VIRThemedLayerView* themed) {
          weakShape.strokeColor =
              [color resolvedColorWithTraitCollection:themed.traitCollection].CGColor;
          themed.layer.shadowColor =
              [color resolvedColorWithTraitCollection:themed.traitCollection].CGColor;
        }];
    view.frame = toCGRect(arrow.frame);

    const CGPoint end = toCGPoint(arrow.end);
    UIBezierPath* path = [UIBezierPath bezierPath];
    [path moveToPoint:toCGPoint(arrow.start)];
    [path addLineToPoint:end];
    [path moveToPoint:end];
    [path addLineToPoint:toCGPoint(arrow.headLeft)];
    [path moveToPoint:end];
    [path addLineToPoint:toCGPoint(arrow.headRight)];
    shape.frame = view.bounds;
    shape.path = path.CGPath;
    shape.lineWidth = guide::arrowLineWidth;
    shape.lineCap = kCALineCapRound;
    shape.fillColor = nil;
    [view.layer addSublayer:shape];

    view.layer.shadowOpacity = kArrowShadowOpacity;
    view.layer.shadowRadius = kArrowShadowRadius;
    view.layer.shadowOffset = CGSizeZero;
    return view;
}

// A rounded rectangle whose top-right corner is sharper, pointing back at the anchor; each
// corner is a quadratic curve with the rectangle's corner as its control point.
UIBezierPath* bubblePath(CGSize size) {
    const CGFloat w = size.width;
    const CGFloat h = size.height;
    const CGFloat limit = std::min(w, h) / 2;
    const CGFloat r = std::min(kBubbleCornerRadius, limit);
    const CGFloat point = std::min(kBubblePointRadius, limit);
    UIBezierPath* path = [UIBezierPath bezierPath];
    [path moveToPoint:CGPointMake(r, 0)];
    [path addLineToPoint:CGPointMake(w - point, 0)];
    [path addQuadCurveToPoint:CGPointMake(w, point) controlPoint:CGPointMake(w, 0)];
    [path addLineToPoint:CGPointMake(w, h - r)];
    [path addQuadCurveToPoint:CGPointMake(w - r, h) controlPoint:CGPointMake(w, h)];
    [path addLineToPoint:CGPointMake(r, h)];
    [path addQuadCurveToPoint:CGPointMake(0, h - r) controlPoint:CGPointMake(0, h)];
    [path addLineToPoint:CGPointMake(0, r)];
    [path addQuadCurveToPoint:CGPointMake(r, 0) controlPoint:CGPointMake(0, 0)];
    [path closePath];
    return path;
}

UIView* makeLabelMark(const LabelMark& mark, UIColor* color) {
    UILabel* label = [[UILabel alloc] initWithFrame:CGRectZero];
    label.text = toNSString(mark.text);
    label.font = semiboldFont(guide::labelFontSize);
    label.textColor = toUIColor(palette::white);
    label.numberOfLines = 0;
    const CGFloat maxWidth = std::max<CGFloat>(mark.maxWidth, 0);
    CGSize fit = [label sizeThatFits:CGSizeMake(maxWidth, CGFLOAT_MAX)];
    fit.width = std::min(fit.width, maxWidth);

    const CGSize size =
        CGSizeMake(fit.width + guide::labelPaddingX, fit.height + guide::labelPaddingY);
    UIView* bubble =
        [[UIView alloc] initWithFrame:CGRectMake(mark.anchor.x, mark.anchor.y - size.height / 2,
                                                 size.width, size.height)];
    bubble.backgroundColor = color;
    label.frame =
        CGRectMake(guide::labelPaddingX / 2, guide::labelPaddingY / 2, fit.width, fit.height);
    [bubble addSubview:label];
    CAShapeLayer* mask = [CAShapeLayer layer];
    mask.frame = bubble.bounds;
    mask.path = bubblePath(size).CGPath;
    bubble.layer.mask = mask;
    return bubble;
}

}  // namespace

CGPoint toCGPoint(Point point) { return CGPointMake(point.x, point.y); }

bool isFinite(Point point) { return std::isfinite(point.x) && std::isfinite(point.y); }

VIRThemedLayerView* makeLaserDot() {
    UIColor* red = toUIColor(palette::liveRed);
    VIRThemedLayerView* dot = [[VIRThemedLayerView alloc] initWithApply:shadowApply(red)];
    dot.bounds = CGRectMake(0, 0, guide::laserSize, guide::laserSize);
    dot.backgroundColor = red;
    dot.userInteractionEnabled = NO;
    CALayer* layer = dot.layer;
    layer.cornerRadius = guide::laserSize / 2;
    layer.shadowOpacity = kLaserShadowOpacity;
    layer.shadowRadius = kLaserShadowRadius;
    layer.shadowOffset = CGSizeZero;
    addPulse(layer, @"shadowOpacity", kLaserShadowOpacity, kLaserShadowOpacityLow,
             kLaserPulseSeconds);
    return dot;
}

UIView* _Nullable makeMark(const MarkGeometry& mark, UIColor* color) {
    switch (mark.kind) {
        case GuideKind::box:
        case GuideKind::fill: {
            const auto* box = std::get_if<BoxMark>(&mark.shape);
            if (!box || !box->frame.isFinite() || !std::isfinite(box->cornerRadius)) return nil;
            return mark.kind == GuideKind::box ? makeBoxMark(*box, color)
                                               : makeFillMark(*box, color);
        }
        case GuideKind::arrow: {
            const auto* arrow = std::get_if<ArrowMark>(&mark.shape);
            if (!arrow || !arrow->frame.isFinite() || !isFinite(arrow->start) ||
                !isFinite(arrow->end) || !isFinite(arrow->headLeft) ||
                !isFinite(arrow->headRight)) {
                return nil;
            }
            return makeArrowMark(*arrow, color);
        }
        case GuideKind::label: {
            const auto* label = std::get_if<LabelMark>(&mark.shape);
            if (!label || !std::isfinite(label->maxWidth) || !isFinite(label->anchor)) return nil;
            return makeLabelMark(*label, color);
        }
        case GuideKind::laser:
        case GuideKind::laserOff:
            break;
    }
    return nil;
}

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
