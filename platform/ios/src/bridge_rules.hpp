#pragma once

// Small decisions of the Objective-C++ adapters, kept free of Objective-C so that the Linux test
// suite runs them.

#include <cstdint>
#include <optional>
#include <string_view>

#include "core/api/records.hpp"

namespace virela::ios {

// A delay in nanoseconds for dispatch_time(): 0 for a negative or NaN delay, nullopt for one
// too long to represent (such work never comes due).
std::optional<std::int64_t> delayNanoseconds(double seconds) noexcept;

// The environment for a host's custom base URL, given as its absolute string; nullopt when the
// core could not resolve request paths against it.
std::optional<VirelaEnvironment> customEnvironment(std::string_view absoluteUrl);

}  // namespace virela::ios
