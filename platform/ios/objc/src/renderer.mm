// Draws a capture plan: the host's windows, then the redaction paint over them, into one
// encoded image.

#import <UIKit/UIKit.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"
#include "platform/ios/objc/src/uikit_host.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {
namespace {

CGRect toCGRect(const Rect& rect) {
    if (rect.isNull()) return CGRectNull;
    return CGRectMake(rect.x, rect.y, rect.width, rect.height);
}

// The label in the largest bold system font up to 14 pt that fits the rectangle's width and
// half its height, centred, and clipped to the rectangle. A label too small to read is left
// out: the fill alone still covers the view.
void drawLabel(CGContextRef context, CGRect rect, const VirelaRedaction& style) {
    if (style.label.empty()) return;
    NSString* label = toNSString(style.label);
    const CGFloat padding = 4;
    const CGFloat available = rect.size.width - 2 * padding;
    CGFloat size = std::min<CGFloat>(14, rect.size.height * 0.5);
    if (available <= 0 || size <= 0) return;

    UIColor* color = toUIColor(style.labelColor);
    NSDictionary<NSAttributedStringKey, id>* attributes = @{
        NSFontAttributeName : [UIFont boldSystemFontOfSize:size],
        NSForegroundColorAttributeName : color,
    };
    CGSize measured = [label sizeWithAttributes:attributes];
    if (measured.width > available) {
        size *= available / measured.width;
        if (size < 4) return;
        attributes = @{
            NSFontAttributeName : [UIFont boldSystemFontOfSize:size],
            NSForegroundColorAttributeName : color,
        };
        measured = [label sizeWithAttributes:attributes];
    }

    CGContextClipToRect(context, rect);
    const CGPoint origin = CGPointMake(CGRectGetMidX(rect) - measured.width / 2,
                                       CGRectGetMidY(rect) - measured.height / 2);
    [label drawAtPoint:origin withAttributes:attributes];
}

class UIKitRenderer final : public Renderer {
  public:
    explicit UIKitRenderer(std::shared_ptr<WindowHandles> windows) : windows_(std::move(windows)) {}

    std::vector<std::uint8_t> render(const CapturePlan& plan) override {
        std::vector<std::uint8_t> bytes;
        std::optional<std::string> failure;
        @autoreleasepool {
            UIGraphicsImageRendererFormat* format = UIGraphicsImageRendererFormat.preferredFormat;
            format.scale = plan.scale;
            // Eight bits per channel: a wide-colour context would double the image for a viewer
            // that shows it in sRGB anyway.
            format.preferredRange = UIGraphicsImageRendererFormatRangeStandard;
            UIGraphicsImageRenderer* renderer =
                [[UIGraphicsImageRenderer alloc] initWithBounds:toCGRect(plan.bounds)
                                                         format:format];
            // The block runs before imageWithActions: returns, so it may use the locals.
            const CapturePlan* drawn = &plan;
            std::optional<std::string>* failed = &failure;
            UIImage* image = [renderer imageWithActions:^(UIGraphicsImageRendererContext* context) {
              for (const CaptureStep& step : drawn->steps) {
                  if (!draw(context.CGContext, step, *failed)) return;
              }
            }];
            if (!failure) {
                NSData* data = plan.jpeg ? UIImageJPEGRepresentation(image, plan.jpegQuality)
                                         : UIImagePNGRepresentation(image);
                if (data) {
                    const auto* start = static_cast<const std::uint8_t*>(data.bytes);
                    bytes.assign(start, start + data.length);
                }
            }
        }
        // Thrown outside the pool: an exception leaving @autoreleasepool skips its drain.
        if (failure) throw HostReadError(*failure);
        return bytes;
    }

  private:
    // False once a step failed; the rest are pointless, as the image is discarded.
    bool draw(CGContextRef context, const CaptureStep& step, std::optional<std::string>& failure) {
        if (step.rect.isEmpty()) return true;
        const CGRect rect = toCGRect(step.rect);
        @try {
            switch (step.kind) {
                case CaptureStep::Kind::drawWindow: {
                    UIWindow* window = windows_->resolve(step.window);
                    if (!window) {
                        failure = "the window is gone";
                        return false;
                    }
                    // A NO here means some layer had no image data yet; that area stays blank,
                    // which shows nothing it should not, so the capture goes ahead.
                    [window drawViewHierarchyInRect:rect afterScreenUpdates:NO];
                    return true;
                }
                case CaptureStep::Kind::paintRedaction: {
                    CGContextSaveGState(context);
                    // Normal blending, not UIRectFill's copy: a translucent colour must not
                    // punch a hole through to a transparent background.
                    CGContextSetBlendMode(context, kCGBlendModeNormal);
                    CGContextSetFillColorWithColor(context, toUIColor(step.style.color).CGColor);
                    // Whole device pixels, rounded outward and without antialiasing: an edge
                    // pixel blended half and half would let a sensitive view's colour through.
                    const CGRect pixels =
                        CGRectIntegral(CGContextConvertRectToDeviceSpace(context, rect));
                    CGContextSetShouldAntialias(context, false);
                    CGContextFillRect(context, CGContextConvertRectToUserSpace(context, pixels));
                    CGContextSetShouldAntialias(context, true);  // smooth label text
                    drawLabel(context, rect, step.style);
                    CGContextRestoreGState(context);
                    return true;
                }
            }
        } @catch (NSException* exception) {
            failure = toStdString(exception.reason ? exception.reason : exception.name);
            return false;
        }
        return true;
    }

    std::shared_ptr<WindowHandles> windows_;
};

}  // namespace

std::shared_ptr<Renderer> makeUIKitRenderer(std::shared_ptr<WindowHandles> windows) {
    return std::make_shared<UIKitRenderer>(std::move(windows));
}

}  // namespace virela::ios
