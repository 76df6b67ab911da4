// The session banner: a capsule label at the top of a window that lets every touch through.

#include "platform/ios/objc/src/banner_presenter.hpp"

#import <QuartzCore/QuartzCore.h>
#import <UIKit/UIKit.h>

#include <string>
#include <utility>

#import "platform/ios/objc/src/passthrough_window.h"
#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace {

constexpr UIEdgeInsets kPillInsets = {7, 15, 7, 15};
constexpr CGFloat kPillTextSize = 12.5;
constexpr CGFloat kPillBorderWidth = 1;
constexpr CGFloat kPillTop = 12;         // below the safe area's top
constexpr CGFloat kPillSideMargin = 16;  // the least gap to the safe area's sides

// Above the status bar's level (UIKit's level is a variable, so only the step is constant):
// over the app's windows, including any it raises to that level for banners of its own, so
// the countdown stays visible whatever the app shows.
constexpr UIWindowLevel kLevelsAboveStatusBar = 1;

UIEdgeInsets outset(UIEdgeInsets insets) {
    return UIEdgeInsetsMake(-insets.top, -insets.left, -insets.bottom, -insets.right);
}

}  // namespace

// A label with room around its text, drawn as a capsule with a border that follows the
// appearance.
@interface VIRBannerPill : UILabel
@property(nonatomic, strong) UIColor* borderColor;
@end

@implementation VIRBannerPill

// The intrinsic size is measured through this method, so it includes the insets without an
// override of its own (which would count them twice).
- (CGRect)textRectForBounds:(CGRect)bounds limitedToNumberOfLines:(NSInteger)numberOfLines {
    const CGRect text = [super textRectForBounds:UIEdgeInsetsInsetRect(bounds, kPillInsets)
                          limitedToNumberOfLines:numberOfLines];
    return UIEdgeInsetsInsetRect(text, outset(kPillInsets));
}

- (void)drawTextInRect:(CGRect)rect {
    [super drawTextInRect:UIEdgeInsetsInsetRect(rect, kPillInsets)];
}

- (void)layoutSubviews {
    [super layoutSubviews];
    self.layer.cornerRadius = CGRectGetHeight(self.bounds) / 2;
}

- (void)setBorderColor:(UIColor*)borderColor {
    _borderColor = borderColor;
    [self applyBorderColor];
}

- (void)traitCollectionDidChange:(nullable UITraitCollection*)previousTraitCollection {
    [super traitCollectionDidChange:previousTraitCollection];
    if ([self.traitCollection
            hasDifferentColorAppearanceComparedToTraitCollection:previousTraitCollection]) {
        [self applyBorderColor];
    }
}

// The layer takes a CGColor, resolved for the appearance the label has now.
- (void)applyBorderColor {
    self.layer.borderColor =
        [_borderColor resolvedColorWithTraitCollection:self.traitCollection].CGColor;
}

@end

namespace virela::ios {
namespace {

class UIKitBannerPresenter final : public BannerPresenter {
  public:
    explicit UIKitBannerPresenter(std::shared_ptr<WindowHandles> windows)
        : windows_(std::move(windows)) {}

    void show(HostHandle window, const std::string& text) override {
        hide();
        UIWindow* host = windows_->resolve(window);
        UIWindowScene* scene = host.windowScene;
        if (!scene) return;

        // No targets: the window takes no touch at all.
        VIRPassthroughWindow* banner = [[VIRPassthroughWindow alloc] initWithWindowScene:scene];
        banner.backgroundColor = UIColor.clearColor;
        banner.windowLevel = UIWindowLevelStatusBar + kLevelsAboveStatusBar;
        VIRHostDeferringController* controller =
            [[VIRHostDeferringController alloc] initWithHostWindow:host];
        banner.rootViewController = controller;

        VIRBannerPill* pill = [[VIRBannerPill alloc] initWithFrame:CGRectZero];
        pill.translatesAutoresizingMaskIntoConstraints = NO;
        pill.font = [UIFont systemFontOfSize:kPillTextSize];
        pill.textColor = toUIColor(bannerColors.text);
        pill.backgroundColor = toUIColor(bannerColors.background);
        pill.layer.borderWidth = kPillBorderWidth;
        pill.layer.cornerCurve = kCACornerCurveContinuous;
        pill.layer.masksToBounds = YES;
        pill.isAccessibilityElement = YES;
        pill.accessibilityTraits =
            UIAccessibilityTraitStaticText | UIAccessibilityTraitUpdatesFrequently;

        UIView* root = controller.view;
        [root addSubview:pill];
        UILayoutGuide* safeArea = root.safeAreaLayoutGuide;
        [NSLayoutConstraint activateConstraints:@[
            [pill.centerXAnchor constraintEqualToAnchor:safeArea.centerXAnchor],
            [pill.topAnchor constraintEqualToAnchor:safeArea.topAnchor constant:kPillTop],
            [pill.leadingAnchor constraintGreaterThanOrEqualToAnchor:safeArea.leadingAnchor
                                                            constant:kPillSideMargin],
        ]];

        // Visible but never key: the app keeps its keyboard and its first responder.
        banner.hidden = NO;
        // Resolved once the pill has the scene's appearance.
        pill.borderColor = toUIColor(bannerColors.border);
        window_ = banner;
        pill_ = pill;
        setText(text);
    }

    void setText(const std::string& text) override {
        if (!pill_) return;
        NSString* value = toNSString(text);
        pill_.text = value;
        pill_.accessibilityLabel = value;
        // The capsule's radius follows the new size.
        [window_ layoutIfNeeded];
    }

    void hide() override {
        window_.hidden = YES;
        window_ = nil;
        pill_ = nil;
    }

  private:
    std::shared_ptr<WindowHandles> windows_;
    UIWindow* window_ = nil;
    VIRBannerPill* pill_ = nil;
};

}  // namespace

std::shared_ptr<BannerPresenter> makeBannerPresenter(std::shared_ptr<WindowHandles> windows) {
    return std::make_shared<UIKitBannerPresenter>(std::move(windows));
}

}  // namespace virela::ios
