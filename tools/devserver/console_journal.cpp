#include "tools/devserver/console_journal.hpp"

#include <chrono>
#include <utility>

#include <nlohmann/json.hpp>

#include "core/base/json.hpp"
#include "tools/devserver/capture_book.hpp"

namespace virela::devserver {

namespace {

using json = nlohmann::json;

constexpr std::size_t kJournalSize = 1000;

// What a device sent, cut to a length that fits a line of the log.
std::string shortened(std::string text) {
    constexpr std::size_t kShown = 120;
    if (text.size() > kShown) text = text.substr(0, kShown) + "…";
    return text;
}

template <class... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};
// Older compilers deduce no aggregate's arguments on their own.
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

}  // namespace

void ConsoleJournal::record(std::string deviceId, std::string sessionId, std::string kind,
                            std::string text) {
    std::lock_guard lock(mutex_);
    events_.push_back(Event{nextSeq_++, isoUtc(std::chrono::system_clock::now()),
                            std::move(deviceId), std::move(sessionId), std::move(kind),
                            std::move(text)});
    if (events_.size() > kJournalSize) events_.pop_front();
}

void ConsoleJournal::note(const DeviceReport& report) {
    const std::string& device = report.deviceId;
    std::visit(
        Overloaded{
            [&](const report::Identified& what) {
                // Without a name the id is shown as JSON, quotes and all.
                const std::string who =
                    shortened(what.user.name ? *what.user.name : json(what.user.id).dump());
                record(device, {}, "identified", "identified as " + who);
            },
            [&](const report::HealthReported&) {
                record(device, {}, "health", "health report received");
            },
            [&](const report::PromptShown& what) {
                record(device, {}, "prompt-shown", "prompt " + what.promptId + " shown");
            },
            [&](const report::ScreenshotAnswered& what) {
                record(device, {}, "answer",
                       "screenshot " + what.requestId +
                           (what.allow ? " allowed by the customer" : " declined by the customer"));
            },
            [&](const report::ScreenshotUploaded& what) {
                record(device, {}, "upload",
                       "screenshot " + what.requestId + " received as " + what.captureId);
            },
            [&](const report::ScreenshotRefused& what) {
                record(device, {}, "refused",
                       "screenshot " + shortened(what.requestId) + " refused: " + what.reason);
            },
            [&](const report::IndicatorConfirmed& what) {
                record(device, what.sessionId, "indicator",
                       "indicator " + shortened(what.kind) + " (generation " +
                           shortened(what.generation) + ") " +
                           (what.accepted ? "confirmed"
                                          : "refused: lease_mismatch (" + what.reason + ")"));
            },
            [&](const report::FrameReceived& what) {
                bool first = false;
                {
                    std::lock_guard lock(mutex_);
                    if (what.dropped) {
                        first = droppingFrames_.insert(what.sessionId).second;
                    } else {
                        first = framing_.insert(what.sessionId).second;
                        droppingFrames_.erase(what.sessionId);
                    }
                }
                if (!first) return;
                if (what.dropped) {
                    record(device, what.sessionId, "frames-dropped",
                           "frames dropped: " + what.reason);
                } else {
                    record(device, what.sessionId, "frames-started", "first frame received");
                }
            },
            [&](const report::LiveAnswered& what) {
                record(device, what.sessionId, "live-answer",
                       what.allow ? "live view allowed by the customer"
                                  : "live view declined or stopped by the customer");
            },
            [&](const report::ControlAnswered& what) {
                record(device, what.sessionId, "control-answer",
                       what.allow ? "control allowed by the customer"
                                  : "control declined or taken back by the customer");
            },
            [&](const report::ControlFeedback& what) {
                record(device, what.sessionId, "feedback",
                       "control feedback: " + shortened(what.kind));
            },
        },
        report.what);
}

void ConsoleJournal::note(const SocketEvent& event) {
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
    if (!jsonNestsWithin(event.data)) return;
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

std::vector<ConsoleJournal::Event> ConsoleJournal::since(std::uint64_t since,
                                                         std::uint64_t& next) const {
    std::lock_guard lock(mutex_);
    std::vector<Event> events;
    for (const Event& event : events_) {
        if (event.seq >= since) events.push_back(event);
    }
    next = nextSeq_;
    return events;
}

std::optional<std::string> ConsoleJournal::appState(std::string_view deviceId) const {
    std::lock_guard lock(mutex_);
    auto it = appStates_.find(deviceId);
    if (it == appStates_.end()) return std::nullopt;
    return it->second;
}

}  // namespace virela::devserver
