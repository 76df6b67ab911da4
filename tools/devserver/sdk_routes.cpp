#include "tools/devserver/sdk_routes.hpp"

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <variant>

#include <nlohmann/json.hpp>

#include "tools/devserver/multipart.hpp"

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

// A 44 x 44 solid green square.
constexpr char kLogo[] =
    "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52\x00\x00\x00\x2c\x00\x00"
    "\x00\x2c\x08\x02\x00\x00\x00\x91\xe6\xcd\x56\x00\x00\x00\x36\x49\x44\x41\x54\x78\xda\xed"
    "\xce\x31\x0d\x00\x00\x08\x03\xb0\x29\xc2\x04\x46\x91\x8a\x05\x3e\x9e\x26\x15\xd0\xd4\xf4"
    "\xbb\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48\x48"
    "\x48\xdc\x2d\x2c\xda\x11\x09\xe3\x97\x6c\xb1\x00\x00\x00\x00\x49\x45\x4e\x44\xae\x42\x60"
    "\x82";

constexpr std::string_view kPngSignature("\x89PNG\r\n\x1a\n", 8);

Reply pngReply(std::string bytes) {
    Reply reply;
    reply.body = std::move(bytes);
    reply.contentType = "image/png";
    return reply;
}

// The file of an upload request, or the 400 that refuses it.
struct Upload {
    std::string png;
    std::string contentType;
    std::string fileName;
};

std::variant<Upload, Reply> readUpload(const RecordedRequest& request) {
    std::optional<std::string> boundary =
        formDataBoundary(request.header("Content-Type").value_or(""));
    if (!boundary) {
        return jsonError(400, "bad_request",
                         "The body must be multipart/form-data with a boundary parameter.");
    }
    std::optional<std::vector<FormPart>> parts = parseFormData(request.body, *boundary);
    if (!parts) {
        return jsonError(400, "bad_request", "The multipart body is malformed or incomplete.");
    }
    auto file = std::find_if(parts->begin(), parts->end(),
                             [](const FormPart& part) { return part.name == "file"; });
    if (file == parts->end()) {
        return jsonError(400, "bad_request", "The form has no part named \"file\".");
    }
    if (file->data.substr(0, kPngSignature.size()) != kPngSignature) {
        return jsonError(400, "bad_request", "The file is not a PNG image.");
    }
    return Upload{std::string(file->data), file->contentType.value_or(""),
                  file->fileName.value_or("")};
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

void addCaptureRoutes(Router& router, const DeviceRegistry& registry, CaptureBook& book,
                      CaptureSettings settings) {
    auto shared = std::make_shared<const CaptureSettings>(std::move(settings));

    router.add("POST", "/v1/sdk/prompts/{id}/shown",
               [&registry, &book](const RecordedRequest& request, const PathParams& params) {
                   if (!deviceToken(request, registry)) return unauthorized();
                   if (!parseObject(request.body)) return notAnObject();
                   book.promptShown(params.get("id"));
                   return jsonReply({{"ok", true}});
               });

    router.add(
        "POST", "/v1/sdk/captures/{id}/respond",
        [&registry, &book, shared](const RecordedRequest& request, const PathParams& params) {
            if (!deviceToken(request, registry)) return unauthorized();
            std::optional<json> body = parseObject(request.body);
            if (!body) return notAnObject();
            auto allow = body->find("allow");
            if (allow == body->end() || !allow->is_boolean()) {
                return jsonError(400, "bad_request", "\"allow\" must be true or false.");
            }
            CaptureBook::Answer answer =
                book.answer(params.get("id"), allow->get<bool>(), shared->session);
            nlohmann::ordered_json reply{{"status", answer.status}};
            if (answer.sessionExpiresAt) reply["sessionExpiresAt"] = *answer.sessionExpiresAt;
            return jsonReply(reply);
        });

    router.add(
        "POST", "/v1/sdk/captures/{id}/upload",
        [&registry, &book, shared](const RecordedRequest& request, const PathParams& params) {
            if (!deviceToken(request, registry)) return unauthorized();
            std::variant<Upload, Reply> upload = readUpload(request);
            if (Reply* refused = std::get_if<Reply>(&upload)) return std::move(*refused);
            Upload& file = std::get<Upload>(upload);
            const std::string linkPrefix = shared->baseUrl() + "/captures/";
            const std::string captureId =
                book.store(params.get("id"), std::move(file.png), std::move(file.contentType),
                           std::move(file.fileName), linkPrefix);
            return jsonReply(
                {{"captureId", captureId}, {"imageUrl", linkPrefix + captureId + ".png"}});
        });

    // The agent's link to an image: no device token, like a link pasted into a ticket.
    router.add("GET", "/captures/{file}",
               [&book](const RecordedRequest& request, const PathParams& params) {
                   std::string_view file = params.get("file");
                   constexpr std::string_view kSuffix = ".png";
                   std::optional<std::string> png;
                   if (file.size() > kSuffix.size() && file.ends_with(kSuffix)) {
                       png = book.image(file.substr(0, file.size() - kSuffix.size()));
                   }
                   if (!png) {
                       return jsonError(404, "not_found", "No capture at " + request.path + ".");
                   }
                   return pngReply(std::move(*png));
               });

    router.add("GET", kLogoPath, [](const RecordedRequest&, const PathParams&) {
        return pngReply(std::string(kLogo, sizeof kLogo - 1));
    });
}

}  // namespace virela::devserver
