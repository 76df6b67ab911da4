#pragma once

// The iOS implementations of the core's ports. Objective-C++ only, built with ARC: several
// classes keep Objective-C objects as strong members.

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

#include <dispatch/dispatch.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/ports/http_client.hpp"
#include "core/ports/platform.hpp"

namespace virela::ios {

std::shared_ptr<MainExecutor> makeMainExecutor();
std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label);
// The dispatch queue behind a queue made by makeSerialQueue(); nullptr for any other kind.
dispatch_queue_t _Nullable dispatchQueueOf(const SerialQueue& queue);

std::shared_ptr<HttpClient> makeHttpClient();
std::shared_ptr<KeyValueStore> makeKeyValueStore();
std::shared_ptr<Log> makeLog();
std::shared_ptr<DeviceFacts> makeDeviceFacts();
std::shared_ptr<PathMonitor> makePathMonitor();
std::shared_ptr<AppLifecycle> makeAppLifecycle();
// The socket factory: a WebSocket task in a URL session of its own, which the returned session
// object invalidates when it is destroyed.
SocketConnection makeSocket(const Url& url, const std::shared_ptr<SocketSession>& session,
                            const std::vector<std::string>& protocols,
                            std::weak_ptr<SocketDelegate> delegate);

std::shared_ptr<const Platform> makePlatform();
// Installs makePlatform() the first time it is called, unless a platform is already in place
// (a test harness may have put its own there). Safe from any thread.
void ensurePlatformInstalled();

// The public headers promise non-null arguments, but Objective-C callers can pass nil anyway.
// Logs `line` as an error and returns true when `argument` is nil; the caller then does nothing
// instead of handing nil on to Foundation or the core.
bool refuseNil(id _Nullable argument, std::string_view line);

}  // namespace virela::ios
