// The consent and support-code sheets, built in code with Auto Layout.

#include "platform/ios/objc/src/prompt_presenter.hpp"

#import <QuartzCore/QuartzCore.h>
#import <UIKit/UIKit.h>

#include <functional>
#include <string>
#include <utility>

#import "VirelaAgentObjC/VIRThemedLayerView.h"
#include "core/ports/presenters.hpp"
#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {
namespace {

// The card at the bottom of the overlay.
constexpr CGFloat kCardCornerRadius = 30;
constexpr CGFloat kCardSideInset = 10;
constexpr CGFloat kCardBottomInset = 14;  // above the safe area (or a docked keyboard)
constexpr CGFloat kCardTopMargin = 10;    // the least gap below the safe area's top
constexpr float kShadowOpacity = 0.3f;
constexpr CGFloat kShadowRadius = 34;
constexpr CGSize kShadowOffset = {0, -16};

constexpr CGFloat kGrabberWidth = 38;
constexpr CGFloat kGrabberHeight = 5;
constexpr CGFloat kGrabberTop = 14;

// The content stack inside the card.
constexpr CGFloat kContentTop = 18;  // below the grabber
constexpr CGFloat kContentSideInset = 22;
constexpr CGFloat kContentBottomInset = 18;

// Header: logo tile, then title.
constexpr CGFloat kTitleSize = 20;
constexpr CGFloat kHeaderSpacing = 13;
constexpr CGFloat kTileSize = 44;
constexpr CGFloat kTileCornerRadius = 12;
constexpr CGFloat kDotSize = 12;
// What fills the tile: the placeholder dot, later the logo.
constexpr NSInteger kTileContentTag = 1;

constexpr CGFloat kBodySize = 15;
constexpr CGFloat kBodyLineHeightMultiple = 1.25;
constexpr CGFloat kSmallTextSize = 12.5;  // request line, note

constexpr CGFloat kButtonTitleSize = 16;
constexpr CGFloat kButtonHeight = 52;
constexpr CGFloat kButtonCornerRadius = 26;
constexpr CGFloat kButtonSpacing = 9;

constexpr CGFloat kCodeBoxCornerRadius = 20;
constexpr CGFloat kCodeBoxVerticalInset = 22;
constexpr CGFloat kCodeBoxSideInset = 16;
constexpr CGFloat kCodeSize = 58;
constexpr CGFloat kCodeKern = 2.32;
// Large text sizes and narrow phones shrink the code rather than cut a digit off.
constexpr CGFloat kCodeMinimumScale = 0.4;

constexpr CGFloat kConsentSpacing = 12;
constexpr CGFloat kConsentAfterBody = 10;
constexpr CGFloat kConsentAfterRequestLine = 18;

constexpr CGFloat kCodeSheetSpacing = 16;
constexpr CGFloat kCodeSheetAfterHeader = 18;
constexpr CGFloat kCodeSheetAfterCode = 8;
constexpr CGFloat kCodeSheetAfterBody = 18;

constexpr NSTimeInterval kEntranceDuration = 0.32;
constexpr CGFloat kEntranceDamping = 0.9;
constexpr CGFloat kEntranceVelocity = 0.4;
constexpr CGFloat kEntranceExtraOffset = 40;  // below the card's own height

UIView* makeRoundedView(const AdaptiveColor& color, CGFloat cornerRadius) {
    UIView* view = [[UIView alloc] initWithFrame:CGRectZero];
    view.translatesAutoresizingMaskIntoConstraints = NO;
    view.backgroundColor = toUIColor(color);
    view.layer.cornerRadius = cornerRadius;
    view.layer.cornerCurve = kCACornerCurveContinuous;
    return view;
}

void constrainSize(UIView* view, CGFloat width, CGFloat height) {
    [NSLayoutConstraint activateConstraints:@[
        [view.widthAnchor constraintEqualToConstant:width],
        [view.heightAnchor constraintEqualToConstant:height],
    ]];
}

void pinEdges(UIView* view, UIView* container, UIEdgeInsets insets) {
    [NSLayoutConstraint activateConstraints:@[
        [view.topAnchor constraintEqualToAnchor:container.topAnchor constant:insets.top],
        [view.leadingAnchor constraintEqualToAnchor:container.leadingAnchor constant:insets.left],
        [view.trailingAnchor constraintEqualToAnchor:container.trailingAnchor
                                            constant:-insets.right],
        [view.bottomAnchor constraintEqualToAnchor:container.bottomAnchor constant:-insets.bottom],
    ]];
}

UIStackView* makeStack(NSArray<UIView*>* views, UILayoutConstraintAxis axis, CGFloat spacing) {
    UIStackView* stack = [[UIStackView alloc] initWithArrangedSubviews:views];
    stack.translatesAutoresizingMaskIntoConstraints = NO;
    stack.axis = axis;
    stack.spacing = spacing;
    return stack;
}

UILabel* makeLabel(const std::string& text, UIFont* font, const AdaptiveColor& color) {
    UILabel* label = [[UILabel alloc] initWithFrame:CGRectZero];
    label.translatesAutoresizingMaskIntoConstraints = NO;
    label.text = toNSString(text);
    label.font = font;
    label.textColor = toUIColor(color);
    label.numberOfLines = 0;
    return label;
}

UILabel* makeTitle(const std::string& text) {
    UILabel* title = makeLabel(
        text, [UIFont systemFontOfSize:kTitleSize weight:UIFontWeightSemibold], sheetColors.title);
    title.accessibilityTraits = UIAccessibilityTraitHeader;
    return title;
}

UILabel* makeBody(const std::string& text) {
    UILabel* body = makeLabel(text, [UIFont systemFontOfSize:kBodySize], sheetColors.body);
    NSMutableParagraphStyle* paragraph = [[NSMutableParagraphStyle alloc] init];
    paragraph.lineHeightMultiple = kBodyLineHeightMultiple;
    body.attributedText =
        [[NSAttributedString alloc] initWithString:toNSString(text)
                                        attributes:@{
                                            NSFontAttributeName : body.font,
                                            NSForegroundColorAttributeName : body.textColor,
                                            NSParagraphStyleAttributeName : paragraph,
                                        }];
    return body;
}

UILabel* makeSmallText(const std::string& text) {
    return makeLabel(text, [UIFont systemFontOfSize:kSmallTextSize], sheetColors.secondary);
}

// The tile holds the placeholder dot until a logo replaces it.
UIView* makeLogoTile() {
    UIView* tile = makeRoundedView(sheetColors.logoTile, kTileCornerRadius);
    tile.clipsToBounds = YES;
    constrainSize(tile, kTileSize, kTileSize);
    UIView* dot = makeRoundedView(sheetColors.logoDot, kDotSize / 2);
    dot.tag = kTileContentTag;
    [tile addSubview:dot];
    constrainSize(dot, kDotSize, kDotSize);
    [NSLayoutConstraint activateConstraints:@[
        [dot.centerXAnchor constraintEqualToAnchor:tile.centerXAnchor],
        [dot.centerYAnchor constraintEqualToAnchor:tile.centerYAnchor],
    ]];
    return tile;
}

UIStackView* makeHeader(UIView* tile, const std::string& title) {
    UIStackView* header =
        makeStack(@[ tile, makeTitle(title) ], UILayoutConstraintAxisHorizontal, kHeaderSpacing);
    header.alignment = UIStackViewAlignmentCenter;
    return header;
}

UIButton* makeButton(const std::string& title, const AdaptiveColor& background,
                     const AdaptiveColor& foreground, std::function<void()> action) {
    UIButton* button = [UIButton buttonWithType:UIButtonTypeSystem];
    button.translatesAutoresizingMaskIntoConstraints = NO;
    [button setTitle:toNSString(title) forState:UIControlStateNormal];
    [button setTitleColor:toUIColor(foreground) forState:UIControlStateNormal];
    button.titleLabel.font = [UIFont systemFontOfSize:kButtonTitleSize weight:UIFontWeightSemibold];
    button.backgroundColor = toUIColor(background);
    button.layer.cornerRadius = kButtonCornerRadius;
    button.layer.cornerCurve = kCACornerCurveContinuous;
    [button.heightAnchor constraintEqualToConstant:kButtonHeight].active = YES;
    if (action) {
        // The button keeps the action, and the action keeps the function.
        UIAction* tapped = [UIAction actionWithHandler:^(__unused UIAction* sender) {
          // A copy runs: the function usually dismisses the sheet, which frees this handler.
          const std::function<void()> run = action;
          run();
        }];
        [button addAction:tapped forControlEvents:UIControlEventTouchUpInside];
    }
    return button;
}

UIView* makeCodeBox(const std::string& code) {
    UIView* box = makeRoundedView(sheetColors.codeBox, kCodeBoxCornerRadius);
    UILabel* label = [[UILabel alloc] initWithFrame:CGRectZero];
    label.translatesAutoresizingMaskIntoConstraints = NO;
    NSMutableParagraphStyle* paragraph = [[NSMutableParagraphStyle alloc] init];
    paragraph.alignment = NSTextAlignmentCenter;
    NSString* text = toNSString(code);
    label.attributedText = [[NSAttributedString alloc]
        initWithString:text
            attributes:@{
                NSFontAttributeName : [UIFont monospacedSystemFontOfSize:kCodeSize
                                                                  weight:UIFontWeightSemibold],
                NSKernAttributeName : @(kCodeKern),
                NSForegroundColorAttributeName : toUIColor(sheetColors.code),
                NSParagraphStyleAttributeName : paragraph,
            }];
    label.adjustsFontSizeToFitWidth = YES;
    label.minimumScaleFactor = kCodeMinimumScale;
    // Read digit by digit, the way the customer reads it out.
    label.accessibilityAttributedLabel =
        [[NSAttributedString alloc] initWithString:text
                                        attributes:@{
                                            UIAccessibilitySpeechAttributeSpellOut : @YES
                                        }];
    [box addSubview:label];
    pinEdges(label, box,
             UIEdgeInsetsMake(kCodeBoxVerticalInset, kCodeBoxSideInset, kCodeBoxVerticalInset,
                              kCodeBoxSideInset));
    return box;
}

class UIKitPromptPresenter final : public PromptPresenter {
  public:
    explicit UIKitPromptPresenter(std::shared_ptr<WindowHandles> windows)
        : windows_(std::move(windows)) {}

    void presentConsent(HostHandle window, const ConsentSheet& sheet,
                        SheetActions actions) override {
        dismiss();
        UIWindow* host = windows_->resolve(window);
        if (!host) return;

        UIView* tile = makeLogoTile();
        UILabel* body = makeBody(sheet.body);
        UILabel* requestLine = makeSmallText(sheet.requestLine);
        UIStackView* buttons = makeStack(
            @[
                makeButton(sheet.allowTitle, sheetColors.allowBackground, sheetColors.allowTitle,
                           std::move(actions.allow)),
                makeButton(sheet.denyTitle, sheetColors.denyBackground, sheetColors.denyTitle,
                           std::move(actions.deny)),
            ],
            UILayoutConstraintAxisVertical, kButtonSpacing);
        UIStackView* content =
            makeStack(@[ makeHeader(tile, sheet.title), body, requestLine, buttons ],
                      UILayoutConstraintAxisVertical, kConsentSpacing);
        content.alignment = UIStackViewAlignmentLeading;
        [content setCustomSpacing:kConsentAfterBody afterView:body];
        [content setCustomSpacing:kConsentAfterRequestLine afterView:requestLine];
        [buttons.widthAnchor constraintEqualToAnchor:content.widthAnchor].active = YES;

        present(host, content, tile);
    }

    void presentSupportCode(HostHandle window, const SupportCodeSheet& sheet,
                            SheetActions actions) override {
        dismiss();
        UIWindow* host = windows_->resolve(window);
        if (!host) return;

        UIView* tile = makeLogoTile();
        UIStackView* header = makeHeader(tile, sheet.title);
        UIView* codeBox = makeCodeBox(sheet.code);
        UILabel* body = makeBody(sheet.body);
        UILabel* note = makeSmallText(sheet.note);
        note.textAlignment = NSTextAlignmentCenter;
        UIButton* done = makeButton(sheet.doneTitle, sheetColors.allowBackground,
                                    sheetColors.allowTitle, std::move(actions.done));
        // Filled, unlike the consent sheet: the code box, the centred note and the button all
        // span the card.
        UIStackView* content = makeStack(@[ header, codeBox, body, note, done ],
                                         UILayoutConstraintAxisVertical, kCodeSheetSpacing);
        [content setCustomSpacing:kCodeSheetAfterHeader afterView:header];
        [content setCustomSpacing:kCodeSheetAfterCode afterView:codeBox];
        [content setCustomSpacing:kCodeSheetAfterBody afterView:body];

        present(host, content, tile);
    }

    bool showLogo(std::string_view bytes) override {
        if (!tile_) return false;
        NSData* data = [NSData dataWithBytes:bytes.data() length:bytes.size()];
        UIImage* image = [UIImage imageWithData:data];
        if (!image) return false;
        [[tile_ viewWithTag:kTileContentTag] removeFromSuperview];
        UIImageView* logo = [[UIImageView alloc] initWithImage:image];
        logo.translatesAutoresizingMaskIntoConstraints = NO;
        logo.contentMode = UIViewContentModeScaleAspectFill;
        // Tagged like the dot, so a later logo replaces this one.
        logo.tag = kTileContentTag;
        [tile_ addSubview:logo];
        pinEdges(logo, tile_, UIEdgeInsetsZero);
        return true;
    }

    void dismiss() override {
        if (!overlay_) return;
        [overlay_ removeFromSuperview];
        overlay_ = nil;
        tile_ = nil;
        // VoiceOver's focus was inside the sheet; let it find the app's screen again.
        UIAccessibilityPostNotification(UIAccessibilityScreenChangedNotification, nil);
    }

  private:
    void present(UIWindow* window, UIStackView* content, UIView* tile) {
        UIView* overlay = [[UIView alloc] initWithFrame:window.bounds];
        overlay.autoresizingMask =
            UIViewAutoresizingFlexibleWidth | UIViewAutoresizingFlexibleHeight;
        overlay.backgroundColor = toUIColor(sheetColors.dimming, sheetColors.dimmingAlpha);
        overlay.accessibilityViewIsModal = YES;

        UIColor* shadow = toUIColor(sheetColors.shadow);
        VIRThemedLayerView* card =
            [[VIRThemedLayerView alloc] initWithApply:^(VIRThemedLayerView* view) {
              view.layer.shadowColor =
                  [shadow resolvedColorWithTraitCollection:view.traitCollection].CGColor;
            }];
        card.translatesAutoresizingMaskIntoConstraints = NO;
        card.backgroundColor = toUIColor(sheetColors.card);
        card.layer.cornerRadius = kCardCornerRadius;
        card.layer.cornerCurve = kCACornerCurveContinuous;
        card.layer.shadowOpacity = kShadowOpacity;
        card.layer.shadowRadius = kShadowRadius;
        card.layer.shadowOffset = kShadowOffset;
        [overlay addSubview:card];

        UIView* grabber = makeRoundedView(sheetColors.grabber, kGrabberHeight / 2);
        [card addSubview:grabber];
        constrainSize(grabber, kGrabberWidth, kGrabberHeight);
        [card addSubview:content];

        UILayoutGuide* safeArea = overlay.safeAreaLayoutGuide;
        [NSLayoutConstraint activateConstraints:@[
            [card.leadingAnchor constraintEqualToAnchor:overlay.leadingAnchor
                                               constant:kCardSideInset],
            [card.trailingAnchor constraintEqualToAnchor:overlay.trailingAnchor
                                                constant:-kCardSideInset],
            // The keyboard guide's top is the safe area's bottom while no keyboard is docked;
            // when the app has one up, the card rides above it instead of under it.
            [card.bottomAnchor constraintEqualToAnchor:overlay.keyboardLayoutGuide.topAnchor
                                              constant:-kCardBottomInset],
            // A sheet taller than the screen (the largest text sizes) squeezes its text rather
            // than run off the top.
            [card.topAnchor constraintGreaterThanOrEqualToAnchor:safeArea.topAnchor
                                                        constant:kCardTopMargin],
            [grabber.centerXAnchor constraintEqualToAnchor:card.centerXAnchor],
            [grabber.topAnchor constraintEqualToAnchor:card.topAnchor constant:kGrabberTop],
            [content.topAnchor constraintEqualToAnchor:grabber.bottomAnchor constant:kContentTop],
            [content.leadingAnchor constraintEqualToAnchor:card.leadingAnchor
                                                  constant:kContentSideInset],
            [content.trailingAnchor constraintEqualToAnchor:card.trailingAnchor
                                                   constant:-kContentSideInset],
            [content.bottomAnchor constraintEqualToAnchor:card.bottomAnchor
                                                 constant:-kContentBottomInset],
        ]];

        [window addSubview:overlay];
        // The shadow's first colour, now that the card has the window's appearance.
        card.apply(card);
        overlay_ = overlay;
        tile_ = tile;
        animateEntrance(overlay, card);
        UIAccessibilityPostNotification(UIAccessibilityScreenChangedNotification, card);
    }

    static void animateEntrance(UIView* overlay, UIView* card) {
        [overlay layoutIfNeeded];
        overlay.alpha = 0;
        // With Reduce Motion on, the sheet only fades in.
        if (!UIAccessibilityIsReduceMotionEnabled()) {
            card.transform =
                CGAffineTransformMakeTranslation(0, card.bounds.size.height + kEntranceExtraOffset);
        }
        [UIView animateWithDuration:kEntranceDuration
                              delay:0
             usingSpringWithDamping:kEntranceDamping
              initialSpringVelocity:kEntranceVelocity
                            options:0
                         animations:^{
                           overlay.alpha = 1;
                           card.transform = CGAffineTransformIdentity;
                         }
                         completion:nil];
    }

    std::shared_ptr<WindowHandles> windows_;
    UIView* overlay_ = nil;
    UIView* tile_ = nil;
};

}  // namespace

std::shared_ptr<PromptPresenter> makePromptPresenter(std::shared_ptr<WindowHandles> windows) {
    return std::make_shared<UIKitPromptPresenter>(std::move(windows));
}

}  // namespace virela::ios
