#pragma once

// Everything a headless host needs to run the library: the threads, the ports, and the installed
// platform, owned by one object.

#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/ports/platform.hpp"
#include "platform/headless/device_facts.hpp"
#include "platform/headless/executors.hpp"
#include "platform/headless/host/headless_host.hpp"
#include "platform/headless/http_client.hpp"
#include "platform/headless/lifecycle.hpp"
#include "platform/headless/overlay_presenter.hpp"
#include "platform/headless/presenters.hpp"
#include "platform/headless/web_socket.hpp"

namespace virela::headless {

struct RuntimeOptions {
    // The key-value file: `defaultsFile` if set, else defaults.json in `stateDirectory` if set,
    // else defaultKeyValuePath().
    std::optional<std::filesystem::path> defaultsFile;
    std::optional<std::filesystem::path> stateDirectory;
    std::optional<LogLevel> logLevel;  // VIRELA_LOG when unset
    HeadlessSettings settings;
    HttpClientOptions http;  // also the sockets' TLS trust and user agent
    WebSocketOptions webSocket;
    double backgroundTaskSeconds = 30;
    int workerThreads = 2;
    bool install = true;  // installPlatform() on construction
};

// Starts the main thread, the worker pool and the network thread (shared by HTTP and WebSocket),
// builds the ports and installs them. Destruction stops and joins every thread; destroy it from a
// thread other than main. The installed platform stays in place (its ports then drop work) until
// another is installed.
class Runtime {
  public:
    explicit Runtime(RuntimeOptions options = {});
    ~Runtime();

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    HostSettings& settings() { return *settings_; }
    HeadlessLifecycle& lifecycle() { return *lifecycle_; }
    const std::shared_ptr<MainLoop>& executor() const { return main_; }
    const std::shared_ptr<BeastHttpClient>& http() const { return http_; }
    const std::shared_ptr<KeyValueStore>& defaults() const { return defaults_; }
    std::shared_ptr<const Platform> platform() const { return platform_; }
    // The app's interface: scenes, windows and views. Touch it on the main thread only.
    const std::shared_ptr<HeadlessHost>& host() const { return host_; }
    // What the library shows on that interface: the bottom sheet and the session banner.
    const std::shared_ptr<HeadlessPromptPresenter>& prompts() const { return prompts_; }
    const std::shared_ptr<HeadlessBannerPresenter>& banner() const { return banner_; }
    // The live overlay over the app while support watches.
    const std::shared_ptr<HeadlessOverlayPresenter>& overlay() const { return overlay_; }

    // What the customer sees, as PNG: the app's windows with the library's overlays above them
    // and nothing redacted (captures leave the overlays out). Empty when no window is visible.
    // Runs on the main thread; callable from any thread while the main loop runs.
    std::vector<std::uint8_t> renderCustomerView();

    // Runs `fn` on the main thread and waits for its result (or rethrows its exception). Called
    // on the main thread it simply runs `fn`. Throws std::future_error if the main loop has
    // stopped.
    template <class F>
    std::invoke_result_t<std::decay_t<F>&> runOnMain(F&& fn) {
        using Result = std::invoke_result_t<std::decay_t<F>&>;
        if (main_->isCurrent()) return fn();
        auto task = std::make_shared<std::packaged_task<Result()>>(std::forward<F>(fn));
        auto result = task->get_future();
        // The closure owns the task: if the loop drops it, the future reports a broken promise.
        main_->post([task = std::move(task)] { (*task)(); });
        return result.get();
    }

  private:
    std::shared_ptr<HostSettings> settings_;
    std::shared_ptr<WorkerPool> workers_;
    std::shared_ptr<MainLoop> main_;
    std::shared_ptr<BeastHttpClient> http_;
    std::shared_ptr<KeyValueStore> defaults_;
    std::shared_ptr<HeadlessLifecycle> lifecycle_;
    std::shared_ptr<HeadlessHost> host_;
    std::shared_ptr<HeadlessPromptPresenter> prompts_;
    std::shared_ptr<HeadlessBannerPresenter> banner_;
    std::shared_ptr<HeadlessOverlayPresenter> overlay_;
    std::shared_ptr<const Platform> platform_;
};

}  // namespace virela::headless
