#pragma once

#include <string_view>

#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/exchange.hpp"

namespace virela::devserver {

inline constexpr std::string_view kSocketPath = "/sdk/socket";
// A device offers "virela.device." + its token as a WebSocket subprotocol; that is the only
// credential the socket accepts.
inline constexpr std::string_view kDeviceProtocolPrefix = "virela.device.";

// Decides a request to the socket path: an upgrade for the device whose token one of the
// offered subprotocols carries, or a JSON error sent before any handshake. Everything the
// WebSocket handshake itself needs is checked here too, so that an admitted request never
// fails later with a non-JSON reply. `version` is 10 or 11.
Outcome admitSocket(const RecordedRequest& request, int version, const DeviceRegistry& registry,
                    bool refusing);

}  // namespace virela::devserver
