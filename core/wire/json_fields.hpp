#pragma once

// Strict reading of wire records: required keys must be present with the right JSON type,
// optional keys may be absent or null, unknown keys are ignored. Every failure throws
// DecodingError naming the key.

#include <optional>
#include <string>
#include <string_view>

#include "core/base/json.hpp"

namespace virela::wire {

// Parses bytes as JSON; throws DecodingError when they are not JSON.
nlohmann::json parse(std::string_view bytes);
// Throws DecodingError unless `value` is an object.
const nlohmann::json& requireObject(const nlohmann::json& value, std::string_view what);

std::string requireString(const nlohmann::json& object, const char* key);
std::optional<std::string> optionalString(const nlohmann::json& object, const char* key);
bool requireBool(const nlohmann::json& object, const char* key);
std::optional<bool> optionalBool(const nlohmann::json& object, const char* key);
double requireNumber(const nlohmann::json& object, const char* key);
std::optional<double> optionalNumber(const nlohmann::json& object, const char* key);

}  // namespace virela::wire
