#pragma once

#include <optional>
#include <string_view>

namespace virela {

// An internet date-time (RFC 3339: "2030-01-01T00:00:00Z", "2030-01-01T00:00:00.123+02:00") as
// seconds since 1970-01-01T00:00:00Z. Accepts the form with fractional seconds and the one
// without; nullopt for anything else, including out-of-range fields.
std::optional<double> parseInternetDateTime(std::string_view text) noexcept;

}  // namespace virela
