// The live overlay's chrome: the screen frame, the pill, toasts and the control banner.

#include "platform/ios/objc/src/overlay_chrome.hpp"

#include <cmath>
#include <limits>

#include "platform/ios/objc/src/theme.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {
namespace {

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
constexpr CGFloat kBannerSpacing = 10;
constexpr NSDirectionalEdgeInsets kBannerMargins = {10, 15, 10, 12};
constexpr CGFloat kBannerCornerRadius = 20;
constexpr float kBannerShadowOpacity = 0.45f;
constexpr CGFloat kBannerShadowRadius = 15;
constexpr CGSize kBannerShadowOffset = {0, 6};

NSString* const kPillAccessibilityLabel = @"Sharing your screen live";
NSString* const kStopTitle = @"Stop";
NSString* const kControlText = @"Support is controlling your screen";
NSString* const kTakeBackTitle = @"Take back control";
NSString* const kCheckMark = @"\u2713";

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

// Layers take CGColors, which do not follow the appearance; this re-resolves them for the
// view's appearance whenever it changes. Each assignment is one expression, so the resolved
// UIColor outlives the setter that takes its CGColor.
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

}  // namespace

UIFont* boldFont(CGFloat size) { return [UIFont systemFontOfSize:size weight:UIFontWeightBold]; }

UIFont* semiboldFont(CGFloat size) {
    return [UIFont systemFontOfSize:size weight:UIFontWeightSemibold];
}

ApplyBlock shadowApply(UIColor* color) {
    return ^(VIRThemedLayerView* view) {
      view.layer.shadowColor =
          [color resolvedColorWithTraitCollection:view.traitCollection].CGColor;
    };
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

void applyTheme(UIView* view) {
    if ([view isKindOfClass:VIRThemedLayerView.class]) {
        VIRThemedLayerView* themed = static_cast<VIRThemedLayerView*>(view);
        themed.apply(themed);
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

VIRThemedLayerView* addToast(UIView* root, UIView* pill, NSString* text, bool recording) {
    UIView* mark = recording
                       ? makePulsingDot()
                       : makeLabel(kCheckMark, boldFont(kStatusTextSize), toUIColor(palette::mint));
    UILabel* label = makeLabel(text, semiboldFont(kToastTextSize), toUIColor(palette::onAccent));
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
    return background;
}

ControlBanner addControlBanner(UIView* root, UIView* pill) {
    UIView* dot = [[UIView alloc] initWithFrame:CGRectZero];
    dot.translatesAutoresizingMaskIntoConstraints = NO;
    dot.backgroundColor = toUIColor(palette::mint);
    dot.layer.cornerRadius = kDotSize / 2;
    constrainSize(dot, kDotSize, kDotSize);
    UILabel* label = makeLabel(kControlText, boldFont(kStatusTextSize), toUIColor(palette::white));
    label.numberOfLines = 0;
    yieldWidthFirst(label);
    UIButton* button = makeTakeBackButton();
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
    return {banner, button, kControlText};
}

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
