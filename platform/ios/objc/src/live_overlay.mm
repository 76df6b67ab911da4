// The live overlay, built in code: its own window above the app, which takes only the touches
// on "Stop" and "Take back control" and lets every other touch through to the app.

#import "platform/ios/objc/src/live_overlay.hpp"

#import <QuartzCore/QuartzCore.h>
#import <UIKit/UIKit.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#import "VirelaAgentObjC/VIRThemedLayerView.h"
#include "core/live/guides.hpp"
#import "platform/ios/objc/src/passthrough_window.h"
#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

NS_ASSUME_NONNULL_BEGIN

// The buttons' target. UIControl holds its targets weakly; the presenter keeps this one.
@interface VIRLiveOverlayActions : NSObject
@property(nonatomic, copy, nullable) void (^onStop)(void);
@property(nonatomic, copy, nullable) void (^onTakeBack)(void);
- (void)stopTapped;
- (void)takeBackTapped;
@end

@implementation VIRLiveOverlayActions

// Each runs a local reference: the callback may hide the overlay, which clears the property
// while the block is still running.
- (void)stopTapped {
    void (^run)(void) = self.onStop;
    if (run) run();
}

- (void)takeBackTapped {
    void (^run)(void) = self.onTakeBack;
    if (run) run();
}

@end

// Watches pans on a view without taking them from the app: it cancels and delays no touch and
// recognizes alongside every other recognizer.
@interface VIRScrollWatcher : NSObject <UIGestureRecognizerDelegate>
- (instancetype)initWithOnScroll:(void (^)(void))onScroll NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
// A watcher that is attached already ignores a second attach.
- (void)attachTo:(UIView*)view;
- (void)detach;
@end

@implementation VIRScrollWatcher {
    void (^_onScroll)(void);
    __weak UIView* _attachedTo;
    UIPanGestureRecognizer* _Nullable _recognizer;
}

- (instancetype)initWithOnScroll:(void (^)(void))onScroll {
    self = [super init];
    if (self) _onScroll = [onScroll copy];
    return self;
}

- (void)attachTo:(UIView*)view {
    if (_recognizer) return;
    UIPanGestureRecognizer* recognizer =
        [[UIPanGestureRecognizer alloc] initWithTarget:self action:@selector(dragged:)];
    recognizer.cancelsTouchesInView = NO;
    recognizer.delaysTouchesBegan = NO;
    recognizer.delaysTouchesEnded = NO;
    recognizer.delegate = self;
    [view addGestureRecognizer:recognizer];
    _recognizer = recognizer;
    _attachedTo = view;
}

- (void)detach {
    UIPanGestureRecognizer* recognizer = _recognizer;
    if (recognizer) [_attachedTo removeGestureRecognizer:recognizer];
    _recognizer = nil;
    _attachedTo = nil;
}

- (void)dragged:(UIPanGestureRecognizer*)recognizer {
    if (recognizer.state != UIGestureRecognizerStateChanged) return;
    // Last: the callback may end the watch, which releases this watcher.
    void (^run)(void) = _onScroll;
    if (run) run();
}

- (BOOL)gestureRecognizer:(UIGestureRecognizer*)gestureRecognizer
    shouldRecognizeSimultaneouslyWithGestureRecognizer:(UIGestureRecognizer*)other {
    return YES;
}

@end

NS_ASSUME_NONNULL_END

namespace virela::ios {
namespace {

using VoidBlock = void (^)(void);
using ApplyBlock = void (^)(VIRThemedLayerView*);

// One step above UIKit's alert level (a variable, so only the step is constant): over the app's
// own alerts, so "Stop" can always be reached.
constexpr UIWindowLevel kLevelsAboveAlert = 1;

// Screen frame.
constexpr CGFloat kFrameBorderWidth = 3;
constexpr float kFrameShadowOpacity = 0.3f;
constexpr float kFrameShadowOpacityLow = 0.12f;
constexpr CGFloat kFrameShadowRadius = 26;
constexpr CFTimeInterval kFramePulseSeconds = 0.9;

// Pulsing dot (pill and recording toast).
constexpr CGFloat kDotSize = 8;
constexpr CFTimeInterval kDotPulseSeconds = 0.6;
constexpr float kDotOpacityLow = 0.35f;
constexpr float kDotScaleLow = 0.78f;

// Pill.
constexpr CGFloat kStatusTextSize = 13;
constexpr CGFloat kStatusMinimumScale = 0.75;
constexpr CGFloat kPillDotSpacing = 8;
constexpr CGFloat kPillSpacing = 10;
constexpr NSDirectionalEdgeInsets kPillMargins = {9, 14, 9, 10};
constexpr CGFloat kPillCornerRadius = 22;
constexpr float kPillShadowOpacity = 0.5f;
constexpr CGFloat kPillShadowRadius = 13;
constexpr CGSize kPillShadowOffset = {0, 5};
constexpr CGFloat kPillTop = 12;  // below the safe area's top

// Buttons.
constexpr CGFloat kButtonTitleSize = 12;
constexpr CGFloat kButtonCornerRadius = 12;
constexpr NSDirectionalEdgeInsets kStopInsets = {4, 11, 4, 11};
constexpr UIEdgeInsets kTakeBackInsets = {4, 12, 4, 12};

// What sits under the pill: toasts and the control banner.
constexpr CGFloat kBelowPill = 10;
constexpr CGFloat kSideMargin = 12;  // the least gap to the root view's sides
constexpr CGFloat kToastSpacing = 7;
constexpr NSDirectionalEdgeInsets kToastMargins = {9, 13, 9, 13};
constexpr CGFloat kToastTextSize = 12;
constexpr CGFloat kToastCornerRadius = 12;
constexpr float kToastShadowOpacity = 0.4f;
constexpr CGFloat kToastShadowRadius = 13;
constexpr CGSize kToastShadowOffset = {0, 5};
constexpr NSTimeInterval kToastFadeSeconds = 0.2;
constexpr CGFloat kBannerSpacing = 10;
constexpr NSDirectionalEdgeInsets kBannerMargins = {10, 15, 10, 12};
constexpr CGFloat kBannerCornerRadius = 20;
constexpr float kBannerShadowOpacity = 0.45f;
constexpr CGFloat kBannerShadowRadius = 15;
constexpr CGSize kBannerShadowOffset = {0, 6};

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

NSString* const kPillAccessibilityLabel = @"Sharing your screen live";
NSString* const kStopTitle = @"Stop";
NSString* const kControlText = @"Support is controlling your screen";
NSString* const kTakeBackTitle = @"Take back control";
NSString* const kRedacted = @"REDACTED";
NSString* const kCheckMark = @"\u2713";

VoidBlock _Nullable blockFrom(std::function<void()> function) {
    if (!function) return nil;
    return ^{
      function();
    };
}

UIFont* boldFont(CGFloat size) { return [UIFont systemFontOfSize:size weight:UIFontWeightBold]; }

UIFont* semiboldFont(CGFloat size) {
    return [UIFont systemFontOfSize:size weight:UIFontWeightSemibold];
}

void constrainSize(UIView* view, CGFloat width, CGFloat height) {
    [NSLayoutConstraint activateConstraints:@[
        [view.widthAnchor constraintEqualToConstant:width],
        [view.heightAnchor constraintEqualToConstant:height],
    ]];
}

void pinEdges(UIView* view, UIView* container) {
    [NSLayoutConstraint activateConstraints:@[
        [view.topAnchor constraintEqualToAnchor:container.topAnchor],
        [view.leadingAnchor constraintEqualToAnchor:container.leadingAnchor],
        [view.trailingAnchor constraintEqualToAnchor:container.trailingAnchor],
        [view.bottomAnchor constraintEqualToAnchor:container.bottomAnchor],
    ]];
}

// Under the pill, centred on it, never wider than the root view allows.
void placeUnderPill(UIView* view, UIView* pill, UIView* root) {
    [NSLayoutConstraint activateConstraints:@[
        [view.centerXAnchor constraintEqualToAnchor:pill.centerXAnchor],
        [view.topAnchor constraintEqualToAnchor:pill.bottomAnchor constant:kBelowPill],
        [view.leadingAnchor constraintGreaterThanOrEqualToAnchor:root.leadingAnchor
                                                        constant:kSideMargin],
        [view.trailingAnchor constraintLessThanOrEqualToAnchor:root.trailingAnchor
                                                      constant:-kSideMargin],
    ]];
}

UIStackView* makeRow(NSArray<UIView*>* views, CGFloat spacing) {
    UIStackView* row = [[UIStackView alloc] initWithArrangedSubviews:views];
    row.translatesAutoresizingMaskIntoConstraints = NO;
    row.axis = UILayoutConstraintAxisHorizontal;
    row.alignment = UIStackViewAlignmentCenter;
    row.spacing = spacing;
    return row;
}

UILabel* makeLabel(NSString* text, UIFont* font, UIColor* color) {
    UILabel* label = [[UILabel alloc] initWithFrame:CGRectZero];
    label.translatesAutoresizingMaskIntoConstraints = NO;
    label.text = text;
    label.font = font;
    label.textColor = color;
    return label;
}

// Layers take CGColors, which do not follow the appearance; these re-resolve them for the
// view's appearance whenever it changes. Each assignment is one expression, so the resolved
// UIColor outlives the setter that takes its CGColor.
ApplyBlock shadowApply(UIColor* color) {
    return ^(VIRThemedLayerView* view) {
      view.layer.shadowColor =
          [color resolvedColorWithTraitCollection:view.traitCollection].CGColor;
    };
}

ApplyBlock borderAndShadowApply(UIColor* color) {
    return ^(VIRThemedLayerView* view) {
      view.layer.borderColor =
          [color resolvedColorWithTraitCollection:view.traitCollection].CGColor;
      view.layer.shadowColor =
          [color resolvedColorWithTraitCollection:view.traitCollection].CGColor;
    };
}

// A capsule background sized by its content.
VIRThemedLayerView* makeBackground(ApplyBlock apply, UIColor* background, CGFloat cornerRadius,
                                   float shadowOpacity, CGFloat shadowRadius, CGSize shadowOffset) {
    VIRThemedLayerView* view = [[VIRThemedLayerView alloc] initWithApply:apply];
    view.translatesAutoresizingMaskIntoConstraints = NO;
    view.backgroundColor = background;
    view.layer.cornerRadius = cornerRadius;
    view.layer.cornerCurve = kCACornerCurveContinuous;
    view.layer.shadowOpacity = shadowOpacity;
    view.layer.shadowRadius = shadowRadius;
    view.layer.shadowOffset = shadowOffset;
    return view;
}

void addPulse(CALayer* layer, NSString* keyPath, float from, float to, CFTimeInterval duration) {
    CABasicAnimation* pulse = [CABasicAnimation animationWithKeyPath:keyPath];
    pulse.fromValue = @(from);
    pulse.toValue = @(to);
    pulse.duration = duration;
    pulse.autoreverses = YES;
    pulse.repeatCount = std::numeric_limits<float>::infinity();
    pulse.timingFunction =
        [CAMediaTimingFunction functionWithName:kCAMediaTimingFunctionEaseInEaseOut];
    // Core Animation removes finished-by-default animations when the app goes to the
    // background; the pulse has to be running again when the customer comes back.
    pulse.removedOnCompletion = NO;
    [layer addAnimation:pulse forKey:[@"virela-pulse-" stringByAppendingString:keyPath]];
}

UIView* makePulsingDot() {
    UIView* dot = [[UIView alloc] initWithFrame:CGRectZero];
    dot.translatesAutoresizingMaskIntoConstraints = NO;
    dot.backgroundColor = toUIColor(palette::onAccent);
    dot.layer.cornerRadius = kDotSize / 2;
    constrainSize(dot, kDotSize, kDotSize);
    addPulse(dot.layer, @"opacity", 1, kDotOpacityLow, kDotPulseSeconds);
    addPulse(dot.layer, @"transform.scale", 1, kDotScaleLow, kDotPulseSeconds);
    return dot;
}

// The display's own corner radius is not public API: the frame follows the glass's curve when
// the screen answers for it, and has square corners otherwise.
CGFloat displayCornerRadius(UIScreen* _Nullable screen) {
    NSString* key = @"_displayCornerRadius";
    if (!screen || ![screen respondsToSelector:NSSelectorFromString(key)]) return 0;
    @try {
        id value = [screen valueForKey:key];
        if (![value isKindOfClass:NSNumber.class]) return 0;
        const double radius = static_cast<NSNumber*>(value).doubleValue;
        return std::isfinite(radius) && radius > 0 ? radius : 0;
    } @catch (NSException*) {
        return 0;
    }
}

UIView* makeScreenFrame(UIView* root, UIScreen* _Nullable screen) {
    UIColor* red = toUIColor(palette::liveRed);
    VIRThemedLayerView* frame =
        [[VIRThemedLayerView alloc] initWithApply:borderAndShadowApply(red)];
    frame.frame = root.bounds;
    frame.autoresizingMask = UIViewAutoresizingFlexibleWidth | UIViewAutoresizingFlexibleHeight;
    frame.userInteractionEnabled = NO;
    frame.clipsToBounds = YES;
    CALayer* layer = frame.layer;
    layer.borderWidth = kFrameBorderWidth;
    layer.cornerRadius = displayCornerRadius(screen);
    layer.cornerCurve = kCACornerCurveContinuous;
    layer.shadowOpacity = kFrameShadowOpacity;
    layer.shadowRadius = kFrameShadowRadius;
    layer.shadowOffset = CGSizeZero;
    addPulse(layer, @"shadowOpacity", kFrameShadowOpacity, kFrameShadowOpacityLow,
             kFramePulseSeconds);
    return frame;
}

UIButton* makeStopButton() {
    UIButtonConfiguration* configuration = [UIButtonConfiguration plainButtonConfiguration];
    configuration.title = kStopTitle;
    configuration.baseForegroundColor = toUIColor(palette::white);
    configuration.contentInsets = kStopInsets;
    configuration.titleTextAttributesTransformer =
        ^NSDictionary<NSAttributedStringKey, id>*(NSDictionary<NSAttributedStringKey, id>* in) {
        NSMutableDictionary<NSAttributedStringKey, id>* out = [in mutableCopy];
        out[NSFontAttributeName] = semiboldFont(kButtonTitleSize);
        return out;
    };
    UIBackgroundConfiguration* background = configuration.background;
    background.backgroundColor = toUIColor(palette::whiteGlass24);
    background.cornerRadius = kButtonCornerRadius;
    configuration.background = background;
    // Otherwise the configuration picks its own radius from the button's size.
    configuration.cornerStyle = UIButtonConfigurationCornerStyleFixed;
    UIButton* button = [UIButton buttonWithConfiguration:configuration primaryAction:nil];
    button.translatesAutoresizingMaskIntoConstraints = NO;
    return button;
}

UIButton* makeTakeBackButton() {
    UIButton* button = [UIButton buttonWithType:UIButtonTypeSystem];
    button.translatesAutoresizingMaskIntoConstraints = NO;
    [button setTitle:kTakeBackTitle forState:UIControlStateNormal];
    [button setTitleColor:toUIColor(palette::white) forState:UIControlStateNormal];
    button.titleLabel.font = semiboldFont(kButtonTitleSize);
    button.backgroundColor = toUIColor(palette::whiteGlass18);
    button.layer.cornerRadius = kButtonCornerRadius;
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
    // A button without a configuration still honours these; iOS 15 deprecates them only in
    // favour of configurations.
    button.contentEdgeInsets = kTakeBackInsets;
#pragma clang diagnostic pop
    return button;
}

// A text that shrinks or wraps before its neighbours (a button, a dot, a tick) are squeezed.
void yieldWidthFirst(UIView* view) {
    [view setContentCompressionResistancePriority:UILayoutPriorityDefaultHigh - 1
                                          forAxis:UILayoutConstraintAxisHorizontal];
}

struct Pill {
    VIRThemedLayerView* view;
    UILabel* status;
    UIButton* stop;
};

// The pill on `root`, pinned under the safe area's top.
Pill makePill(UIView* root, NSString* status) {
    UILabel* label = makeLabel(status, boldFont(kStatusTextSize), toUIColor(palette::white));
    // A long status shrinks a little, then truncates, rather than push "Stop" off screen.
    label.adjustsFontSizeToFitWidth = YES;
    label.minimumScaleFactor = kStatusMinimumScale;
    yieldWidthFirst(label);
    UIStackView* dotAndLabel = makeRow(@[ makePulsingDot(), label ], kPillDotSpacing);
    dotAndLabel.userInteractionEnabled = NO;
    UIView* summary = [[UIView alloc] initWithFrame:CGRectZero];
    summary.translatesAutoresizingMaskIntoConstraints = NO;
    summary.isAccessibilityElement = YES;
    summary.accessibilityLabel = kPillAccessibilityLabel;
    summary.accessibilityTraits = UIAccessibilityTraitStaticText;
    [summary addSubview:dotAndLabel];
    pinEdges(dotAndLabel, summary);

    UIButton* button = makeStopButton();
    UIStackView* row = makeRow(@[ summary, button ], kPillSpacing);
    row.layoutMarginsRelativeArrangement = YES;
    row.directionalLayoutMargins = kPillMargins;

    UIColor* red = toUIColor(palette::liveRed);
    VIRThemedLayerView* pill =
        makeBackground(shadowApply(red), red, kPillCornerRadius, kPillShadowOpacity,
                       kPillShadowRadius, kPillShadowOffset);
    [pill addSubview:row];
    pinEdges(row, pill);
    pill.accessibilityElements = @[ summary, button ];
    [root addSubview:pill];
    UILayoutGuide* safeArea = root.safeAreaLayoutGuide;
    [NSLayoutConstraint activateConstraints:@[
        [pill.centerXAnchor constraintEqualToAnchor:root.centerXAnchor],
        [pill.topAnchor constraintEqualToAnchor:safeArea.topAnchor constant:kPillTop],
        [pill.leadingAnchor constraintGreaterThanOrEqualToAnchor:safeArea.leadingAnchor
                                                        constant:kSideMargin],
    ]];
    return {pill, label, button};
}

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

CGRect toCGRect(const Rect& rect) { return CGRectMake(rect.x, rect.y, rect.width, rect.height); }

CGPoint toCGPoint(Point point) { return CGPointMake(point.x, point.y); }

bool isFinite(Point point) { return std::isfinite(point.x) && std::isfinite(point.y); }

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

// Nil when the geometry does not fit the kind or holds a value that is not a finite number
// (a layer placed at NaN raises).
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

void applyTheme(UIView* view) {
    if ([view isKindOfClass:VIRThemedLayerView.class]) {
        VIRThemedLayerView* themed = static_cast<VIRThemedLayerView*>(view);
        themed.apply(themed);
    }
}

// The window keeps the target weakly, so a dropped button simply stops answering.
void addPassthroughTarget(VIRPassthroughWindow* window, UIView* view) {
    __weak UIView* weakView = view;
    VIRPassthroughTarget target = ^UIView* _Nullable { return weakView; };
    window.targets = [window.targets arrayByAddingObject:target];
}

// Drops the entries that answer `view`, and those whose view has gone, keeping the order of the
// rest.
void removePassthroughTarget(VIRPassthroughWindow* window, UIView* _Nullable view) {
    NSMutableArray<VIRPassthroughTarget>* kept = [NSMutableArray array];
    for (VIRPassthroughTarget target in window.targets) {
        UIView* answer = target();
        if (!answer || answer == view) continue;
        [kept addObject:target];
    }
    window.targets = kept;
}

void announce(NSString* text) {
    UIAccessibilityPostNotification(UIAccessibilityAnnouncementNotification, text);
}

class UIKitOverlayPresenter final : public OverlayPresenter {
  public:
    explicit UIKitOverlayPresenter(std::shared_ptr<WindowHandles> windows)
        : windows_(std::move(windows)),
          actions_([[VIRLiveOverlayActions alloc] init]),
          marks_([NSMutableDictionary dictionary]) {}

    bool show(HostHandle anchor, const std::string& status, std::function<void()> onStop) override {
        hide();
        UIWindow* host = windows_->resolve(anchor);
        UIWindowScene* scene = host.windowScene;
        if (!scene) return false;
        actions_.onStop = blockFrom(std::move(onStop));

        VIRPassthroughWindow* window = [[VIRPassthroughWindow alloc] initWithWindowScene:scene];
        window.backgroundColor = UIColor.clearColor;
        window.windowLevel = UIWindowLevelAlert + kLevelsAboveAlert;
        // The app keeps answering for the status bar and rotation while the overlay is on top.
        VIRHostDeferringController* controller =
            [[VIRHostDeferringController alloc] initWithHostWindow:host];
        window.rootViewController = controller;
        // Visible but never key: the app keeps its keyboard and its first responder.
        window.hidden = NO;
        window_ = window;

        UIView* root = controller.view;
        UIView* frame = makeScreenFrame(root, scene.screen);
        [root addSubview:frame];
        // The first layer colours, now that the views have the window's appearance.
        applyTheme(frame);

        const Pill pill = makePill(root, toNSString(status));
        applyTheme(pill.view);
        [pill.stop addTarget:actions_
                      action:@selector(stopTapped)
            forControlEvents:UIControlEventTouchUpInside];
        addPassthroughTarget(window, pill.stop);
        pill_ = pill.view;
        statusLabel_ = pill.status;
        return !window.hidden && pill.view.superview;
    }

    void hide() override {
        removeMarks();
        [laser_ removeFromSuperview];
        laser_ = nil;
        statusLabel_ = nil;
        [toast_ removeFromSuperview];
        toast_ = nil;
        hideControlBanner();
        pill_ = nil;
        window_.hidden = YES;
        window_ = nil;
        actions_.onStop = nil;
    }

    bool isShowing() override {
        return window_ && !window_.hidden && window_.windowScene && pill_.superview;
    }

    void setStatus(const std::string& text) override { statusLabel_.text = toNSString(text); }

    Size rootSize() override {
        const CGSize size = rootView().bounds.size;
        return {size.width, size.height};
    }

    bool showToast(const OverlayToast& toast) override {
        UIView* root = rootView();
        UIView* pill = pill_;
        if (!root || !pill) return false;
        [toast_ removeFromSuperview];
        toast_ = nil;

        NSString* text = toNSString(toast.text);
        UIView* mark = toast.recording ? makePulsingDot()
                                       : makeLabel(kCheckMark, boldFont(kStatusTextSize),
                                                   toUIColor(palette::mint));
        UILabel* label =
            makeLabel(text, semiboldFont(kToastTextSize), toUIColor(palette::onAccent));
        label.numberOfLines = 0;
        yieldWidthFirst(label);
        UIStackView* row = makeRow(@[ mark, label ], kToastSpacing);
        row.layoutMarginsRelativeArrangement = YES;
        row.directionalLayoutMargins = kToastMargins;

        UIColor* shadow = toUIColor(palette::shadowDeep);
        VIRThemedLayerView* background =
            makeBackground(shadowApply(shadow), toUIColor(palette::ink), kToastCornerRadius,
                           kToastShadowOpacity, kToastShadowRadius, kToastShadowOffset);
        background.isAccessibilityElement = YES;
        background.accessibilityLabel = text;
        [background addSubview:row];
        pinEdges(row, background);
        [root addSubview:background];
        placeUnderPill(background, pill, root);
        background.apply(background);
        toast_ = background;
        announce(text);
        return true;
    }

    void fadeOutToast() override {
        UIView* toast = toast_;
        toast_ = nil;
        if (!toast) return;
        __weak UIView* weakToast = toast;
        [UIView animateWithDuration:kToastFadeSeconds
            animations:^{
              toast.alpha = 0;
            }
            completion:^(__unused BOOL finished) {
              [weakToast removeFromSuperview];
            }];
    }

    bool showControlBanner(std::function<void()> onTakeBack) override {
        VIRPassthroughWindow* window = window_;
        UIView* root = rootView();
        UIView* pill = pill_;
        if (!window || !root || !pill) return false;
        hideControlBanner();
        actions_.onTakeBack = blockFrom(std::move(onTakeBack));

        UIView* dot = [[UIView alloc] initWithFrame:CGRectZero];
        dot.translatesAutoresizingMaskIntoConstraints = NO;
        dot.backgroundColor = toUIColor(palette::mint);
        dot.layer.cornerRadius = kDotSize / 2;
        constrainSize(dot, kDotSize, kDotSize);
        UILabel* label =
            makeLabel(kControlText, boldFont(kStatusTextSize), toUIColor(palette::white));
        label.numberOfLines = 0;
        yieldWidthFirst(label);
        UIButton* button = makeTakeBackButton();
        [button addTarget:actions_
                      action:@selector(takeBackTapped)
            forControlEvents:UIControlEventTouchUpInside];
        UIStackView* row = makeRow(@[ dot, label, button ], kBannerSpacing);
        row.layoutMarginsRelativeArrangement = YES;
        row.directionalLayoutMargins = kBannerMargins;

        UIColor* shadow = toUIColor(palette::shadowDeep);
        VIRThemedLayerView* banner =
            makeBackground(shadowApply(shadow), toUIColor(palette::ink), kBannerCornerRadius,
                           kBannerShadowOpacity, kBannerShadowRadius, kBannerShadowOffset);
        [banner addSubview:row];
        pinEdges(row, banner);
        [root addSubview:banner];
        placeUnderPill(banner, pill, root);
        banner.apply(banner);

        addPassthroughTarget(window, button);
        controlBanner_ = banner;
        takeBackButton_ = button;
        announce(kControlText);
        return banner.superview != nil;
    }

    void hideControlBanner() override {
        if (VIRPassthroughWindow* window = window_) {
            removePassthroughTarget(window, takeBackButton_);
        }
        [controlBanner_ removeFromSuperview];
        controlBanner_ = nil;
        takeBackButton_ = nil;
        actions_.onTakeBack = nil;
    }

    bool isShowingControlBanner() override {
        return isShowing() && controlBanner_.superview != nil;
    }

    void moveLaser(Point to) override {
        UIView* root = rootView();
        if (!root || !isFinite(to)) return;
        const CGPoint target = toCGPoint(to);
        UIView* laser = laser_;
        if (!laser || laser.superview != root) {
            VIRThemedLayerView* dot = makeLaserDot();
            [root addSubview:dot];
            dot.apply(dot);
            dot.center = target;
            laser = dot;
            laser_ = dot;
        }
        laser.hidden = NO;
        [UIView animateWithDuration:guide::laserMoveSeconds
                              delay:0
                            options:UIViewAnimationOptionCurveLinear |
                                    UIViewAnimationOptionAllowUserInteraction
                         animations:^{
                           laser.center = target;
                         }
                         completion:nil];
    }

    void hideLaser() override { laser_.hidden = YES; }

    bool addMark(std::uint64_t markId, const MarkGeometry& mark,
                 const std::optional<Color>& color) override {
        UIView* root = rootView();
        if (!root) return false;
        UIView* view = makeMark(mark, color ? toUIColor(*color) : toUIColor(palette::liveRed));
        if (!view) return false;
        view.userInteractionEnabled = NO;
        view.alpha = 0;
        view.transform = CGAffineTransformMakeScale(guide::markStartScale, guide::markStartScale);
        NSNumber* key = @(markId);
        [marks_[key] removeFromSuperview];
        [root addSubview:view];
        applyTheme(view);
        marks_[key] = view;
        [UIView animateWithDuration:guide::popInSeconds
                         animations:^{
                           view.alpha = 1;
                           view.transform = CGAffineTransformIdentity;
                         }];
        return true;
    }

    void fadeOutMark(std::uint64_t markId) override {
        NSNumber* key = @(markId);
        UIView* mark = marks_[key];
        if (!mark) return;
        if (!mark.superview) {
            [marks_ removeObjectForKey:key];
            return;
        }
        __weak UIView* weakMark = mark;
        __weak NSMutableDictionary<NSNumber*, UIView*>* weakMarks = marks_;
        [UIView animateWithDuration:guide::fadeSeconds
            animations:^{
              mark.alpha = 0;
            }
            completion:^(__unused BOOL finished) {
              UIView* faded = weakMark;
              if (!faded) return;
              [faded removeFromSuperview];
              NSMutableDictionary<NSNumber*, UIView*>* marks = weakMarks;
              if (marks[key] == faded) [marks removeObjectForKey:key];
            }];
    }

    void removeMarks() override {
        for (UIView* mark in marks_.allValues) [mark removeFromSuperview];
        [marks_ removeAllObjects];
    }

    std::unique_ptr<Subscription> watchScrolls(HostHandle anchor,
                                               std::function<void()> onScroll) override {
        UIWindow* window = windows_->resolve(anchor);
        VoidBlock block = blockFrom(std::move(onScroll));
        if (!window || !block) return nullptr;
        VIRScrollWatcher* watcher = [[VIRScrollWatcher alloc] initWithOnScroll:block];
        [watcher attachTo:window];
        // The subscription owns the watcher: the recognizer does not keep its target alive.
        return std::make_unique<CallbackSubscription>([watcher] { [watcher detach]; });
    }

  private:
    UIView* _Nullable rootView() const { return window_.rootViewController.view; }

    std::shared_ptr<WindowHandles> windows_;
    VIRLiveOverlayActions* actions_;
    // Marks by core's id, so a fade or a wipe finds its view.
    NSMutableDictionary<NSNumber*, UIView*>* marks_;
    VIRPassthroughWindow* _Nullable window_ = nil;
    UIView* _Nullable pill_ = nil;
    UILabel* _Nullable statusLabel_ = nil;
    UIView* _Nullable toast_ = nil;
    UIView* _Nullable controlBanner_ = nil;
    UIButton* _Nullable takeBackButton_ = nil;
    UIView* _Nullable laser_ = nil;
};

}  // namespace

std::shared_ptr<OverlayPresenter> makeOverlayPresenter(std::shared_ptr<WindowHandles> windows) {
    return std::make_shared<UIKitOverlayPresenter>(std::move(windows));
}

}  // namespace virela::ios
