#include "tools/devserver/console.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <random>
#include <sstream>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/devserver/agent.hpp"
#include "tools/devserver/capture_book.hpp"
#include "tools/devserver/console_files.hpp"
#include "tools/devserver/device_registry.hpp"
#include "tools/devserver/live_book.hpp"
#include "tools/devserver/router.hpp"
#include "tools/devserver/sdk_routes.hpp"

namespace virela::devserver {

namespace {

using json = nlohmann::json;
using ordered = nlohmann::ordered_json;

constexpr std::size_t kJournalSize = 1000;
constexpr std::string_view kCookie = "virela_console_";
// A session counts as stale once frames stop for this long, or never start after activation.
constexpr std::chrono::milliseconds kStaleAfterFrame{2000};
constexpr std::chrono::milliseconds kStaleAfterActivation{3000};
constexpr std::size_t kMaxText = 1000;

std::vector<std::string_view> segments(std::string_view path) {
    std::vector<std::string_view> parts;
    while (!path.empty()) {
        if (path.front() == '/') {
            path.remove_prefix(1);
            continue;
        }
        const std::size_t end = std::min(path.find('/'), path.size());
        parts.push_back(path.substr(0, end));
        path.remove_prefix(end);
    }
    return parts;
}

// The raw value of `name` in the request-target's query; tokens and numbers need no decoding.
std::optional<std::string_view> queryValue(std::string_view target, std::string_view name) {
    const std::size_t question = target.find('?');
    if (question == std::string_view::npos) return std::nullopt;
    std::string_view query = target.substr(question + 1);
    while (!query.empty()) {
        const std::size_t end = std::min(query.find('&'), query.size());
        const std::string_view pair = query.substr(0, end);
        const std::size_t equals = pair.find('=');
        if (pair.substr(0, equals) == name) {
            return equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
        }
        query.remove_prefix(std::min(end + 1, query.size()));
    }
    return std::nullopt;
}

// Compares in time that depends only on the length, so the token cannot be guessed byte by byte.
bool sameSecret(std::string_view given, std::string_view token) {
    if (given.size() != token.size() || token.empty()) return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < token.size(); ++i) {
        difference |= static_cast<unsigned char>(given[i] ^ token[i]);
    }
    return difference == 0;
}

std::string cookieName(std::uint16_t port) {
    // Cookies ignore ports; a name per port keeps two local backends from trading tokens.
    return std::string(kCookie) + std::to_string(port);
}

std::optional<std::string_view> cookieValue(std::string_view cookies, std::string_view name) {
    while (!cookies.empty()) {
        const std::size_t end = std::min(cookies.find(';'), cookies.size());
        std::string_view pair = cookies.substr(0, end);
        while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos && pair.substr(0, equals) == name) {
            return pair.substr(equals + 1);
        }
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
    }
    return std::nullopt;
}

std::string contentTypeOf(std::string_view name) {
    auto endsWith = [name](std::string_view suffix) { return name.ends_with(suffix); };
    if (endsWith(".html")) return "text/html; charset=utf-8";
    if (endsWith(".js") || endsWith(".mjs")) return "text/javascript; charset=utf-8";
    if (endsWith(".css")) return "text/css; charset=utf-8";
    if (endsWith(".svg")) return "image/svg+xml";
    if (endsWith(".png")) return "image/png";
    return "application/octet-stream";
}

bool plainFileName(std::string_view name) {
    if (name.empty() || name.front() == '.' || name.ends_with(".md")) return false;
    for (const char c : name) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!allowed) return false;
    }
    return true;
}

std::optional<std::string> readConsoleFile(const std::string& directory, std::string_view name) {
    if (!plainFileName(name)) return std::nullopt;
    if (directory.empty()) {
        const std::optional<std::string_view> built = embeddedConsoleFile(name);
        if (!built) return std::nullopt;
        return std::string(*built);
    }
    std::ifstream file(directory + "/" + std::string(name), std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

Reply badRequest(const std::string& message) {
    return jsonError(400, "bad_request", message);
}

Reply notConnected() {
    return jsonError(409, "not_connected", "The device is not connected.");
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

// What a device sent, cut to a length that fits a line of the log.
std::string shortened(std::string text) {
    constexpr std::size_t kShown = 120;
    if (text.size() > kShown) text = text.substr(0, kShown) + "…";
    return text;
}

ordered optionalJson(const std::optional<std::string>& value) {
    return value ? ordered(*value) : ordered();
}

}  // namespace

std::string freshConsoleToken() {
    std::random_device random;
    constexpr char kDigits[] = "0123456789abcdef";
    std::string token;
    for (int word = 0; word < 4; ++word) {
        std::uint32_t bits = random();
        for (int i = 0; i < 8; ++i, bits >>= 4) token += kDigits[bits & 0xf];
    }
    return token;
}

bool consoleGuards(std::string_view path) {
    return path == "/console" || path.starts_with("/console/") || path.starts_with("/captures/") ||
           path.starts_with("/live/");
}

bool carriesConsoleToken(const RecordedRequest& request, std::string_view token,
                         std::uint16_t port) {
    if (auto given = queryValue(request.target, "token"); given && sameSecret(*given, token)) {
        return true;
    }
    if (auto authorization = request.header("Authorization")) {
        constexpr std::string_view kBearer = "Bearer ";
        if (authorization->starts_with(kBearer) &&
            sameSecret(std::string_view(*authorization).substr(kBearer.size()), token)) {
            return true;
        }
    }
    if (auto cookies = request.header("Cookie")) {
        if (auto given = cookieValue(*cookies, cookieName(port));
            given && sameSecret(*given, token)) {
            return true;
        }
    }
    return false;
}

Reply consoleRefusal() {
    Reply reply = jsonError(401, "unauthorized", "The console needs its token.");
    reply.headers.push_back({"Cache-Control", "no-store"});
    return reply;
}

Console::Console(Agent& agent, const DeviceRegistry& registry, const CaptureBook& captures,
                 LiveBook& live, std::function<std::uint16_t()> port)
    : agent_(agent),
      registry_(registry),
      captures_(captures),
      live_(live),
      port_(std::move(port)) {}

void Console::record(std::string deviceId, std::string sessionId, std::string kind,
                     std::string text) {
    std::lock_guard lock(mutex_);
    events_.push_back(Event{nextSeq_++, isoUtc(std::chrono::system_clock::now()),
                            std::move(deviceId), std::move(sessionId), std::move(kind),
                            std::move(text)});
    if (events_.size() > kJournalSize) events_.pop_front();
}

std::string Console::nextGeneration(std::string_view prefix) {
    std::lock_guard lock(mutex_);
    auto it = generations_.try_emplace(std::string(prefix), 0).first;
    return std::string(prefix) + "-" + std::to_string(++it->second);
}

void Console::observe(const SocketEvent& event) {
    switch (event.kind) {
        case SocketEvent::Kind::connected: {
            // A device reports a change of state, not the state it connects in; a state heard
            // before the connection was lost may be stale.
            {
                std::lock_guard lock(mutex_);
                appStates_.erase(event.deviceId);
            }
            record(event.deviceId, {}, "connected", "device connected");
            return;
        }
        case SocketEvent::Kind::closed:
            record(event.deviceId, {}, "disconnected",
                   "device disconnected (" + std::to_string(event.closeCode) + ")");
            return;
        case SocketEvent::Kind::binary:
            return;
        case SocketEvent::Kind::text:
            break;
    }
    const json message = json::parse(event.data, nullptr, false);
    if (!message.is_object()) return;
    const std::string type =
        message.value("type", json()).is_string() ? message["type"].get<std::string>() : "";
    auto member = [&](const char* key) {
        auto it = message.find(key);
        return it != message.end() && it->is_string() ? shortened(it->get<std::string>())
                                                      : std::string();
    };
    if (type == "state") {
        const std::string state = member("state");
        if (state != "foreground" && state != "background") return;
        {
            std::lock_guard lock(mutex_);
            appStates_[event.deviceId] = state;
        }
        record(event.deviceId, {}, "state", "app went to the " + state);
    } else if (type == "view") {
        record(event.deviceId, member("sessionId"), "view", "view changed: " + member("kind"));
    }
}

void Console::observe(const RecordedRequest& request, int status) {
    if (request.method != "POST" || status == 0) return;
    const std::vector<std::string_view> parts = segments(request.path);
    if (parts.size() < 4 || parts[0] != "v1" || parts[1] != "sdk") return;
    const std::optional<std::string> token = request.header(kDeviceHeader);
    const std::string deviceId = token ? registry_.deviceIdOf(*token).value_or("") : "";
    if (deviceId.empty()) return;

    if (parts[2] == "live" && (parts.size() == 5 || parts.size() == 6)) {
        std::string what(parts[4]);
        if (parts.size() == 6) what += "/" + std::string(parts[5]);
        observeLive(deviceId, parts[3], what, request, status);
        return;
    }
    if (status < 200 || status >= 300) return;
    // Every body that got a 2xx was a JSON object, but for the uploads.
    const json parsed = json::parse(request.body, nullptr, false);
    const json body = parsed.is_object() ? parsed : json::object();
    auto allowed = [&body] {
        return body.value("allow", json()).is_boolean() && body["allow"].get<bool>();
    };
    if (parts[2] == "devices" && parts[3] == "identify") {
        const std::string who = shortened(body.value("name", json()).is_string()
                                              ? body["name"].get<std::string>()
                                              : body.value("id", json("someone")).dump());
        record(deviceId, {}, "identified", "identified as " + who);
    } else if (parts[2] == "devices" && parts[3] == "health") {
        record(deviceId, {}, "health", "health report received");
    } else if (parts[2] == "prompts" && parts.size() == 5 && parts[4] == "shown") {
        record(deviceId, {}, "prompt-shown", "prompt " + std::string(parts[3]) + " shown");
    } else if (parts[2] == "captures" && parts.size() == 5 && parts[4] == "respond") {
        record(deviceId, {}, "answer",
               "screenshot " + std::string(parts[3]) +
                   (allowed() ? " allowed by the customer" : " declined by the customer"));
    } else if (parts[2] == "captures" && parts.size() == 5 && parts[4] == "upload") {
        const std::optional<CaptureRecord> capture = captures_.find(parts[3]);
        record(deviceId, {}, "upload",
               "screenshot " + std::string(parts[3]) + " received as " +
                   (capture && capture->captureId ? *capture->captureId : std::string("?")));
    }
}

void Console::observeLive(std::string_view deviceId, std::string_view sessionId,
                          std::string_view what, const RecordedRequest& request, int status) {
    const std::string device(deviceId);
    const std::string session(sessionId);
    const json body = what == "frame" ? json() : json::parse(request.body, nullptr, false);
    auto text = [&body](const char* key) {
        return body.is_object() && body.value(key, json()).is_string()
                   ? shortened(body[key].get<std::string>())
                   : std::string("?");
    };
    const bool allow =
        body.is_object() && body.value("allow", json()).is_boolean() && body["allow"].get<bool>();
    bool own = false;
    {
        std::lock_guard lock(mutex_);
        own = ownSessions_.contains(sessionId);
    }

    if (what == "indicator" && (status == 200 || status == 409)) {
        record(device, session, "indicator",
               "indicator " + text("kind") + " (generation " + text("generation") + ") " +
                   (status == 200 ? "confirmed" : "refused: lease_mismatch"));
        return;
    }
    if (what == "frame" && status == 409) {
        bool first = false;
        {
            std::lock_guard lock(mutex_);
            first = droppingFrames_.insert(session).second;
        }
        if (first) {
            record(device, session, "frames-dropped", "frames dropped: the sharing lease lapsed");
        }
        return;
    }
    if (status < 200 || status >= 300) return;
    if (what == "respond") {
        record(device, session, "live-answer",
               allow ? "live view allowed by the customer"
                     : "live view declined or stopped by the customer");
        if (allow && own) {
            const std::string generation = nextGeneration("share");
            if (agent_.activateLive(device, session, generation)) {
                record(device, session, "live-active",
                       "live view started (generation " + generation + ")");
            }
        }
    } else if (what == "frame") {
        bool first = false;
        {
            std::lock_guard lock(mutex_);
            first = framing_.insert(session).second;
            droppingFrames_.erase(session);
        }
        if (first) record(device, session, "frames-started", "first frame received");
    } else if (what == "control/respond") {
        record(device, session, "control-answer",
               allow ? "control allowed by the customer"
                     : "control declined or taken back by the customer");
        if (allow && own) {
            const std::string generation = nextGeneration("ctl");
            if (agent_.grantControl(device, session, generation)) {
                record(device, session, "control-active",
                       "control started (generation " + generation + ")");
            }
        }
    } else if (what == "control/feedback") {
        record(device, session, "feedback", "control feedback: " + text("kind"));
    }
}

std::string Console::state(std::uint64_t since) const {
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
        std::optional<std::string> appState;
        {
            std::lock_guard lock(mutex_);
            auto it = appStates_.find(device.deviceId);
            if (it != appStates_.end()) appState = it->second;
        }
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
        ordered lapses = ordered::array();
        for (const char* kind : {"sharing", "recording", "control"}) {
            auto latest = std::find_if(live.indicators.rbegin(), live.indicators.rend(),
                                       [kind](const auto& one) { return one.kind == kind; });
            if (latest != live.indicators.rend()) {
                indicators.push_back({{"kind", latest->kind},
                                      {"generation", latest->generation},
                                      {"accepted", latest->accepted}});
            }
            if (latest != live.indicators.rend() && !latest->accepted) lapses.push_back(kind);
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
             {"lapsed", lapses},
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

    ordered events = ordered::array();
    ordered refusing = ordered::object();
    std::uint64_t nextSeq = 0;
    {
        std::lock_guard lock(mutex_);
        for (const Event& event : events_) {
            if (event.seq < since) continue;
            events.push_back(
                {{"seq", event.seq},
                 {"at", event.at},
                 {"deviceId", event.deviceId},
                 {"sessionId", event.sessionId.empty() ? ordered() : ordered(event.sessionId)},
                 {"kind", event.kind},
                 {"text", event.text}});
        }
        for (const char* kind : {"sharing", "recording", "control"}) {
            auto it = refusing_.find(kind);
            refusing[kind] = it != refusing_.end() && it->second;
        }
        nextSeq = nextSeq_;
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

void Console::addRoutes(Router& router, const std::string& token, const std::string& directory) {
    auto page = [this, token, directory](std::string_view name) {
        std::optional<std::string> file = readConsoleFile(directory, name);
        if (!file) return jsonError(404, "not_found", "No such console file.");
        Reply reply;
        reply.body = std::move(*file);
        reply.contentType = contentTypeOf(name);
        reply.headers.push_back({"Cache-Control", "no-store"});
        reply.headers.push_back({"X-Content-Type-Options", "nosniff"});
        if (name == "index.html") {
            reply.headers.push_back({"Set-Cookie", cookieName(port_()) + "=" + token +
                                                       "; Path=/; HttpOnly; SameSite=Strict"});
            reply.headers.push_back(
                {"Content-Security-Policy",
                 "default-src 'self'; img-src 'self' data:; "
                 "frame-ancestors 'none'; base-uri 'none'; form-action 'none'"});
            reply.headers.push_back({"Referrer-Policy", "no-referrer"});
        }
        return reply;
    };
    router.add("GET", "/console",
               [page](const RecordedRequest&, const PathParams&) { return page("index.html"); });
    router.add("GET", "/console/{file}", [page](const RecordedRequest&, const PathParams& params) {
        return page(params.get("file"));
    });

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
                const json body = request.body.empty() ? json::object()
                                                       : json::parse(request.body, nullptr, false);
                if (!body.is_object()) return badRequest("The body must be a JSON object.");
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

    router.add(
        "POST", "/console/api/devices/{device}/screenshot",
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
            std::optional<AskedScreenshot> asked = agent_.askScreenshot(*device, ask);
            if (!asked) return notConnected();
            record(*device, {}, "asked",
                   "agent asked for a screenshot " +
                       std::string(mode == "PerSession" ? "for the call" : "once") + " (" +
                       asked->requestId + ")");
            return jsonReply({{"requestId", asked->requestId}, {"promptId", asked->promptId}});
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
                   if (!agent_.sendCapture(*device, *requestId)) return notConnected();
                   record(*device, {}, "asked",
                          "agent asked for another screenshot (" + *requestId + ")");
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
                   record(*device, sessionId, "live-requested", "agent asked to watch live");
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
                   record(live->deviceId, session, "live-ended", "agent ended the live view");
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
                   record(live->deviceId, session, "note",
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
            guide.x2 = fields.number("x2", 0, 1);
            guide.y2 = fields.number("y2", 0, 1);
            guide.w = fields.number("w", 0, 1);
            guide.h = fields.number("h", 0, 1);
            guide.color = fields.text("color");
            if (guide.color && !hexColor(*guide.color)) {
                return badRequest("\"color\" must be written #RRGGBB.");
            }
            guide.text = fields.text("text");
            if (guide.text && guide.text->size() > kMaxText) {
                return badRequest("\"text\" is too long.");
            }
            const std::string session(params.get("session"));
            if (live->state != "active") return notActive();
            if (!agent_.sendGuide(live->deviceId, session, guide)) return notConnected();
            // The laser moves many times a second; the log keeps the marks only.
            if (guide.kind != "laser" && guide.kind != "laser-off") {
                record(live->deviceId, session, "guide", "agent drew " + guide.kind);
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
                   record(live->deviceId, session, "control-requested", "agent asked for control");
                   return jsonReply(ordered::object());
               }));

    router.add("POST", "/console/api/sessions/{session}/control/end",
               action([=, this](const Fields&, const PathParams& params) {
                   const std::optional<LiveRecord> live = sessionOf(params);
                   if (!live) return unknownSession();
                   const std::string session(params.get("session"));
                   const std::string control = live->control.state;
                   if (control != "requested" && control != "active") {
                       return jsonError(409, "no_control",
                                        "Control was not asked for, or has ended.");
                   }
                   agent_.endControl(live->deviceId, session);
                   record(live->deviceId, session, "control-ended", "agent released control");
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
            if (live->state != "active" || live->control.state != "active") {
                return jsonError(409, "no_control",
                                 "Control is not granted: ask for it and wait for the customer.");
            }
            if (live_.lapsed(session, "control")) {
                return jsonError(409, "lease_mismatch",
                                 "The device has not confirmed the control lease; input is "
                                 "dropped until it does.");
            }
            if (!agent_.sendInput(live->deviceId, session, input)) return notConnected();
            if (act != "scroll") record(live->deviceId, session, "input", "agent input: " + act);
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
                   record({}, {}, "refuse",
                          std::string(refuse->get<bool>() ? "refusing" : "accepting") + " " + kind +
                              " confirmations");
                   return jsonReply(ordered::object());
               }));
}

}  // namespace virela::devserver
