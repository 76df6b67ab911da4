// The public view whose layer colours follow the appearance.

#import "VirelaAgentObjC/VIRThemedLayerView.h"

#include "core/ports/fatal.hpp"
#include "platform/ios/objc/src/ports.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

@implementation VIRThemedLayerView

- (instancetype)initWithApply:(void (^)(VIRThemedLayerView*))apply {
    self = [super initWithFrame:CGRectZero];
    if (self) {
        if (virela::ios::refuseNil(apply, "ThemedLayerView without apply: its layer colours will "
                                          "not follow the appearance")) {
            apply = ^(VIRThemedLayerView*) {
            };
        }
        _apply = [apply copy];
    }
    return self;
}

- (nullable instancetype)initWithCoder:(NSCoder*)coder {
    // A decoded view would have no `apply` to run, so it could never follow the appearance.
    virela::fatalPrecondition("ThemedLayerView is created in code only");
}

- (void)traitCollectionDidChange:(nullable UITraitCollection*)previousTraitCollection {
    [super traitCollectionDidChange:previousTraitCollection];
    if ([self.traitCollection
            hasDifferentColorAppearanceComparedToTraitCollection:previousTraitCollection]) {
        self.apply(self);
    }
}

@end
