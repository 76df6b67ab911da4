#include "tools/devserver/sdk_routes.hpp"

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <variant>

#include <nlohmann/json.hpp>

#include "core/base/json.hpp"
#include "tools/devserver/multipart.hpp"

namespace virela::devserver {

namespace {

using nlohmann::json;

constexpr const char* kKeyHeader = "X-Virela-Key";
constexpr std::size_t kDeviceReportLimit = 64 * 1024;

Reply unauthorized() {
    return jsonError(401, "unauthorized", "Missing or unknown device token.");
}

Reply notAnObject() {
    return jsonError(400, "bad_request", "The body must be a JSON object, nested at most 64 deep.");
}

std::optional<json> parseObject(const std::string& body) {
    if (!jsonNestsWithin(body)) return std::nullopt;
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

// Tells `report` what the device behind the request reported, when anyone listens.
void tell(const ReportHandler& report, const DeviceRegistry& registry,
          const RecordedRequest& request, decltype(DeviceReport::what) what) {
    if (!report) return;
    std::optional<std::string> token = request.header(kDeviceHeader);
    std::optional<std::string> deviceId = token ? registry.deviceIdOf(*token) : std::nullopt;
    if (!deviceId) return;
    report(DeviceReport{std::move(*deviceId), std::move(what)});
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

Reply imageReply(std::string bytes, std::string contentType) {
    Reply reply;
    reply.body = std::move(bytes);
    reply.contentType = std::move(contentType);
    return reply;
}

constexpr std::string_view kJpegSignature("\xff\xd8\xff", 3);

// The file of an upload request, or the 400 that refuses it.
struct Upload {
    std::string bytes;
    std::string contentType;
    std::string fileName;
};

// The part named "file" of a multipart/form-data body, which must begin with `signature`.
// Devices label live frames "capture.png" like screenshots, so only the bytes tell them apart.
std::variant<Upload, Reply> readUpload(const RecordedRequest& request, std::string_view signature,
                                       std::string_view format) {
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
    if (file->data.substr(0, signature.size()) != signature) {
        return jsonError(400, "bad_request",
                         "The file is not a " + std::string(format) + " image.");
    }
    return Upload{std::string(file->data), file->contentType.value_or(""),
                  file->fileName.value_or("")};
}

// A route of one live session with a JSON object for its body: `guard` turns the request away
// first, or lets `handle` have the session id and the object.
template <class Guard, class Handle>
RouteHandler sessionJson(Guard guard, Handle handle) {
    return [guard = std::move(guard), handle = std::move(handle)](const RecordedRequest& request,
                                                                  const PathParams& params) {
        const std::string_view sessionId = params.get("sessionId");
        if (std::optional<Reply> refused = guard(request, sessionId)) return std::move(*refused);
        std::optional<json> body = parseObject(request.body);
        if (!body) return notAnObject();
        return handle(request, sessionId, *body);
    };
}

}  // namespace

void addDeviceRoutes(Router& router, DeviceRegistry& registry, SdkSettings settings) {
    auto shared = std::make_shared<const SdkSettings>(std::move(settings));
    // What a device registers and reports is kept, and its health shown to the console on every
    // poll; with the demo key public, only uploads may be large.
    auto addKept = [&router](const char* path, RouteHandler handle) {
        router.add(
            "POST", path,
            [handle = std::move(handle)](const RecordedRequest& request, const PathParams& params) {
                if (request.body.size() > kDeviceReportLimit) {
                    return jsonError(413, "body_too_large",
                                     "A device's registration or report may hold 64 KiB.");
                }
                return handle(request, params);
            });
    };

    addKept("/v1/sdk/devices",
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

    addKept("/v1/sdk/devices/identify", [&registry, shared](const RecordedRequest& request,
                                                            const PathParams&) {
        std::optional<std::string> token = deviceToken(request, registry);
        if (!token) return unauthorized();
        std::optional<json> body = parseObject(request.body);
        if (!body) return notAnObject();
        std::optional<std::string> id;
        IdentifiedUser user;
        if (!optionalString(*body, "id", id) || !id || !optionalString(*body, "name", user.name) ||
            !optionalString(*body, "phone", user.phone)) {
            return jsonError(400, "bad_request",
                             "\"id\" must be a string; \"name\" and \"phone\" strings "
                             "or null.");
        }
        user.id = std::move(*id);
        if (!registry.identify(*token, user)) return unauthorized();
        tell(shared->report, registry, request, report::Identified{std::move(user)});
        return jsonReply({{"ok", true}});
    });

    addKept("/v1/sdk/devices/reset",
            [&registry](const RecordedRequest& request, const PathParams&) {
                std::optional<std::string> token = deviceToken(request, registry);
                if (!token) return unauthorized();
                if (!parseObject(request.body)) return notAnObject();
                std::optional<std::string> code = registry.resetSupportCode(*token);
                if (!code) return unauthorized();
                return jsonReply({{"supportCode", *code}});
            });

    addKept("/v1/sdk/devices/health",
            [&registry, shared](const RecordedRequest& request, const PathParams&) {
                std::optional<std::string> token = deviceToken(request, registry);
                if (!token) return unauthorized();
                if (!parseObject(request.body)) return notAnObject();
                if (!registry.storeHealth(*token, request.body)) return unauthorized();
                tell(shared->report, registry, request, report::HealthReported{});
                return jsonReply({{"ok", true}});
            });
}

void addCaptureRoutes(Router& router, const DeviceRegistry& registry, CaptureBook& book,
                      LiveBook& live, CaptureSettings settings) {
    auto shared = std::make_shared<const CaptureSettings>(std::move(settings));

    router.add("POST", "/v1/sdk/prompts/{id}/shown",
               [&registry, &book, &live, shared](const RecordedRequest& request,
                                                 const PathParams& params) {
                   if (!deviceToken(request, registry)) return unauthorized();
                   if (!parseObject(request.body)) return notAnObject();
                   book.promptShown(params.get("id"));
                   live.promptShown(params.get("id"));
                   tell(shared->report, registry, request,
                        report::PromptShown{std::string(params.get("id"))});
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
            tell(shared->report, registry, request,
                 report::ScreenshotAnswered{std::string(params.get("id")), allow->get<bool>()});
            nlohmann::ordered_json reply{{"status", answer.status}};
            if (answer.sessionExpiresAt) reply["sessionExpiresAt"] = *answer.sessionExpiresAt;
            return jsonReply(reply);
        });

    router.add(
        "POST", "/v1/sdk/captures/{id}/upload",
        [&registry, &book, shared](const RecordedRequest& request, const PathParams& params) {
            if (!deviceToken(request, registry)) return unauthorized();
            std::variant<Upload, Reply> upload = readUpload(request, kPngSignature, "PNG");
            if (Reply* refused = std::get_if<Reply>(&upload)) return std::move(*refused);
            Upload& file = std::get<Upload>(upload);
            const std::string linkPrefix = shared->baseUrl() + "/captures/";
            Attempt<std::string> stored =
                book.store(params.get("id"), std::move(file.bytes), std::move(file.contentType),
                           std::move(file.fileName), linkPrefix);
            if (stored.refusal) {
                tell(shared->report, registry, request,
                     report::ScreenshotRefused{std::string(params.get("id")),
                                               stored.refusal->reason});
                return jsonError(
                    409, stored.refusal->error,
                    "Screenshot refused: " + stored.refusal->reason + "; it was not kept.");
            }
            const std::string& captureId = *stored.value;
            tell(shared->report, registry, request,
                 report::ScreenshotUploaded{std::string(params.get("id")), captureId});
            return jsonReply({{"captureId", captureId},
                              {"imageUrl", shared->baseUrl() + captureImagePath(captureId)}});
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
                   return imageReply(std::move(*png), "image/png");
               });

    router.add("GET", kLogoPath, [](const RecordedRequest&, const PathParams&) {
        return imageReply(std::string(kLogo, sizeof kLogo - 1), "image/png");
    });
}

std::string captureImagePath(std::string_view captureId) {
    return "/captures/" + std::string(captureId) + ".png";
}

std::string liveFramePath(std::string_view sessionId) {
    return "/live/" + std::string(sessionId) + "/latest.jpg";
}

void addLiveRoutes(Router& router, const DeviceRegistry& registry, LiveBook& live,
                   std::function<std::string()> baseUrl, ReportHandler report) {
    auto shared = std::make_shared<const ReportHandler>(std::move(report));

    // The session's device, or the reply that turns the request away: 404 for a session this
    // device was never part of, 410 for one the backend has ended, as frames and confirmations
    // of a session that is over must stop.
    auto admit = [&registry, &live](const RecordedRequest& request,
                                    std::string_view sessionId) -> std::optional<Reply> {
        std::optional<std::string> token = deviceToken(request, registry);
        std::optional<std::string> deviceId = token ? registry.deviceIdOf(*token) : std::nullopt;
        if (!deviceId) return unauthorized();
        switch (live.standing(sessionId, *deviceId)) {
            case LiveBook::Standing::unknown:
                return jsonError(404, "not_found",
                                 "No live session " + std::string(sessionId) + ".");
            case LiveBook::Standing::ended:
                return jsonError(410, "session_ended",
                                 "The live session " + std::string(sessionId) + " has ended.");
            case LiveBook::Standing::open:
                break;
        }
        return std::nullopt;
    };

    // The answering device, or the reply that turns the request away: answers and take-backs
    // may come after the backend ended the session, so only a session this device was never part
    // of is refused (404).
    auto answering = [&registry, &live](const RecordedRequest& request,
                                        std::string_view sessionId) -> std::optional<Reply> {
        std::optional<std::string> token = deviceToken(request, registry);
        std::optional<std::string> deviceId = token ? registry.deviceIdOf(*token) : std::nullopt;
        if (!deviceId) return unauthorized();
        if (live.standing(sessionId, *deviceId) == LiveBook::Standing::unknown) {
            return jsonError(404, "not_found", "No live session " + std::string(sessionId) + ".");
        }
        return std::nullopt;
    };

    router.add("POST", "/v1/sdk/live/{sessionId}/respond",
               sessionJson(answering, [&registry, &live, shared](const RecordedRequest& request,
                                                                 std::string_view sessionId,
                                                                 const json& object) {
                   // A stop may come after the backend ended the session; it is still an answer.
                   auto allow = object.find("allow");
                   if (allow == object.end() || !allow->is_boolean()) {
                       return jsonError(400, "bad_request", "\"allow\" must be true or false.");
                   }
                   live.answer(sessionId, allow->get<bool>());
                   tell(*shared, registry, request,
                        report::LiveAnswered{std::string(sessionId), allow->get<bool>()});
                   return jsonReply({{"status", allow->get<bool>() ? "Allowed" : "Denied"}});
               }));

    router.add("POST", "/v1/sdk/live/{sessionId}/frame",
               [admit, &registry, &live, shared, baseUrl = std::move(baseUrl)](
                   const RecordedRequest& request, const PathParams& params) {
                   const std::string_view sessionId = params.get("sessionId");
                   if (std::optional<Reply> refused = admit(request, sessionId)) {
                       return std::move(*refused);
                   }
                   if (std::optional<Refusal> refusal = live.admitFrame(sessionId)) {
                       tell(*shared, registry, request,
                            report::FrameReceived{std::string(sessionId), true, refusal->reason});
                       return jsonError(409, refusal->error,
                                        "Frame refused: " + refusal->reason + "; it was not kept.");
                   }
                   std::variant<Upload, Reply> upload = readUpload(request, kJpegSignature, "JPEG");
                   if (Reply* refused = std::get_if<Reply>(&upload)) return std::move(*refused);
                   // Devices label every image a PNG and the bytes tell what it is; anything else
                   // declared is not a frame.
                   const std::string& declared = std::get<Upload>(upload).contentType;
                   if (declared != "image/jpeg" && declared != "image/png") {
                       return jsonError(
                           400, "bad_request",
                           "The part \"file\" must be declared image/jpeg or image/png.");
                   }
                   live.storeFrame(sessionId, std::move(std::get<Upload>(upload).bytes),
                                   baseUrl() + liveFramePath(sessionId));
                   tell(*shared, registry, request,
                        report::FrameReceived{std::string(sessionId), false, {}});
                   return jsonReply(json::object());
               });

    router.add("POST", "/v1/sdk/live/{sessionId}/indicator",
               sessionJson(admit, [&registry, &live, shared](const RecordedRequest& request,
                                                             std::string_view sessionId,
                                                             const json& object) {
                   auto kind = object.find("kind");
                   auto generation = object.find("generation");
                   if (kind == object.end() || !kind->is_string() || generation == object.end() ||
                       !generation->is_string()) {
                       return jsonError(400, "bad_request",
                                        "\"kind\" and \"generation\" must be strings.");
                   }
                   const std::string kindText = kind->get<std::string>();
                   const std::optional<Refusal> refusal =
                       live.confirmIndicator(sessionId, kindText, generation->get<std::string>());
                   tell(*shared, registry, request,
                        report::IndicatorConfirmed{std::string(sessionId), kindText,
                                                   generation->get<std::string>(), !refusal,
                                                   refusal ? refusal->reason : std::string()});
                   if (refusal) {
                       return jsonError(409, refusal->error,
                                        "The backend does not hold this \"" + kindText +
                                            "\" lease: " + refusal->reason + ".");
                   }
                   return jsonReply({{"ok", true}});
               }));

    // Like the live answer, a take-back may come after the backend ended control or the session.
    router.add("POST", "/v1/sdk/live/{sessionId}/control/respond",
               sessionJson(answering, [&registry, &live, shared](const RecordedRequest& request,
                                                                 std::string_view sessionId,
                                                                 const json& object) {
                   auto allow = object.find("allow");
                   std::optional<std::string> requestId;
                   if (allow == object.end() || !allow->is_boolean() ||
                       !optionalString(object, "requestId", requestId)) {
                       return jsonError(400, "bad_request",
                                        "\"allow\" must be true or false; \"requestId\" a string "
                                        "or null.");
                   }
                   live.answerControl(sessionId, allow->get<bool>(), std::move(requestId));
                   tell(*shared, registry, request,
                        report::ControlAnswered{std::string(sessionId), allow->get<bool>()});
                   return jsonReply({{"status", allow->get<bool>() ? "Allowed" : "Denied"}});
               }));

    router.add("POST", "/v1/sdk/live/{sessionId}/control/feedback",
               sessionJson(admit, [&registry, &live, shared](const RecordedRequest& request,
                                                             std::string_view sessionId,
                                                             const json& object) {
                   auto kind = object.find("kind");
                   if (kind == object.end() || !kind->is_string()) {
                       return jsonError(400, "bad_request", "\"kind\" must be a string.");
                   }
                   // Any kind is kept, so that a test sees exactly what the device reported.
                   live.controlFeedback(sessionId, kind->get<std::string>());
                   tell(*shared, registry, request,
                        report::ControlFeedback{std::string(sessionId), kind->get<std::string>()});
                   return jsonReply({{"ok", true}});
               }));

    // The agent's view of the stream: no device token, like a capture's link.
    router.add("GET", "/live/{sessionId}/latest.jpg",
               [&live](const RecordedRequest& request, const PathParams& params) {
                   std::optional<std::string> jpeg = live.latestFrame(params.get("sessionId"));
                   if (!jpeg) {
                       return jsonError(404, "not_found", "No frame at " + request.path + ".");
                   }
                   Reply reply = imageReply(std::move(*jpeg), "image/jpeg");
                   // A new frame replaces this one a third of a second later.
                   reply.headers.push_back({"Cache-Control", "no-store"});
                   return reply;
               });
}

}  // namespace virela::devserver
