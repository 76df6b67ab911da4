#pragma once

// The headless platform's host interface: an in-memory application of scenes, windows and
// views that core reads and acts on exactly as it does a UIKit app. The host reads them for
// capture; one object per role (node_reader.hpp and the four *_actions.hpp) serves remote
// input.

#include <memory>
#include <vector>

#include "core/ports/host.hpp"
#include "core/ports/host_actions.hpp"
#include "platform/headless/host/control_actions.hpp"
#include "platform/headless/host/list_actions.hpp"
#include "platform/headless/host/menu_actions.hpp"
#include "platform/headless/host/node_reader.hpp"
#include "platform/headless/host/responder_actions.hpp"
#include "platform/headless/host/screen.hpp"

namespace virela::headless {

class HeadlessHost final : public HostInterface, public std::enable_shared_from_this<HeadlessHost> {
  public:
    HeadlessHost();
    ~HeadlessHost() override;

    // Connected scenes, in order.
    std::shared_ptr<Scene> addScene(SceneActivation activation = SceneActivation::foregroundActive);
    void removeScene(const Scene& scene);
    const std::vector<std::shared_ptr<Scene>>& scenes() const noexcept { return scenes_; }
    // The platform's version as hosts report it ("16.4"); decides platform-gated behaviour.
    int platformMajorVersion = 17;

    // HostInterface
    void readScenes(std::vector<SceneFacts>& out) override;
    std::optional<WindowFacts> readWindow(HostHandle window) override;
    void walkViews(HostHandle window, ViewVisitor& visitor) override;
    std::unique_ptr<Subscription> observeWindowVisibility(
        std::function<void(HostHandle window, bool visible)> handler) override;

    // The host-action roles over this host's views, for Platform::actions and the input engine.
    // Each keeps the host alive; the host must be owned by a shared_ptr.
    HostActions actions();

  private:
    std::vector<std::shared_ptr<Scene>> scenes_;
    std::shared_ptr<HostNotifier> notifier_;
    HeadlessNodeReader reader_{*this};
    HeadlessResponderActions responders_;
    HeadlessControlActions controls_;
    HeadlessListActions lists_;
    HeadlessMenuActions menus_;
};

}  // namespace virela::headless
