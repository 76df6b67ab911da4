#pragma once

// Reads the headless views, accessibility elements and view controllers for remote input and
// screen tracking, as the UIKit reader reads the live ones.

#include <optional>
#include <vector>

#include "core/ports/host_actions.hpp"

namespace virela::headless {

class HeadlessHost;

class HeadlessNodeReader final : public NodeReader {
  public:
    // `host` owns the reader and gives it the platform version to report.
    explicit HeadlessNodeReader(const HeadlessHost& host) : host_(host) {}

    std::optional<NodeFacts> readNode(HostHandle node) override;
    void subviews(HostHandle view, std::vector<HostHandle>& out) override;
    HostHandle elementAt(HostHandle node, long index) override;
    void readViews(HostHandle window, std::vector<NodeFacts>& out) override;
    HostHandle hitTest(HostHandle window, Point point) override;
    HostHandle nextResponder(HostHandle responder) override;
    bool platformVersionAtLeast(int major) override;
    std::optional<ControllerFacts> readController(HostHandle controller) override;

  private:
    const HeadlessHost& host_;
};

}  // namespace virela::headless
