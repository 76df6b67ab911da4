#include "platform/ios/objc/src/object_handles.hpp"

#import <UIKit/UIKit.h>

#include <algorithm>
#include <utility>
#include <vector>

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {
namespace {

std::vector<UIWindow*> sceneWindows() {
    std::vector<UIWindow*> out;
    for (UIScene* scene in UIApplication.sharedApplication.connectedScenes) {
        if (![scene isKindOfClass:[UIWindowScene class]]) continue;
        for (UIWindow* window in static_cast<UIWindowScene*>(scene).windows) {
            out.push_back(window);
        }
    }
    return out;
}

}  // namespace

ObjectHandles::ObjectHandles(std::shared_ptr<WindowHandles> windows)
    : windows_(std::move(windows)) {}

HostHandle ObjectHandles::give(id _Nullable object) {
    if (UIWindow* window = as<UIWindow>(object)) return windows_->add(window);
    return remember(object);
}

HostHandle ObjectHandles::remember(id _Nullable object) {
    if (!object) return noHandle;
    const HostHandle handle = handleOf(object);
    NSNumber* key = @(handle);
    if ([table_ objectForKey:key] == object) return handle;
    [table_ setObject:object forKey:key];
    // Views come and go by the thousand while someone taps around; the table keeps the keys of
    // freed ones. Sweep when it has doubled since the last sweep, so the cost stays constant per
    // object handed out.
    if (table_.count >= sweepAt_) {
        for (NSNumber* stale in table_.keyEnumerator.allObjects) {
            if (![table_ objectForKey:stale]) [table_ removeObjectForKey:stale];
        }
        sweepAt_ = std::max<NSUInteger>(kFirstSweep, table_.count * 2);
    }
    return handle;
}

id _Nullable ObjectHandles::resolve(HostHandle handle) const {
    if (handle == noHandle) return nil;
    return [table_ objectForKey:@(handle)];
}

id _Nullable ObjectHandles::anyObject(HostHandle handle) {
    if (handle == noHandle) return nil;
    if (id object = resolve(handle)) return object;
    if (UIWindow* window = windows_->resolve(handle)) return window;
    return findView(handle);
}

UIWindow* _Nullable ObjectHandles::window(HostHandle handle) {
    if (UIWindow* window = windows_->resolve(handle)) return window;
    return as<UIWindow>(resolve(handle));
}

id _Nullable ObjectHandles::controller(HostHandle handle) {
    if (handle == noHandle) return nil;
    if (id object = resolve(handle)) return object;
    NSMutableArray<UIViewController*>* pending = [NSMutableArray array];
    for (UIWindow* window : sceneWindows()) {
        if (UIViewController* root = window.rootViewController) [pending addObject:root];
    }
    for (NSUInteger visited = 0; pending.count > 0 && visited < 4096; ++visited) {
        UIViewController* current = pending.lastObject;
        [pending removeLastObject];
        if (handleOf(current) == handle) {
            remember(current);
            return current;
        }
        if (UIViewController* presented = current.presentedViewController) {
            // A child reports its ancestor's presented controller too; visiting it twice costs
            // little, and the bound above ends any loop.
            [pending addObject:presented];
        }
        [pending addObjectsFromArray:current.childViewControllers];
    }
    return nil;
}

id _Nullable ObjectHandles::findView(HostHandle handle) {
    NSMutableArray<UIView*>* pending = [NSMutableArray array];
    for (UIWindow* window : sceneWindows()) [pending addObject:window];
    while (UIView* current = pending.lastObject) {
        [pending removeLastObject];
        if (handleOf(current) == handle) {
            give(current);
            return current;
        }
        [pending addObjectsFromArray:current.subviews];
    }
    return nil;
}

}  // namespace virela::ios
