#pragma once

// What every flow shares with the client, and nothing more: the transport of the latest
// configure, the consent prompt, the host's callbacks, the stored registration and the window
// registry. A flow gets the ports it uses when it is made and reads these through here, so it
// never reaches the rest of the client, and a test can hand a flow a context of its own.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace virela {

class ConsentPrompt;
class Transport;
class WindowRegistry;
struct RegisterResult;
struct VirelaCallbacks;

class FlowContext {
  public:
    virtual ~FlowContext() = default;
    // Null until the first configure has made one.
    virtual std::shared_ptr<Transport> transport() const = 0;
    // The one sheet on screen at a time, shared by every flow that asks the customer.
    virtual ConsentPrompt& prompt() = 0;
    virtual const VirelaCallbacks& callbacks() const = 0;
    // Null until a registration has succeeded.
    virtual const RegisterResult* registration() const = 0;
    // The windows the platform reports visible. Main executor only.
    virtual WindowRegistry& windows() = 0;

    // Every configure, reset and stop begins a new epoch. A flow notes the epoch when it sends a
    // request and asks isCurrent() when the reply is back: a reply that outlived its reason
    // starts nothing and tells the host nothing.
    virtual std::uint64_t epoch() const = 0;
    // True while the client runs (not stopped) in `epoch`.
    virtual bool isCurrent(std::uint64_t epoch) const = 0;

    // Tells the backend that the customer was shown the prompt `promptId`; only a report, so
    // its outcome is not waited for. Nothing without an id, a transport or a usable path.
    void reportPromptShown(const std::optional<std::string>& promptId);
};

}  // namespace virela
