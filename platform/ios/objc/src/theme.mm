#include "platform/ios/objc/src/theme.hpp"

#include <string>

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {

Appearance appearanceOf(UIUserInterfaceStyle style) {
    switch (style) {
        case UIUserInterfaceStyleLight:
            return Appearance::light;
        case UIUserInterfaceStyleDark:
            return Appearance::dark;
        default:
            return Appearance::unspecified;
    }
}

UIColor* toUIColor(const Color& color) {
    return [UIColor colorWithRed:color.red green:color.green blue:color.blue alpha:color.alpha];
}

UIColor* toUIColor(const FixedColor& color) { return toUIColor(color.resolve()); }

UIColor* toUIColor(const AdaptiveColor& color, double alpha) {
    // Every sheet builds the same few colours again; NSCache is safe from any thread.
    static NSCache<NSString*, UIColor*>* cache = [[NSCache alloc] init];
    const std::string key =
        std::string(color.light) + "/" + std::string(color.dark) + "/" + std::to_string(alpha);
    NSString* cacheKey = [[NSString alloc] initWithBytes:key.data()
                                                  length:key.size()
                                                encoding:NSUTF8StringEncoding];
    if (UIColor* cached = [cache objectForKey:cacheKey]) return cached;

    // Resolved now: the provider outlives the caller's string views. One value per appearance,
    // so which one a style takes stays the palette's decision.
    auto resolved = [&](Appearance appearance) {
        Color value = color.resolve(appearance);
        value.alpha = alpha;
        return toUIColor(value);
    };
    UIColor* unspecified = resolved(Appearance::unspecified);
    UIColor* light = resolved(Appearance::light);
    UIColor* dark = resolved(Appearance::dark);
    UIColor* dynamic = [UIColor colorWithDynamicProvider:^UIColor*(UITraitCollection* traits) {
      switch (appearanceOf(traits.userInterfaceStyle)) {
          case Appearance::light:
              return light;
          case Appearance::dark:
              return dark;
          case Appearance::unspecified:
              return unspecified;
      }
      return unspecified;
    }];
    if (cacheKey) [cache setObject:dynamic forKey:cacheKey];
    return dynamic;
}

}  // namespace virela::ios
