#include "tools/devserver/live_book.hpp"

#include "tools/devserver/exchange.hpp"

#include <algorithm>
#include <utility>

namespace virela::devserver {

namespace {

// Long enough to smooth a few frames a second, short enough that a stalled stream reads as 0
// soon after it stops.
constexpr std::chrono::seconds kRateWindow{5};

using Clock = std::chrono::steady_clock;

// Control lives inside the live session: when the session ends, so does any lease in it.
void endControlWith(LiveRecord& record) {
    if (record.control.state == "requested" || record.control.state == "active") {
        record.control.state = "ended";
    }
}

}  // namespace

void LiveBook::withdrawControl(Entry& entry) {
    entry.leases.erase("control");
    entry.controlAllowed = false;
}

void LiveBook::endSessionOf(Entry& entry) {
    entry.record.state = "ended";
    endControlWith(entry.record);
    entry.leases.clear();
    entry.controlAllowed = false;
}

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
        entry.activated = Clock::now();
        entry.leases["sharing"] = Lease{generation.value_or(""), *entry.activated, {}, false};
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
        Entry& entry = entryFor(sessionId);
        if (entry.record.deviceId.empty()) entry.record.deviceId = deviceId;
        endSessionOf(entry);
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
        Entry& entry = entryFor(sessionId);
        entry.record.answers.push_back(allow);
        if (!allow) endSessionOf(entry);
    }
    changed_.notify_all();
}

void LiveBook::storeFrame(std::string_view sessionId, std::string jpeg, std::string url) {
    {
        std::lock_guard lock(mutex_);
        Entry& entry = entryFor(sessionId);
        const auto now = Clock::now();
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

void LiveBook::setLeaseTimes(std::chrono::milliseconds grace, std::chrono::milliseconds timeout) {
    std::lock_guard lock(mutex_);
    leaseGrace_ = grace;
    leaseTimeout_ = timeout;
}

void LiveBook::issueLease(std::string_view sessionId, std::string kind,
                          std::optional<std::string> generation) {
    std::lock_guard lock(mutex_);
    entryFor(sessionId).leases[std::move(kind)] =
        Lease{generation.value_or(""), Clock::now(), {}, false};
}

void LiveBook::withdrawLease(std::string_view sessionId, std::string_view kind) {
    std::lock_guard lock(mutex_);
    Entry& entry = entryFor(sessionId);
    if (auto it = entry.leases.find(kind); it != entry.leases.end()) entry.leases.erase(it);
}

void LiveBook::refuseIndicator(std::string kind, bool refuse) {
    std::lock_guard lock(mutex_);
    if (refuse) {
        refusedKinds_.insert(std::move(kind));
    } else {
        refusedKinds_.erase(kind);
    }
}

std::optional<Refusal> LiveBook::confirmIndicator(std::string_view sessionId, std::string kind,
                                                  std::string generation) {
    std::optional<Refusal> refusal;
    {
        std::lock_guard lock(mutex_);
        Entry& entry = entryFor(sessionId);
        auto lease = entry.leases.find(kind);
        if (lease == entry.leases.end()) {
            refusal = Refusal{"lease_mismatch", "no lease of this kind is in force"};
        } else if (lease->second.generation.empty() || generation != lease->second.generation) {
            // A stale generation says nothing about the one in force, which keeps its standing.
            refusal = Refusal{"lease_mismatch", "not the generation the backend issued"};
        } else if (refusedKinds_.contains(kind)) {
            refusal = Refusal{"lease_mismatch", "the backend refuses confirmations of this kind"};
            lease->second.refused = true;
        } else {
            lease->second.confirmed = Clock::now();
            lease->second.refused = false;
        }
        entry.record.indicators.push_back({std::move(kind), std::move(generation), !refusal,
                                           refusal ? refusal->reason : std::string()});
    }
    changed_.notify_all();
    return refusal;
}

bool LiveBook::lapsed(std::string_view sessionId, std::string_view kind) const {
    std::lock_guard lock(mutex_);
    const Entry* entry = lookup(sessionId);
    return entry != nullptr && lapsedLocked(*entry, kind);
}

bool LiveBook::lapsedLocked(const Entry& entry, std::string_view kind) const {
    auto found = entry.leases.find(kind);
    if (found == entry.leases.end()) return false;
    const Lease& lease = found->second;
    if (lease.refused) return true;
    // Sharing started without a generation has nothing to confirm and nothing to lapse.
    if (lease.generation.empty() && kind == "sharing") return false;
    const auto now = Clock::now();
    return lease.confirmed ? now - *lease.confirmed > leaseTimeout_
                           : now - lease.issued > leaseGrace_;
}

std::optional<Refusal> LiveBook::admitFrame(std::string_view sessionId) const {
    std::lock_guard lock(mutex_);
    const Entry* entry = lookup(sessionId);
    if (entry == nullptr) return Refusal{"not_allowed", "the session is unknown"};
    const auto& answers = entry->record.answers;
    const bool allowed = std::find(answers.begin(), answers.end(), true) != answers.end();
    if (!allowed && !entry->activated) {
        return Refusal{"not_allowed",
                       "the customer has not allowed the session and the backend has not "
                       "started it"};
    }
    if (lapsedLocked(*entry, "sharing")) {
        return Refusal{"lease_mismatch",
                       "the sharing lease has lapsed: the device has not "
                       "confirmed it in time, or its confirmation was refused"};
    }
    return std::nullopt;
}

std::optional<Refusal> LiveBook::admitInput(std::string_view sessionId) const {
    std::lock_guard lock(mutex_);
    const Entry* entry = lookup(sessionId);
    if (entry == nullptr || entry->record.state != "active" ||
        entry->record.control.state != "active") {
        return Refusal{"no_control", "control is not granted"};
    }
    auto lease = entry->leases.find("control");
    if (lease == entry->leases.end() || !lease->second.confirmed ||
        lapsedLocked(*entry, "control")) {
        return Refusal{"lease_mismatch",
                       "the device has not confirmed the control lease, or not in time"};
    }
    return std::nullopt;
}

std::string LiveBook::freshControlRequestId() {
    std::lock_guard lock(mutex_);
    return "ctl_" + std::to_string(nextControlRequest_++);
}

bool LiveBook::requestControl(std::string_view sessionId, std::string requestId,
                              const std::function<bool()>& deliver) {
    {
        std::lock_guard lock(mutex_);
        if (!deliver()) return false;
        Entry& entry = entryFor(sessionId);
        entry.record.control.requestId = std::move(requestId);
        entry.record.control.state = "requested";
        entry.record.control.generation.reset();
        withdrawControl(entry);
    }
    changed_.notify_all();
    return true;
}

Attempt<Done> LiveBook::grantControl(std::string_view sessionId,
                                     std::optional<std::string> generation,
                                     const std::function<bool()>& deliver) {
    Attempt<Done> attempt;
    {
        std::lock_guard lock(mutex_);
        const Entry* known = lookup(sessionId);
        if (known == nullptr || known->record.state != "active" || !known->controlAllowed) {
            attempt.refusal =
                Refusal{"not_allowed",
                        "control is granted only when the customer allows a pending request, once"};
            return attempt;
        }
        if (!deliver()) return attempt;
        Entry& entry = entryFor(sessionId);
        entry.controlAllowed = false;
        entry.leases["control"] = Lease{generation.value_or(""), Clock::now(), {}, false};
        entry.record.control.state = "active";
        entry.record.control.generation = std::move(generation);
        attempt.value = Done{};
    }
    changed_.notify_all();
    return attempt;
}

void LiveBook::endControl(std::string_view sessionId) {
    {
        std::lock_guard lock(mutex_);
        Entry& entry = entryFor(sessionId);
        entry.record.control.state = "ended";
        withdrawControl(entry);
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
        Entry& entry = entryFor(sessionId);
        ControlRecord& control = entry.record.control;
        // Only the answer to the request still pending opens the way to a grant.
        if (allow && control.state == "requested" && requestId.value_or("") == control.requestId) {
            entry.controlAllowed = true;
        }
        control.answers.push_back({allow, std::move(requestId)});
        if (!allow) {
            control.state = "ended";
            withdrawControl(entry);
        }
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
    const auto now = Clock::now();
    auto since = [now](std::chrono::steady_clock::time_point at) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(now - at);
    };
    if (entry.lastFrame) record.sinceFrame = since(*entry.lastFrame);
    if (entry.activated) record.sinceActivation = since(*entry.activated);
    for (const auto& [kind, lease] : entry.leases) {
        if (lapsedLocked(entry, kind)) record.lapsed.push_back(kind);
    }
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
