// The iOS platform bundle, installed once for the facade's shared client.

#import <Foundation/Foundation.h>

#include <string_view>

#include "platform/ios/objc/src/banner_presenter.hpp"
#include "platform/ios/objc/src/control_actions.hpp"
#include "platform/ios/objc/src/list_actions.hpp"
#include "platform/ios/objc/src/menu_actions.hpp"
#include "platform/ios/objc/src/node_reader.hpp"
#include "platform/ios/objc/src/object_handles.hpp"
#include "platform/ios/objc/src/overlay_presenter.hpp"
#include "platform/ios/objc/src/ports.hpp"
#include "platform/ios/objc/src/prompt_presenter.hpp"
#include "platform/ios/objc/src/responder_actions.hpp"
#include "platform/ios/objc/src/uikit_host.hpp"

namespace virela::ios {

std::shared_ptr<const Platform> makePlatform() {
    auto platform = std::make_shared<Platform>();
    platform->main = makeMainExecutor();
    platform->http = makeHttpClient();
    platform->defaults = makeKeyValueStore();
    platform->device = makeDeviceFacts();
    platform->lifecycle = makeAppLifecycle();
    platform->log = makeLog();
    platform->makeSerialQueue = [](const std::string& label) {
        return ios::makeSerialQueue(label);
    };
    platform->makePathMonitor = [] { return ios::makePathMonitor(); };
    platform->makeSocket = &ios::makeSocket;
    auto windows = std::make_shared<WindowHandles>();
    platform->host = makeUIKitHost(windows);
    platform->renderer = makeUIKitRenderer(windows);
    platform->prompts = makePromptPresenter(windows);
    platform->banner = makeBannerPresenter(windows);
    platform->overlay = makeOverlayPresenter(windows);
    // One handle table for every role: what the reader hands out, the others act on.
    auto handles = std::make_shared<ObjectHandles>(windows);
    platform->actions = {makeUIKitNodeReader(handles), makeUIKitResponderActions(handles),
                         makeUIKitControlActions(handles), makeUIKitListActions(handles),
                         makeUIKitMenuActions(handles)};
    return platform;
}

void ensurePlatformInstalled() {
    static dispatch_once_t once;
    dispatch_once(&once, ^{
      if (!installedPlatform()) installPlatform(makePlatform());
    });
}

bool refuseNil(id _Nullable argument, std::string_view line) {
    if (argument) return false;
    ensurePlatformInstalled();
    if (auto platform = installedPlatform(); platform && platform->log) {
        platform->log->write(LogLevel::error, line);
    }
    return true;
}

}  // namespace virela::ios
