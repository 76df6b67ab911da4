#include "tools/devserver/live_book.hpp"

#include "tools/devserver/exchange.hpp"

#include <algorithm>
#include <utility>

namespace virela::devserver {

namespace {

// Long enough to smooth a few frames a second, short enough that a stalled stream reads as 0
// soon after it stops.
constexpr std::chrono::seconds kRateWindow{5};

// Control lives inside the live session: when the session ends, so does any lease in it.
void endControlWith(LiveRecord& record) {
    if (record.control.state == "requested" || record.control.state == "active") {
        record.control.state = "ended";
    }
}

}  // namespace

std::string LiveBook::freshSessionId() {
    std::lock_guard lock(mutex_);
    std::string id;
    // Random, so that no other page can name a session it was not told of; never one a test
    // chose by hand, so that a fresh one never merges with another session.
    do {
        id = "live_" + randomHex(16);
    } while (lookup(id) != nullptr);
    return id;
}

bool LiveBook::request(const std::string& sessionId, const std::string& deviceId,
                       std::string promptId, const std::function<bool()>& deliver) {
    {
        std::lock_guard lock(mutex_);
        if (!deliver()) return false;
        Entry& entry = entryFor(sessionId);
        entry = Entry{};
        entry.record.sessionId = sessionId;
        entry.record.deviceId = deviceId;
        entry.record.state = "requested";
        entry.record.promptId = promptId;
        if (!promptId.empty()) promptSessions_[std::move(promptId)] = sessionId;
    }
    changed_.notify_all();
    return true;
}

bool LiveBook::activate(const std::string& sessionId, const std::string& deviceId,
                        std::optional<std::string> generation,
                        const std::function<bool()>& deliver) {
    {
        std::lock_guard lock(mutex_);
        if (!deliver()) return false;
        Entry& entry = entryFor(sessionId);
        entry.activated = std::chrono::steady_clock::now();
        LiveRecord& record = entry.record;
        record.deviceId = deviceId;
        record.state = "active";
        record.generation = std::move(generation);
    }
    changed_.notify_all();
    return true;
}

void LiveBook::end(std::string_view sessionId, const std::string& deviceId) {
    {
        std::lock_guard lock(mutex_);
        LiveRecord& record = entryFor(sessionId).record;
        if (record.deviceId.empty()) record.deviceId = deviceId;
        record.state = "ended";
        endControlWith(record);
    }
    changed_.notify_all();
}

void LiveBook::notePrompt(std::string_view sessionId, std::string promptId) {
    if (promptId.empty()) return;
    std::lock_guard lock(mutex_);
    promptSessions_[std::move(promptId)] = sessionId;
}

void LiveBook::promptShown(std::string_view promptId) {
    {
        std::lock_guard lock(mutex_);
        auto it = promptSessions_.find(promptId);
        if (it == promptSessions_.end()) return;
        entryFor(it->second).record.promptsShown.emplace_back(promptId);
    }
    changed_.notify_all();
}

LiveBook::Standing LiveBook::standing(std::string_view sessionId, std::string_view deviceId) const {
    std::lock_guard lock(mutex_);
    const Entry* entry = lookup(sessionId);
    if (entry == nullptr || entry->record.deviceId != deviceId) return Standing::unknown;
    return entry->record.state == "ended" ? Standing::ended : Standing::open;
}

void LiveBook::answer(std::string_view sessionId, bool allow) {
    {
        std::lock_guard lock(mutex_);
        LiveRecord& record = entryFor(sessionId).record;
        record.answers.push_back(allow);
        if (!allow) {
            record.state = "ended";
            endControlWith(record);
        }
    }
    changed_.notify_all();
}

void LiveBook::storeFrame(std::string_view sessionId, std::string jpeg, std::string url) {
    {
        std::lock_guard lock(mutex_);
        Entry& entry = entryFor(sessionId);
        const auto now = std::chrono::steady_clock::now();
        entry.recentFrames.push_back(now);
        entry.lastFrame = now;
        while (now - entry.recentFrames.front() > kRateWindow) entry.recentFrames.pop_front();
        ++entry.record.frames;
        entry.latestFrame = std::move(jpeg);
        entry.record.frameUrl = std::move(url);
    }
    changed_.notify_all();
}

std::optional<std::string> LiveBook::latestFrame(std::string_view sessionId) const {
    std::lock_guard lock(mutex_);
    const Entry* entry = lookup(sessionId);
    if (entry == nullptr || entry->record.frames == 0) return std::nullopt;
    return entry->latestFrame;
}

void LiveBook::refuseIndicator(std::string kind, bool refuse) {
    std::lock_guard lock(mutex_);
    if (refuse) {
        refusedKinds_.insert(std::move(kind));
    } else {
        refusedKinds_.erase(kind);
    }
}

bool LiveBook::confirmIndicator(std::string_view sessionId, std::string kind,
                                std::string generation) {
    bool accepted = false;
    {
        std::lock_guard lock(mutex_);
        accepted = !refusedKinds_.contains(kind);
        entryFor(sessionId).record.indicators.push_back(
            {std::move(kind), std::move(generation), accepted});
    }
    changed_.notify_all();
    return accepted;
}

bool LiveBook::lapsed(std::string_view sessionId, std::string_view kind) const {
    std::lock_guard lock(mutex_);
    return lapsedLocked(sessionId, kind);
}

bool LiveBook::lapsedLocked(std::string_view sessionId, std::string_view kind) const {
    const Entry* entry = lookup(sessionId);
    if (entry == nullptr) return false;
    const auto& confirmations = entry->record.indicators;
    auto latest =
        std::find_if(confirmations.rbegin(), confirmations.rend(),
                     [kind](const IndicatorConfirmation& one) { return one.kind == kind; });
    return latest != confirmations.rend() && !latest->accepted;
}

void LiveBook::enforceLeases(bool enforce) {
    std::lock_guard lock(mutex_);
    enforceLeases_ = enforce;
}

bool LiveBook::refusesFrames(std::string_view sessionId) const {
    std::lock_guard lock(mutex_);
    return enforceLeases_ && lapsedLocked(sessionId, "sharing");
}

std::string LiveBook::freshControlRequestId() {
    std::lock_guard lock(mutex_);
    return "ctl_" + std::to_string(nextControlRequest_++);
}

bool LiveBook::pushControl(std::string_view sessionId, std::string state,
                           std::optional<std::string> requestId,
                           std::optional<std::string> generation,
                           const std::function<bool()>& deliver) {
    {
        std::lock_guard lock(mutex_);
        if (!deliver()) return false;
        ControlRecord& control = entryFor(sessionId).record.control;
        if (state == "requested") control.requestId = requestId.value_or("");
        control.state = std::move(state);
        control.generation = std::move(generation);
    }
    changed_.notify_all();
    return true;
}

void LiveBook::endControl(std::string_view sessionId) {
    {
        std::lock_guard lock(mutex_);
        entryFor(sessionId).record.control.state = "ended";
    }
    changed_.notify_all();
}

bool LiveBook::pushInput(std::string_view sessionId, const std::function<bool()>& deliver) {
    std::lock_guard lock(mutex_);
    if (!deliver()) return false;
    ++entryFor(sessionId).record.control.inputs;
    return true;
}

void LiveBook::answerControl(std::string_view sessionId, bool allow,
                             std::optional<std::string> requestId) {
    {
        std::lock_guard lock(mutex_);
        ControlRecord& control = entryFor(sessionId).record.control;
        control.answers.push_back({allow, std::move(requestId)});
        if (!allow) control.state = "ended";
    }
    changed_.notify_all();
}

void LiveBook::controlFeedback(std::string_view sessionId, std::string kind) {
    {
        std::lock_guard lock(mutex_);
        entryFor(sessionId).record.control.feedback.push_back(std::move(kind));
    }
    changed_.notify_all();
}

std::optional<LiveRecord> LiveBook::find(std::string_view sessionId, bool frames) const {
    std::lock_guard lock(mutex_);
    if (const Entry* entry = lookup(sessionId)) return snapshot(*entry, frames);
    return std::nullopt;
}

std::vector<LiveRecord> LiveBook::all(bool frames) const {
    std::lock_guard lock(mutex_);
    std::vector<LiveRecord> records;
    records.reserve(entries_.size());
    for (const Entry& entry : entries_) records.push_back(snapshot(entry, frames));
    return records;
}

bool LiveBook::waitFor(std::string_view sessionId, std::chrono::milliseconds timeout,
                       const std::function<bool(const LiveRecord&)>& done) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        const Entry* entry = lookup(sessionId);
        return entry != nullptr && done(entry->record);
    });
}

LiveBook::Entry& LiveBook::entryFor(std::string_view sessionId) {
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [&](const Entry& e) { return e.record.sessionId == sessionId; });
    if (it != entries_.end()) return *it;
    Entry& created = entries_.emplace_back();
    created.record.sessionId = sessionId;
    return created;
}

const LiveBook::Entry* LiveBook::lookup(std::string_view sessionId) const {
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [&](const Entry& e) { return e.record.sessionId == sessionId; });
    return it != entries_.end() ? &*it : nullptr;
}

LiveRecord LiveBook::snapshot(const Entry& entry, bool frames) const {
    LiveRecord record = entry.record;
    if (frames) record.latestFrame = entry.latestFrame;
    const auto now = std::chrono::steady_clock::now();
    auto since = [now](std::chrono::steady_clock::time_point at) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(now - at);
    };
    if (entry.lastFrame) record.sinceFrame = since(*entry.lastFrame);
    if (entry.activated) record.sinceActivation = since(*entry.activated);
    // Measured from the first to the last frame still inside the window, so a stream that has
    // only just begun is not diluted by the part of the window before it.
    auto first = std::find_if(entry.recentFrames.begin(), entry.recentFrames.end(),
                              [&](auto at) { return now - at <= kRateWindow; });
    const auto count = std::distance(first, entry.recentFrames.end());
    if (count >= 2) {
        const std::chrono::duration<double> span = entry.recentFrames.back() - *first;
        record.frameRate = span.count() > 0 ? static_cast<double>(count - 1) / span.count() : 0;
    }
    return record;
}

}  // namespace virela::devserver
