#pragma once

// Small decisions of the Objective-C++ adapters, kept free of Objective-C so that the Linux test
// suite runs them.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/base/records.hpp"
#include "core/ports/socket.hpp"

namespace virela::ios {

// A delay in nanoseconds for dispatch_time(): 0 for a negative or NaN delay, nullopt for one
// too long to represent (such work never comes due).
std::optional<std::int64_t> delayNanoseconds(double seconds) noexcept;

// The environment for a host's custom base URL, given as its absolute string; nullopt when the
// core could not resolve request paths against it.
std::optional<VirelaEnvironment> customEnvironment(std::string_view absoluteUrl);

// NSURLSessionTaskState's values (the socket adapter checks them against Foundation).
namespace task_state {
inline constexpr long running = 0;
inline constexpr long suspended = 1;
inline constexpr long canceling = 2;
inline constexpr long completed = 3;
}  // namespace task_state

// The socket state for a URL-session task state. A state Foundation might add later reads as
// completed, so that the core opens a new socket rather than send on one it cannot vouch for.
SocketState socketStateOf(long taskState) noexcept;

}  // namespace virela::ios
