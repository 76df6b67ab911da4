#pragma once

// The bundle of ports through which core reaches the platform. Each port has a headless (Linux)
// and an iOS implementation; tests substitute single ports with fakes.

#include <functional>
#include <memory>
#include <string>
#include "core/ports/device_facts.hpp"
#include "core/ports/executor.hpp"
#include "core/ports/host_actions.hpp"
#include "core/ports/key_value_store.hpp"
#include "core/ports/lifecycle.hpp"
#include "core/ports/log.hpp"
#include "core/ports/path_monitor.hpp"
#include "core/ports/socket.hpp"

namespace virela {

class HttpClient;
class Renderer;
class PromptPresenter;
class BannerPresenter;
class OverlayPresenter;

// Everything core needs from the platform. Later subsystems add their ports here.
struct Platform {
    std::shared_ptr<MainExecutor> main;
    std::shared_ptr<HttpClient> http;
    std::shared_ptr<KeyValueStore> defaults;
    std::shared_ptr<DeviceFacts> device;
    std::shared_ptr<AppLifecycle> lifecycle;
    std::shared_ptr<Log> log;
    std::function<std::shared_ptr<SerialQueue>(const std::string& label)> makeSerialQueue;
    std::function<std::shared_ptr<PathMonitor>()> makePathMonitor;
    SocketFactory makeSocket;
    // The host app's interface: reading it, acting on it (one port per role), and drawing it into
    // images.
    std::shared_ptr<HostInterface> host;
    HostActions actions;
    std::shared_ptr<Renderer> renderer;
    // What the library puts on the customer's screen: the bottom sheets, the session banner and
    // the live overlay.
    std::shared_ptr<PromptPresenter> prompts;
    std::shared_ptr<BannerPresenter> banner;
    // The live overlay. Without one live sharing never starts: nobody is watched unseen.
    std::shared_ptr<OverlayPresenter> overlay;
};

// The platform binding installs its ports once at start-up; the facade's shared client takes
// them from here.
void installPlatform(std::shared_ptr<const Platform> platform);
std::shared_ptr<const Platform> installedPlatform();

}  // namespace virela
