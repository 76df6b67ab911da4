#include "tools/devserver/console_api.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/base/json.hpp"
#include "tools/devserver/agent.hpp"
#include "tools/devserver/capture_book.hpp"
#include "tools/devserver/console_auth.hpp"
#include "tools/devserver/console_journal.hpp"
#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/live_book.hpp"
#include "tools/devserver/router.hpp"
#include "tools/devserver/sdk_routes.hpp"

namespace virela::devserver {

namespace {

using json = nlohmann::json;
using ordered = nlohmann::ordered_json;

// A session counts as stale once frames stop for this long, or never start after activation.
constexpr std::chrono::milliseconds kStaleAfterFrame{2000};
constexpr std::chrono::milliseconds kStaleAfterActivation{3000};
constexpr std::size_t kMaxText = 1000;
constexpr std::size_t kMaxLabelCharacters = 200;

// A label as the customer will read it: without control characters, which could break its
// line or hide in it, and without the marks and overrides that reorder text, which could make
// it read as something else. The text is valid UTF-8 (the JSON parser saw to that).
std::string readableLabel(std::string_view text, std::size_t& characters) {
    std::string kept;
    characters = 0;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        const std::string_view unit = text.substr(i, length);
        i += length;
        char32_t code = length == 1 ? lead : lead & (0x7F >> length);
        for (std::size_t k = 1; k < unit.size(); ++k) {
            code = (code << 6) | (static_cast<unsigned char>(unit[k]) & 0x3F);
        }
        // The line and paragraph separators break a line as a newline does.
        const bool control =
            code < 0x20 || (code >= 0x7F && code <= 0x9F) || code == 0x2028 || code == 0x2029;
        const bool reorders = code == 0x061C || code == 0x200E || code == 0x200F ||
                              (code >= 0x202A && code <= 0x202E) ||
                              (code >= 0x2066 && code <= 0x2069);
        if (control || reorders) continue;
        kept.append(unit);
        ++characters;
    }
    return kept;
}

Reply badRequest(const std::string& message) {
    return jsonError(400, "bad_request", message);
}

Reply notConnected() {
    return jsonError(409, "not_connected", "The device is not connected.");
}

std::string capitalised(std::string text) {
    if (!text.empty() && text.front() >= 'a' && text.front() <= 'z') text.front() -= 'a' - 'A';
    return text;
}

// What a console action reads from its body; a wrong type is the caller's mistake, never ours.
struct Fields {
    const json& body;

    std::optional<std::string> text(const char* key) const {
        auto it = body.find(key);
        if (it == body.end() || it->is_null()) return std::nullopt;
        if (!it->is_string())
            throw std::invalid_argument(std::string("\"") + key + "\" must be a string.");
        return it->get<std::string>();
    }
    // A number between `low` and `high`; absent is nullopt.
    std::optional<double> number(const char* key, double low, double high) const {
        auto it = body.find(key);
        if (it == body.end() || it->is_null()) return std::nullopt;
        if (!it->is_number() || !std::isfinite(it->get<double>()) || it->get<double>() < low ||
            it->get<double>() > high) {
            std::ostringstream message;
            message << '"' << key << "\" must be a number from " << low << " to " << high << '.';
            throw std::invalid_argument(message.str());
        }
        return it->get<double>();
    }
    double required(const char* key, double low, double high) const {
        std::optional<double> value = number(key, low, high);
        if (!value) throw std::invalid_argument(std::string("\"") + key + "\" is missing.");
        return *value;
    }
};

bool oneOf(std::string_view value, std::initializer_list<std::string_view> allowed) {
    return std::find(allowed.begin(), allowed.end(), value) != allowed.end();
}

bool hexColor(std::string_view color) {
    if (color.size() != 7 || color.front() != '#') return false;
    return std::all_of(color.begin() + 1, color.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
}

ordered optionalJson(const std::optional<std::string>& value) {
    return value ? ordered(*value) : ordered();
}

}  // namespace

ConsoleApi::ConsoleApi(Agent& agent, const DeviceRegistry& registry, const CaptureBook& captures,
                       LiveBook& live, ConsoleJournal& journal)
    : agent_(agent), registry_(registry), captures_(captures), live_(live), journal_(journal) {}

Reply ConsoleApi::refused(const std::string& deviceId, const std::string& sessionId,
                          const std::string& what, const Refusal& refusal) {
    journal_.record(deviceId, sessionId, "refused", what + " refused: " + refusal.reason);
    return jsonError(409, refusal.error, capitalised(what) + " refused: " + refusal.reason + ".");
}

std::string ConsoleApi::nextGeneration(std::string_view prefix) {
    std::lock_guard lock(mutex_);
    auto it = generations_.try_emplace(std::string(prefix), 0).first;
    return std::string(prefix) + "-" + std::to_string(++it->second);
}

bool ConsoleApi::own(std::string_view sessionId) const {
    std::lock_guard lock(mutex_);
    return ownSessions_.contains(sessionId);
}

void ConsoleApi::react(const DeviceReport& report) {
    if (const auto* live = std::get_if<report::LiveAnswered>(&report.what)) {
        if (!live->allow || !own(live->sessionId)) return;
        const std::string generation = nextGeneration("share");
        if (agent_.activateLive(report.deviceId, live->sessionId, generation)) {
            journal_.record(report.deviceId, live->sessionId, "live-active",
                            "live view started (generation " + generation + ")");
        }
    } else if (const auto* control = std::get_if<report::ControlAnswered>(&report.what)) {
        if (!control->allow || !own(control->sessionId)) return;
        const std::string generation = nextGeneration("ctl");
        const Attempt<Done> granted =
            agent_.grantControl(report.deviceId, control->sessionId, generation);
        if (granted) {
            journal_.record(report.deviceId, control->sessionId, "control-active",
                            "control started (generation " + generation + ")");
        } else if (granted.refusal) {
            refused(report.deviceId, control->sessionId, "control", *granted.refusal);
        }
    }
}

std::string ConsoleApi::state(std::uint64_t since) const {
    ordered devices = ordered::array();
    for (const DeviceInfo& device : registry_.all()) {
        ordered user;
        if (device.user) {
            user = {{"id", device.user->id},
                    {"name", optionalJson(device.user->name)},
                    {"phone", optionalJson(device.user->phone)}};
        }
        ordered health;
        if (device.lastHealth) {
            ordered parsed = ordered::parse(*device.lastHealth, nullptr, false);
            if (parsed.is_object()) health = std::move(parsed);
        }
        const bool connected = agent_.connected(device.deviceId);
        // A device says so only when it leaves the foreground or comes back to it.
        std::optional<std::string> appState = journal_.appState(device.deviceId);
        if (!appState && connected) appState = "foreground";
        devices.push_back({{"deviceId", device.deviceId},
                           {"supportCode", device.supportCode},
                           {"user", user},
                           {"connected", connected},
                           {"appState", optionalJson(appState)},
                           {"health", health}});
    }

    ordered captures = ordered::array();
    for (const CaptureRecord& capture : captures_.all(false)) {
        ordered images = ordered::array();
        for (const std::string& id : capture.captureIds) {
            images.push_back({{"captureId", id}, {"imageUrl", captureImagePath(id)}});
        }
        captures.push_back(
            {{"requestId", capture.requestId},
             {"deviceId", capture.deviceId},
             {"mode", capture.mode},
             {"promptShown", capture.promptShown},
             {"answer", capture.answer ? ordered(*capture.answer) : ordered()},
             {"sessionExpiresAt", optionalJson(capture.sessionExpiresAt)},
             {"captureId", optionalJson(capture.captureId)},
             {"imageUrl",
              capture.captureId ? ordered(captureImagePath(*capture.captureId)) : ordered()},
             {"images", images}});
    }

    ordered sessions = ordered::array();
    for (const LiveRecord& live : live_.all(false)) {
        const bool active = live.state == "active";
        const bool stale =
            active && (live.sinceFrame
                           ? *live.sinceFrame > kStaleAfterFrame
                           : live.sinceActivation && *live.sinceActivation > kStaleAfterActivation);
        // The device re-confirms every few seconds; the latest of each kind is what stands.
        ordered indicators = ordered::array();
        for (const char* kind : {"sharing", "recording", "control"}) {
            auto latest = std::find_if(live.indicators.rbegin(), live.indicators.rend(),
                                       [kind](const auto& one) { return one.kind == kind; });
            if (latest != live.indicators.rend()) {
                indicators.push_back({{"kind", latest->kind},
                                      {"generation", latest->generation},
                                      {"accepted", latest->accepted}});
            }
        }
        const ControlRecord& control = live.control;
        sessions.push_back(
            {{"sessionId", live.sessionId},
             {"deviceId", live.deviceId},
             {"state", live.state},
             {"generation", optionalJson(live.generation)},
             {"answers", live.answers},
             {"frames", live.frames},
             {"frameRate", std::round(live.frameRate * 10) / 10},
             {"frameUrl", live.frames > 0 ? ordered(liveFramePath(live.sessionId)) : ordered()},
             {"frameAgeMs", live.sinceFrame ? ordered(live.sinceFrame->count()) : ordered()},
             {"stale", stale},
             {"indicators", indicators},
             {"lapsed", live.lapsed},
             {"control",
              {{"state", control.state},
               {"generation", optionalJson(control.generation)},
               {"answers",
                [&control] {
                    ordered answers = ordered::array();
                    for (const ControlAnswer& answer : control.answers)
                        answers.push_back(answer.allow);
                    return answers;
                }()},
               {"feedback", control.feedback},
               {"inputs", control.inputs}}}});
    }

    std::uint64_t nextSeq = 0;
    ordered events = ordered::array();
    for (const ConsoleJournal::Event& event : journal_.since(since, nextSeq)) {
        events.push_back(
            {{"seq", event.seq},
             {"at", event.at},
             {"deviceId", event.deviceId},
             {"sessionId", event.sessionId.empty() ? ordered() : ordered(event.sessionId)},
             {"kind", event.kind},
             {"text", event.text}});
    }
    ordered refusing = ordered::object();
    {
        std::lock_guard lock(mutex_);
        for (const char* kind : {"sharing", "recording", "control"}) {
            auto it = refusing_.find(kind);
            refusing[kind] = it != refusing_.end() && it->second;
        }
    }
    const ordered answer{{"now", isoUtc(std::chrono::system_clock::now())},
                         {"devices", devices},
                         {"captures", captures},
                         {"sessions", sessions},
                         {"refusing", refusing},
                         {"events", events},
                         {"nextSeq", nextSeq}};
    return answer.dump(-1, ' ', false, ordered::error_handler_t::replace);
}

void ConsoleApi::addRoutes(Router& router) {
    router.add("GET", "/console/api/state",
               [this](const RecordedRequest& request, const PathParams&) {
                   std::uint64_t since = 0;
                   if (auto given = queryValue(request.target, "since"); given && !given->empty()) {
                       const auto [end, error] =
                           std::from_chars(given->data(), given->data() + given->size(), since);
                       if (error != std::errc() || end != given->data() + given->size()) {
                           return badRequest("\"since\" must be a whole number.");
                       }
                   }
                   Reply reply;
                   reply.body = state(since);
                   reply.headers.push_back({"Cache-Control", "no-store"});
                   return reply;
               });

    // Every action takes a JSON object; a field of the wrong type or range is a 400 with the
    // reason, never a failure of the backend.
    using Action = std::function<Reply(const Fields&, const PathParams&)>;
    auto action = [](Action handle) -> RouteHandler {
        return
            [handle = std::move(handle)](const RecordedRequest& request, const PathParams& params) {
                if (!jsonNestsWithin(request.body)) {
                    return badRequest("The body must be a JSON object, nested at most 64 deep.");
                }
                const json body = request.body.empty() ? json::object()
                                                       : json::parse(request.body, nullptr, false);
                if (!body.is_object()) {
                    return badRequest("The body must be a JSON object, nested at most 64 deep.");
                }
                try {
                    return handle(Fields{body}, params);
                } catch (const std::invalid_argument& wrong) {
                    return badRequest(wrong.what());
                }
            };
    };
    // The device a path names, or the 404 for one the backend never registered.
    auto knownDevice = [this](const PathParams& params) -> std::optional<std::string> {
        std::optional<DeviceInfo> device = registry_.find(params.get("device"));
        if (!device) return std::nullopt;
        return device->deviceId;
    };
    auto unknownDevice = [] { return jsonError(404, "not_found", "No such device."); };
    // The session a path names, with where it and its control stand: what may be sent depends
    // on that, and the agent should hear why rather than have the device ignore it.
    auto sessionOf = [this](const PathParams& params) -> std::optional<LiveRecord> {
        std::optional<LiveRecord> live = live_.find(params.get("session"), false);
        if (!live || live->deviceId.empty()) return std::nullopt;
        return live;
    };
    auto unknownSession = [] { return jsonError(404, "not_found", "No such live session."); };
    auto notActive = [] {
        return jsonError(409, "not_active", "The live session is not running.");
    };

    router.add("POST", "/console/api/devices/{device}/screenshot",
               action([=, this](const Fields& fields, const PathParams& params) {
                   const std::optional<std::string> device = knownDevice(params);
                   if (!device) return unknownDevice();
                   const std::string mode = fields.text("mode").value_or("AskEveryTime");
                   if (!oneOf(mode, {"AskEveryTime", "PerSession"})) {
                       return badRequest("\"mode\" must be \"AskEveryTime\" or \"PerSession\".");
                   }
                   ScreenshotRequest ask;
                   ask.mode = mode;
                   ask.agentName = "Support (local console)";
                   Attempt<AskedScreenshot> asked = agent_.askScreenshot(*device, ask);
                   if (asked.refusal) return refused(*device, {}, "screenshot", *asked.refusal);
                   if (!asked) return notConnected();
                   journal_.record(*device, {}, "asked",
                                   "agent asked for a screenshot " +
                                       std::string(mode == "PerSession" ? "for the call" : "once") +
                                       " (" + asked.value->requestId + ")");
                   return jsonReply({{"requestId", asked.value->requestId},
                                     {"promptId", asked.value->promptId}});
               }));

    router.add("POST", "/console/api/devices/{device}/capture",
               action([=, this](const Fields& fields, const PathParams& params) {
                   const std::optional<std::string> device = knownDevice(params);
                   if (!device) return unknownDevice();
                   const std::optional<std::string> requestId = fields.text("requestId");
                   if (!requestId) return badRequest("\"requestId\" is missing.");
                   const std::optional<CaptureRecord> capture = captures_.find(*requestId);
                   if (!capture || capture->deviceId != *device) {
                       return jsonError(404, "not_found", "No such screenshot request.");
                   }
                   const Attempt<Done> sent = agent_.sendCapture(*device, *requestId);
                   if (sent.refusal) {
                       return refused(*device, {}, "another screenshot (" + *requestId + ")",
                                      *sent.refusal);
                   }
                   if (!sent) return notConnected();
                   journal_.record(*device, {}, "asked",
                                   "agent asked for another screenshot (" + *requestId + ")");
                   return jsonReply(ordered::object());
               }));

    router.add("POST", "/console/api/devices/{device}/end-call",
               action([=, this](const Fields&, const PathParams& params) {
                   const std::optional<std::string> device = knownDevice(params);
                   if (!device) return unknownDevice();
                   const bool heard = agent_.endCall(*device);
                   journal_.record(*device, {}, "call-ended",
                                   heard ? "agent ended the call: no further screenshots"
                                         : "agent ended the call (the device is not connected)");
                   return jsonReply(ordered::object());
               }));

    router.add("POST", "/console/api/devices/{device}/live",
               action([=, this](const Fields&, const PathParams& params) {
                   const std::optional<std::string> device = knownDevice(params);
                   if (!device) return unknownDevice();
                   LiveRequest request;
                   request.agentName = "Support (local console)";
                   // Marked ours before the push, so an answer racing in finds it.
                   const std::string sessionId = live_.freshSessionId();
                   request.sessionId = sessionId;
                   {
                       std::lock_guard lock(mutex_);
                       ownSessions_.insert(sessionId);
                   }
                   if (!agent_.requestLive(*device, request)) return notConnected();
                   journal_.record(*device, sessionId, "live-requested",
                                   "agent asked to watch live");
                   return jsonReply({{"sessionId", sessionId}});
               }));

    router.add("POST", "/console/api/sessions/{session}/end",
               action([=, this](const Fields&, const PathParams& params) {
                   const std::optional<LiveRecord> live = sessionOf(params);
                   if (!live) return unknownSession();
                   const std::string session(params.get("session"));
                   if (live->state == "ended") {
                       return jsonError(409, "ended", "The live session has already ended.");
                   }
                   agent_.endLive(live->deviceId, session);
                   journal_.record(live->deviceId, session, "live-ended",
                                   "agent ended the live view");
                   return jsonReply(ordered::object());
               }));

    router.add("POST", "/console/api/sessions/{session}/note",
               action([=, this](const Fields& fields, const PathParams& params) {
                   const std::optional<LiveRecord> live = sessionOf(params);
                   if (!live) return unknownSession();
                   const std::string kind = fields.text("kind").value_or("");
                   if (!oneOf(kind, {"frameSaved", "recordingStarted", "recordingStopped"})) {
                       return badRequest(
                           "\"kind\" must be \"frameSaved\", \"recordingStarted\" or "
                           "\"recordingStopped\".");
                   }
                   LiveNote note;
                   note.kind = kind;
                   if (kind == "frameSaved") note.guides = true;
                   if (kind == "recordingStarted") note.generation = nextGeneration("rec");
                   const std::string session(params.get("session"));
                   if (live->state != "active") return notActive();
                   if (!agent_.sendLiveNote(live->deviceId, session, note)) return notConnected();
                   journal_.record(
                       live->deviceId, session, "note",
                       "agent sent the note " + kind +
                           (note.generation ? " (generation " + *note.generation + ")" : ""));
                   return jsonReply(ordered::object());
               }));

    router.add(
        "POST", "/console/api/sessions/{session}/guide",
        action([=, this](const Fields& fields, const PathParams& params) {
            const std::optional<LiveRecord> live = sessionOf(params);
            if (!live) return unknownSession();
            Guide guide;
            guide.kind = fields.text("kind").value_or("");
            if (!oneOf(guide.kind, {"laser", "laser-off", "arrow", "box", "fill", "label"})) {
                return badRequest(
                    "\"kind\" must be one of laser, laser-off, arrow, box, "
                    "fill, label.");
            }
            guide.x = fields.number("x", 0, 1);
            guide.y = fields.number("y", 0, 1);
            // Every mark but a label's is drawn at its point, and the laser goes there.
            if (oneOf(guide.kind, {"laser", "arrow", "box", "fill"}) && (!guide.x || !guide.y)) {
                return badRequest("A " + guide.kind + " needs \"x\" and \"y\" from 0 to 1.");
            }
            guide.x2 = fields.number("x2", 0, 1);
            guide.y2 = fields.number("y2", 0, 1);
            guide.w = fields.number("w", 0, 1);
            guide.h = fields.number("h", 0, 1);
            guide.color = fields.text("color");
            if (guide.color && !hexColor(*guide.color)) {
                return badRequest("\"color\" must be written #RRGGBB.");
            }
            if (const std::optional<std::string> text = fields.text("text")) {
                std::size_t characters = 0;
                guide.text = readableLabel(*text, characters);
                if (characters > kMaxLabelCharacters) {
                    return badRequest("\"text\" is longer than 200 characters.");
                }
            }
            if (guide.kind == "label" && (!guide.text || guide.text->empty())) {
                return badRequest("A label needs \"text\" that shows.");
            }
            const std::string session(params.get("session"));
            if (live->state != "active") return notActive();
            if (!agent_.sendGuide(live->deviceId, session, guide)) return notConnected();
            // The laser moves many times a second; the log keeps the marks only.
            if (guide.kind != "laser" && guide.kind != "laser-off") {
                journal_.record(live->deviceId, session, "guide", "agent drew " + guide.kind);
            }
            return jsonReply(ordered::object());
        }));

    router.add("POST", "/console/api/sessions/{session}/control",
               action([=, this](const Fields&, const PathParams& params) {
                   const std::optional<LiveRecord> live = sessionOf(params);
                   if (!live) return unknownSession();
                   const std::string session(params.get("session"));
                   if (live->state != "active") return notActive();
                   if (live->control.state == "active") {
                       return jsonError(409, "in_control", "Control is already granted.");
                   }
                   {
                       std::lock_guard lock(mutex_);
                       ownSessions_.insert(session);
                   }
                   ControlRequest request;
                   request.agentName = "Support (local console)";
                   if (!agent_.requestControl(live->deviceId, session, request))
                       return notConnected();
                   journal_.record(live->deviceId, session, "control-requested",
                                   "agent asked for control");
                   return jsonReply(ordered::object());
               }));

    router.add(
        "POST", "/console/api/sessions/{session}/control/end",
        action([=, this](const Fields&, const PathParams& params) {
            const std::optional<LiveRecord> live = sessionOf(params);
            if (!live) return unknownSession();
            const std::string session(params.get("session"));
            const std::string control = live->control.state;
            if (control != "requested" && control != "active") {
                return jsonError(409, "no_control", "Control was not asked for, or has ended.");
            }
            agent_.endControl(live->deviceId, session);
            journal_.record(live->deviceId, session, "control-ended", "agent released control");
            return jsonReply(ordered::object());
        }));

    router.add(
        "POST", "/console/api/sessions/{session}/input",
        action([=, this](const Fields& fields, const PathParams& params) {
            const std::optional<LiveRecord> live = sessionOf(params);
            if (!live) return unknownSession();
            const std::string act = fields.text("action").value_or("");
            ControlInput input;
            if (act == "tap") {
                input = ControlInput::tapAt(fields.required("x", 0, 1), fields.required("y", 0, 1));
            } else if (act == "scroll") {
                input =
                    ControlInput::scrollAt(fields.required("x", 0, 1), fields.required("y", 0, 1),
                                           fields.number("dx", -10, 10).value_or(0),
                                           fields.number("dy", -10, 10).value_or(0));
            } else if (act == "type") {
                const std::string text = fields.text("text").value_or("");
                if (text.empty() || text.size() > kMaxText) {
                    return badRequest("\"text\" must hold 1 to 1000 bytes.");
                }
                input = ControlInput::typeText(text);
            } else if (act == "key") {
                const std::string key = fields.text("key").value_or("");
                if (!oneOf(key, {"backspace", "enter"})) {
                    return badRequest("\"key\" must be \"backspace\" or \"enter\".");
                }
                input = ControlInput::pressKey(key);
            } else {
                return badRequest("\"action\" must be tap, scroll, type or key.");
            }
            const std::string session(params.get("session"));
            const Attempt<Done> sent = agent_.sendInput(live->deviceId, session, input);
            if (sent.refusal) return refused(live->deviceId, session, "input", *sent.refusal);
            if (!sent) return notConnected();
            if (act != "scroll")
                journal_.record(live->deviceId, session, "input", "agent input: " + act);
            return jsonReply(ordered::object());
        }));

    router.add("POST", "/console/api/refuse",
               action([this](const Fields& fields, const PathParams&) {
                   const std::string kind = fields.text("kind").value_or("");
                   if (!oneOf(kind, {"sharing", "recording", "control"})) {
                       return badRequest("\"kind\" must be sharing, recording or control.");
                   }
                   auto refuse = fields.body.find("refuse");
                   if (refuse == fields.body.end() || !refuse->is_boolean()) {
                       return badRequest("\"refuse\" must be true or false.");
                   }
                   agent_.refuseIndicator(kind, refuse->get<bool>());
                   {
                       std::lock_guard lock(mutex_);
                       refusing_[kind] = refuse->get<bool>();
                   }
                   journal_.record({}, {}, "refuse",
                                   std::string(refuse->get<bool>() ? "refusing" : "accepting") +
                                       " " + kind + " confirmations");
                   return jsonReply(ordered::object());
               }));
}

}  // namespace virela::devserver
