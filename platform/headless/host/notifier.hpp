#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "core/ports/host.hpp"

namespace virela::headless {

// Delivers the window visibility notifications synchronously, as the platform's notification
// centre does.
class HostNotifier : public std::enable_shared_from_this<HostNotifier> {
  public:
    using Handler = std::function<void(HostHandle window, bool visible)>;
    std::unique_ptr<Subscription> observe(Handler handler);
    void post(HostHandle window, bool visible);

  private:
    std::map<std::uint64_t, std::shared_ptr<Handler>> handlers_;
    std::uint64_t next_ = 1;
};

// Counts structural changes of any view tree (views added or removed), so that a walk can tell
// that the tree changed under it.
void treeChanged() noexcept;
std::uint64_t treeGeneration() noexcept;

}  // namespace virela::headless
