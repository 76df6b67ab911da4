#pragma once

// The headless platform's host interface: an in-memory application of scenes, windows and
// views that core reads and acts on exactly as it does a UIKit app.

#include <memory>
#include <vector>

#include "core/ports/host.hpp"
#include "platform/headless/host/screen.hpp"

namespace virela::headless {

class HeadlessHost final : public HostInterface, public HostActions {
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

    // HostActions
    std::optional<NodeFacts> readNode(HostHandle node) override;
    void subviews(HostHandle view, std::vector<HostHandle>& out) override;
    HostHandle elementAt(HostHandle node, long index) override;
    void readViews(HostHandle window, std::vector<NodeFacts>& out) override;
    HostHandle hitTest(HostHandle window, Point point) override;
    HostHandle nextResponder(HostHandle responder) override;
    bool platformVersionAtLeast(int major) override;
    bool accessibilityActivate(HostHandle element) override;
    bool becomeFirstResponder(HostHandle responder) override;
    bool resignFirstResponder(HostHandle responder) override;
    bool insertText(HostHandle responder, const std::string& text) override;
    bool deleteBackward(HostHandle responder) override;
    bool sendActions(HostHandle control, std::uint64_t events) override;
    bool setOn(HostHandle control, bool on, bool animated) override;
    bool setValue(HostHandle control, double value, bool animated) override;
    bool setSelectedSegment(HostHandle control, long index) override;
    bool performPrimaryAction(HostHandle button) override;
    std::optional<std::pair<ListFacts, IndexPath>> listOfCell(HostHandle cell) override;
    std::optional<IndexPath> willSelectRow(HostHandle table, IndexPath path) override;
    bool selectRow(HostHandle list, IndexPath path) override;
    bool didSelectRow(HostHandle list, IndexPath path) override;
    bool shouldSelectItem(HostHandle collection, IndexPath path) override;
    bool performPrimaryActionForItem(HostHandle collection, IndexPath path) override;
    std::optional<MenuElement> buttonMenu(HostHandle button) override;
    bool runMenuAction(HostHandle action) override;
    void dismissContextMenus(HostHandle view) override;
    bool setContentOffset(HostHandle scrollView, Point offset) override;
    std::optional<ControllerFacts> readController(HostHandle controller) override;

  private:
    std::vector<std::shared_ptr<Scene>> scenes_;
    std::shared_ptr<HostNotifier> notifier_;
};

}  // namespace virela::headless
