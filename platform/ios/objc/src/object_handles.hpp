#pragma once

// What the UIKit reader and the four action roles share: the objects handed out to core by
// handle, so that whatever one role hands out the others find again, and the fence around every
// call into UIKit. Main thread only.

#import <UIKit/UIKit.h>

#include <memory>

#include "core/base/handles.hpp"
#include "platform/ios/objc/src/uikit_host.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

// A container chain, controller tree or menu deeper than this is not one a host builds; stop
// there rather than loop on a cycle an app's code made.
inline constexpr int kMaxDepth = 64;

// Every call into UIKit may run app code (overrides, delegates, action handlers), so each one is
// fenced: an exception means "nothing read" or "did not act", and never reaches core.
//
// Runs `body` in its own autorelease pool (the tap ladder reads many nodes in one turn of the
// run loop) and turns an Objective-C exception into `fallback`.
template <typename R, typename Body>
R guarded(R fallback, Body&& body) {
    @try {
        @autoreleasepool {
            return body();
        }
    } @catch (id) {
        return fallback;
    }
}

template <typename Body>
void guardedVoid(Body&& body) {
    @try {
        @autoreleasepool {
            body();
        }
    } @catch (id) {
    }
}

template <typename T>
T* _Nullable as(id _Nullable object) {
    return [object isKindOfClass:[T class]] ? object : nil;
}

// Objects by handle, held weakly, so the handle of a freed one reads as gone. Windows join
// `windows`, so the host interface reads them like any other.
class ObjectHandles {
  public:
    explicit ObjectHandles(std::shared_ptr<WindowHandles> windows);

    HostHandle give(id _Nullable object);
    // An object handed out before, windows aside.
    id _Nullable resolve(HostHandle handle) const;
    // Any object handed out before. Views core learned elsewhere (from the view walk) and
    // never through here are looked for in the scenes' windows, then remembered.
    id _Nullable anyObject(HostHandle handle);
    UIView* _Nullable view(HostHandle handle) { return as<UIView>(anyObject(handle)); }
    UIWindow* _Nullable window(HostHandle handle);
    // The window's root controller reaches core through the window's facts, not through here:
    // look for it, and whatever it presents or contains, from the scenes' windows.
    id _Nullable controller(HostHandle handle);

  private:
    HostHandle remember(id _Nullable object);
    id _Nullable findView(HostHandle handle);

    static constexpr NSUInteger kFirstSweep = 512;
    std::shared_ptr<WindowHandles> windows_;
    NSMapTable<NSNumber*, id>* table_ = [NSMapTable strongToWeakObjectsMapTable];
    NSUInteger sweepAt_ = kFirstSweep;
};

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
