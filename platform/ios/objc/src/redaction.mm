// Redaction marks on views, the public redaction style, and the default style's setter.

#import "VirelaAgentObjC/UIView+VirelaRedaction.h"
#import "VirelaAgentObjC/VIRRedaction.h"

#import <objc/runtime.h>

#include <optional>
#include <utility>

#include "platform/ios/objc/src/redaction.hpp"
#include "platform/ios/objc/src/strings.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

@implementation VIRRedactionMarkBox {
    std::shared_ptr<const virela::RedactionMark> _mark;
}

- (instancetype)initWithMark:(std::shared_ptr<const virela::RedactionMark>)mark {
    self = [super init];
    if (self) _mark = std::move(mark);
    return self;
}

- (const virela::RedactionMark*)mark {
    return _mark.get();
}

@end

namespace {

// The address is the key; the value is never read.
char kRedactionMarkKey;

// nullopt for nil and for colours without RGB components (pattern images): the default's
// colour stands in for them.
std::optional<virela::Color> toCoreColor(UIColor* _Nullable color) {
    if (!color) return std::nullopt;
    CGFloat red = 0, green = 0, blue = 0, alpha = 0;
    if (![color getRed:&red green:&green blue:&blue alpha:&alpha]) return std::nullopt;
    return virela::Color{red, green, blue, alpha};
}

void attachMark(UIView* view, std::shared_ptr<const virela::RedactionMark> mark) {
    VIRRedactionMarkBox* box = [[VIRRedactionMarkBox alloc] initWithMark:std::move(mark)];
    objc_setAssociatedObject(view, &kRedactionMarkKey, box, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
}

}  // namespace

namespace virela::ios {

VIRRedactionMarkBox* _Nullable redactionMarkBoxOf(UIView* view) {
    return objc_getAssociatedObject(view, &kRedactionMarkKey);
}

bool isSecureTextInput(id _Nullable object) {
    // The trait's getter is optional in the protocol, so conforming promises nothing.
    if (![object conformsToProtocol:@protocol(UITextInputTraits)] ||
        ![object respondsToSelector:@selector(isSecureTextEntry)]) {
        return false;
    }
    id<UITextInputTraits> traits = object;
    return [traits isSecureTextEntry];
}

}  // namespace virela::ios

@implementation UIView (VirelaRedaction)

- (BOOL)isVirelaRedacted {
    return virela::ios::redactionMarkBoxOf(self) != nil;
}

- (void)setVirelaRedacted:(BOOL)redacted {
    if (!redacted) {
        objc_setAssociatedObject(self, &kRedactionMarkKey, nil, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
        return;
    }
    // A fresh mark every time, even over an existing one: marking again after
    // setRedactionStyle is how a view takes up the new default.
    attachMark(self, virela::makeRedactionMark());
}

- (void)virelaRedactWithColor:(nullable UIColor*)color
                        label:(nullable NSString*)label
                   labelColor:(nullable UIColor*)labelColor {
    attachMark(self,
               virela::makeRedactionMark(toCoreColor(color), virela::ios::toOptionalString(label),
                                         toCoreColor(labelColor)));
}

@end

@implementation VIRRedaction

- (instancetype)initWithColor:(UIColor*)color
                        label:(NSString*)label
                   labelColor:(UIColor*)labelColor {
    self = [super init];
    if (self) {
        _color = color;
        _label = [label copy];
        _labelColor = labelColor;
    }
    return self;
}

- (BOOL)isEqual:(id)other {
    if (other == self) return YES;
    if (![other isKindOfClass:[VIRRedaction class]]) return NO;
    VIRRedaction* redaction = other;
    return [_color isEqual:redaction.color] && [_label isEqualToString:redaction.label] &&
           [_labelColor isEqual:redaction.labelColor];
}

- (NSUInteger)hash {
    return _color.hash ^ _label.hash ^ (_labelColor.hash << 1);
}

@end

namespace virela::ios {

void setDefaultRedactionStyle(VIRRedaction* style) {
    virela::VirelaRedaction core = virela::defaultRedactionStyle();
    if (auto color = toCoreColor(style.color)) core.color = *color;
    if (style.label) core.label = toStdString(style.label);
    if (auto labelColor = toCoreColor(style.labelColor)) core.labelColor = *labelColor;
    virela::setDefaultRedactionStyle(std::move(core));
}

}  // namespace virela::ios
