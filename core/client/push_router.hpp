#pragma once

#include "core/wire/push_records.hpp"

namespace virela {

// Where decoded pushes go, one handler per message type the flows own; every handler runs on
// the main executor. The client's own router hands each push to its flow; a router that leaves a
// handler out ignores that type. Tests and benchmarks substitute a router of their own.
class PushRouter {
  public:
    virtual ~PushRouter() = default;
    virtual void consent(const ConsentPush&) {}
    virtual void capture(const CapturePush&) {}
    virtual void live(const LivePush&) {}
    virtual void liveNote(const LiveNotePush&) {}
    virtual void guide(const GuidePush&) {}
    virtual void control(const ControlPush&) {}
    virtual void controlInput(const ControlInputPush&) {}
};

}  // namespace virela
