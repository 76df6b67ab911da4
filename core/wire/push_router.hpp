#pragma once

#include <memory>

#include "core/wire/push_records.hpp"

namespace virela {

class VirelaClient;

// Where decoded pushes go, one handler per message type. Every handler runs on the main
// executor with the client, except capture(), which runs off it (its flow moves to the main
// executor where it needs to). The defaults do nothing: each flow overrides its own.
class PushRouter {
  public:
    virtual ~PushRouter() = default;
    virtual void consent(VirelaClient&, const ConsentPush&) {}
    virtual void capture(const std::shared_ptr<VirelaClient>&, const CapturePush&) {}
    virtual void live(VirelaClient&, const LivePush&) {}
    virtual void liveNote(VirelaClient&, const LiveNotePush&) {}
    virtual void guide(VirelaClient&, const GuidePush&) {}
    virtual void control(VirelaClient&, const ControlPush&) {}
    virtual void controlInput(VirelaClient&, const ControlInputPush&) {}
};

}  // namespace virela
