#pragma once

// Selecting rows of the headless tables and collections through their delegates.

#include <optional>
#include <utility>

#include "core/ports/host_actions.hpp"

namespace virela::headless {

class HeadlessListActions final : public ListActions {
  public:
    std::optional<std::pair<ListFacts, IndexPath>> listOfCell(HostHandle cell) override;
    std::optional<IndexPath> willSelectRow(HostHandle table, IndexPath path) override;
    bool selectRow(HostHandle list, IndexPath path) override;
    bool didSelectRow(HostHandle list, IndexPath path) override;
    bool shouldSelectItem(HostHandle collection, IndexPath path) override;
    bool performPrimaryActionForItem(HostHandle collection, IndexPath path) override;
};

}  // namespace virela::headless
