#include "platform/headless/runtime.hpp"

#include "platform/headless/key_value_store.hpp"
#include "platform/headless/path_monitor.hpp"
#include "platform/headless/presenters.hpp"
#include "platform/headless/render/customer_view.hpp"
#include "platform/headless/render/renderer.hpp"
#include "platform/headless/stderr_log.hpp"

namespace virela::headless {

namespace {

std::filesystem::path defaultsPath(const RuntimeOptions& options) {
    if (options.defaultsFile) return *options.defaultsFile;
    if (options.stateDirectory) return *options.stateDirectory / "defaults.json";
    return defaultKeyValuePath();
}

}  // namespace

Runtime::Runtime(RuntimeOptions options)
    : settings_(std::make_shared<HostSettings>(std::move(options.settings))),
      workers_(std::make_shared<WorkerPool>(options.workerThreads)),
      main_(std::make_shared<MainLoop>(workers_)),
      http_(std::make_shared<BeastHttpClient>(std::move(options.http))),
      defaults_(std::make_shared<JsonFileStore>(defaultsPath(options))),
      lifecycle_(std::make_shared<HeadlessLifecycle>(main_, options.backgroundTaskSeconds)) {
    auto platform = std::make_shared<Platform>();
    platform->main = main_;
    platform->http = http_;
    platform->defaults = defaults_;
    platform->device = std::make_shared<LinuxDeviceFacts>(settings_);
    platform->lifecycle = lifecycle_;
    platform->log =
        std::make_shared<StderrLog>(options.logLevel.value_or(logLevelFromEnvironment()));
    platform->makeSerialQueue = [workers = workers_](const std::string& label) {
        return workers->makeSerialQueue(label);
    };
    platform->makePathMonitor = []() -> std::shared_ptr<PathMonitor> {
        return std::make_shared<InterfacePathMonitor>();
    };
    platform->makeSocket = beastSocketFactory(http_, options.webSocket);
    host_ = std::make_shared<HeadlessHost>();
    platform->host = host_;
    platform->actions = host_->actions();
    platform->renderer = std::make_shared<HeadlessRenderer>();
    auto appearance = [settings = settings_] { return settings->get().appearance; };
    prompts_ = std::make_shared<HeadlessPromptPresenter>(appearance);
    banner_ = std::make_shared<HeadlessBannerPresenter>(appearance);
    platform->prompts = prompts_;
    platform->banner = banner_;
    overlay_ = std::make_shared<HeadlessOverlayPresenter>(appearance);
    platform->overlay = overlay_;
    platform_ = std::move(platform);
    if (options.install) installPlatform(platform_);
}

std::vector<std::uint8_t> Runtime::renderCustomerView() {
    return runOnMain([this] { return headless::renderCustomerView(*host_); });
}

Runtime::~Runtime() {
    // Network first, so no completion arrives half-way (requests and sockets in flight complete
    // as cancelled); the workers before main, because background work may be waiting for main.
    http_->shutdown();
    workers_->shutdown();
    main_->shutdown();
}

}  // namespace virela::headless
