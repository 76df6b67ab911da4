#pragma once

// UIKit's side of the host interface: reading scenes, windows and views, and drawing captures.

#import <UIKit/UIKit.h>

#include <cstdint>
#include <memory>

#include "core/ports/host.hpp"
#include "core/ports/renderer.hpp"

NS_ASSUME_NONNULL_BEGIN

namespace virela::ios {

// An object's handle is its address. Only windows are ever turned back into objects, and only
// through WindowHandles.
inline HostHandle handleOf(id _Nullable object) {
    return static_cast<HostHandle>(reinterpret_cast<std::uintptr_t>((__bridge void*)object));
}

// The windows handed out to core, held weakly. A handle resolves only through here, so the
// handle of a freed window reads as gone instead of reaching a dangling pointer. Main thread.
class WindowHandles {
  public:
    WindowHandles();
    HostHandle add(UIWindow* window);
    UIWindow* _Nullable resolve(HostHandle handle) const;

  private:
    NSMapTable<NSNumber*, UIWindow*>* table_;
};

// Both share one registry: the renderer draws the windows the host has handed out.
std::shared_ptr<HostInterface> makeUIKitHost(std::shared_ptr<WindowHandles> windows);
std::shared_ptr<Renderer> makeUIKitRenderer(std::shared_ptr<WindowHandles> windows);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
