#pragma once

#include "core/wire/push_router.hpp"

namespace virela {

// The client's own router: each push goes to the flow that owns it. Flows that do not exist
// yet keep the router's default of ignoring their pushes.
class FlowRouter : public PushRouter {
  public:
    void consent(VirelaClient& client, const ConsentPush& push) override;
    void capture(const std::shared_ptr<VirelaClient>& client, const CapturePush& push) override;
};

}  // namespace virela
