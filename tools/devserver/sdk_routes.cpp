#include "tools/devserver/sdk_routes.hpp"

#include <algorithm>
#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

namespace virela::devserver {

namespace {

using nlohmann::json;

constexpr const char* kKeyHeader = "X-Virela-Key";
constexpr const char* kDeviceHeader = "X-Virela-Device";

Reply unauthorized() {
    return jsonError(401, "unauthorized", "Missing or unknown device token.");
}

Reply notAnObject() {
    return jsonError(400, "bad_request", "The body must be a JSON object.");
}

std::optional<json> parseObject(const std::string& body) {
    json value = json::parse(body, nullptr, /*allow_exceptions=*/false);
    if (!value.is_object()) return std::nullopt;
    return value;
}

// A member that must be a string or null (or absent); false for any other type.
bool optionalString(const json& object, const char* key, std::optional<std::string>& out) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return true;
    if (!it->is_string()) return false;
    out = it->get<std::string>();
    return true;
}

// The token of a request whose device is known. Any API key header is ignored here: once
// registered, the device token alone decides.
std::optional<std::string> deviceToken(const RecordedRequest& request,
                                       const DeviceRegistry& registry) {
    std::optional<std::string> token = request.header(kDeviceHeader);
    if (!token || !registry.knowsToken(*token)) return std::nullopt;
    return token;
}

}  // namespace

void addDeviceRoutes(Router& router, DeviceRegistry& registry, SdkSettings settings) {
    auto shared = std::make_shared<const SdkSettings>(std::move(settings));

    router.add("POST", "/v1/sdk/devices",
               [&registry, shared](const RecordedRequest& request, const PathParams&) {
                   std::optional<std::string> key = request.header(kKeyHeader);
                   const auto& keys = shared->apiKeys;
                   if (!key || std::find(keys.begin(), keys.end(), *key) == keys.end()) {
                       return jsonError(401, "invalid_key", "Missing or unknown API key.");
                   }
                   std::optional<json> body = parseObject(request.body);
                   if (!body) return notAnObject();
                   std::optional<std::string> installId;
                   if (!optionalString(*body, "installId", installId)) {
                       return jsonError(400, "bad_request", "\"installId\" must be a string.");
                   }
                   DeviceInfo device = registry.registerDevice(*key, installId, request.body);
                   return jsonReply({{"deviceId", device.deviceId},
                                     {"deviceToken", device.token},
                                     {"supportCode", device.supportCode},
                                     {"consentCopy", shared->consentCopy},
                                     {"captureMode", shared->captureMode},
                                     {"isTest", true}});
               });

    router.add("POST", "/v1/sdk/devices/identify",
               [&registry](const RecordedRequest& request, const PathParams&) {
                   std::optional<std::string> token = deviceToken(request, registry);
                   if (!token) return unauthorized();
                   std::optional<json> body = parseObject(request.body);
                   if (!body) return notAnObject();
                   std::optional<std::string> id;
                   IdentifiedUser user;
                   if (!optionalString(*body, "id", id) || !id ||
                       !optionalString(*body, "name", user.name) ||
                       !optionalString(*body, "phone", user.phone)) {
                       return jsonError(400, "bad_request",
                                        "\"id\" must be a string; \"name\" and \"phone\" strings "
                                        "or null.");
                   }
                   user.id = std::move(*id);
                   if (!registry.identify(*token, std::move(user))) return unauthorized();
                   return jsonReply({{"ok", true}});
               });

    router.add("POST", "/v1/sdk/devices/reset",
               [&registry](const RecordedRequest& request, const PathParams&) {
                   std::optional<std::string> token = deviceToken(request, registry);
                   if (!token) return unauthorized();
                   if (!parseObject(request.body)) return notAnObject();
                   std::optional<std::string> code = registry.resetSupportCode(*token);
                   if (!code) return unauthorized();
                   return jsonReply({{"supportCode", *code}});
               });

    router.add("POST", "/v1/sdk/devices/health",
               [&registry](const RecordedRequest& request, const PathParams&) {
                   std::optional<std::string> token = deviceToken(request, registry);
                   if (!token) return unauthorized();
                   if (!parseObject(request.body)) return notAnObject();
                   if (!registry.storeHealth(*token, request.body)) return unauthorized();
                   return jsonReply({{"ok", true}});
               });
}

}  // namespace virela::devserver
