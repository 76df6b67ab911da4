#pragma once

#include <optional>
#include <string>

#include "core/base/url.hpp"

namespace virela {

// The realtime channel's URL: "/sdk/socket" on the backend's origin (the base path is
// replaced), wss for an https base and ws for anything else.
std::optional<Url> socketUrl(const Url& baseUrl);

// The one subprotocol offered: the device's credential.
std::string socketProtocol(const std::string& deviceToken);

}  // namespace virela
