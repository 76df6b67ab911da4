#include "core/wire/json_fields.hpp"

#include "core/base/errors.hpp"
#include "core/base/json.hpp"

namespace virela::wire {

using nlohmann::json;

namespace {
const json* lookup(const json& object, const char* key) {
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}
[[noreturn]] void fail(const char* key, const char* problem) {
    throw DecodingError(std::string("\"") + key + "\" " + problem);
}
}  // namespace

json parse(std::string_view bytes) {
    if (!jsonNestsWithin(bytes)) throw DecodingError("nested too deep");
    json value = json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (value.is_discarded()) throw DecodingError("not JSON");
    return value;
}

const json& requireObject(const json& value, std::string_view what) {
    if (!value.is_object()) throw DecodingError(std::string(what) + " is not a JSON object");
    return value;
}

std::string requireString(const json& object, const char* key) {
    const json* v = lookup(object, key);
    if (!v) fail(key, "is missing");
    if (!v->is_string()) fail(key, "is not a string");
    return v->get<std::string>();
}

std::optional<std::string> optionalString(const json& object, const char* key) {
    const json* v = lookup(object, key);
    if (!v || v->is_null()) return std::nullopt;
    if (!v->is_string()) fail(key, "is not a string");
    return v->get<std::string>();
}

bool requireBool(const json& object, const char* key) {
    const json* v = lookup(object, key);
    if (!v) fail(key, "is missing");
    if (!v->is_boolean()) fail(key, "is not a boolean");
    return v->get<bool>();
}

std::optional<bool> optionalBool(const json& object, const char* key) {
    const json* v = lookup(object, key);
    if (!v || v->is_null()) return std::nullopt;
    if (!v->is_boolean()) fail(key, "is not a boolean");
    return v->get<bool>();
}

double requireNumber(const json& object, const char* key) {
    const json* v = lookup(object, key);
    if (!v) fail(key, "is missing");
    if (!v->is_number()) fail(key, "is not a number");
    return v->get<double>();
}

std::optional<double> optionalNumber(const json& object, const char* key) {
    const json* v = lookup(object, key);
    if (!v || v->is_null()) return std::nullopt;
    if (!v->is_number()) fail(key, "is not a number");
    return v->get<double>();
}

}  // namespace virela::wire
