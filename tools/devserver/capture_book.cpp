#include "tools/devserver/capture_book.hpp"

#include "tools/devserver/exchange.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

namespace virela::devserver {

std::string isoUtc(std::chrono::system_clock::time_point at) {
    using namespace std::chrono;
    const auto millis = floor<milliseconds>(at);
    const auto seconds = floor<std::chrono::seconds>(millis);
    const std::time_t whole = system_clock::to_time_t(seconds);
    std::tm utc{};
    gmtime_r(&whole, &utc);
    char text[96];  // room for any int, so the compiler sees no truncation
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>((millis - seconds).count()));
    return text;
}

std::string CaptureBook::freshRequestId() {
    std::lock_guard lock(mutex_);
    std::string id;
    // Skips ids a test chose by hand, so that a fresh one never merges with another request.
    do {
        id = "req_" + std::to_string(nextRequest_++);
    } while (lookup(id) != nullptr);
    return id;
}

std::string CaptureBook::freshPromptId() {
    std::lock_guard lock(mutex_);
    std::string id;
    do {
        id = "prm_" + std::to_string(nextPrompt_++);
    } while (std::any_of(records_.begin(), records_.end(),
                         [&](const CaptureRecord& r) { return r.promptId == id; }));
    return id;
}

Attempt<Done> CaptureBook::ask(const std::string& requestId, std::string deviceId, std::string mode,
                               std::string promptId,
                               std::optional<std::chrono::system_clock::time_point> promptExpires,
                               const std::function<bool()>& deliver) {
    Attempt<Done> attempt;
    {
        std::lock_guard lock(mutex_);
        // One question at a time: a customer is never stacked two sheets for one screen.
        const auto now = std::chrono::system_clock::now();
        for (const CaptureRecord& open : records_) {
            if (open.deviceId == deviceId && !open.answer && open.promptExpires &&
                now < *open.promptExpires) {
                attempt.refusal =
                    Refusal{"pending", open.requestId + " still waits for the customer's answer"};
                return attempt;
            }
        }
        if (!deliver()) return attempt;
        CaptureRecord& record = recordFor(requestId);
        record = CaptureRecord{};
        record.requestId = requestId;
        record.deviceId = std::move(deviceId);
        record.mode = std::move(mode);
        record.promptId = std::move(promptId);
        record.promptExpires = promptExpires;
        attempt.value = Done{};
    }
    changed_.notify_all();
    return attempt;
}

Attempt<Done> CaptureBook::another(std::string_view requestId, std::string_view deviceId,
                                   const std::function<bool()>& deliver) {
    Attempt<Done> attempt;
    std::lock_guard lock(mutex_);
    const CaptureRecord* capture = lookup(requestId);
    std::string why;
    if (capture == nullptr || capture->deviceId != deviceId) {
        why = "the device was never asked for it";
    } else if (!capture->answer) {
        why = "the customer has not answered it";
    } else if (!*capture->answer) {
        why = "the customer declined it";
    } else if (capture->mode != "PerSession") {
        why = "it was allowed once, and used";
    } else if (!capture->sessionExpires ||
               std::chrono::system_clock::now() >= *capture->sessionExpires) {
        why = "its call has ended";
    }
    if (!why.empty()) {
        attempt.refusal = Refusal{"not_allowed", std::move(why)};
        return attempt;
    }
    if (deliver()) attempt.value = Done{};
    return attempt;
}

void CaptureBook::endCalls(std::string_view deviceId) {
    {
        std::lock_guard lock(mutex_);
        const auto now = std::chrono::system_clock::now();
        for (CaptureRecord& record : records_) {
            if (record.deviceId == deviceId && record.sessionExpires &&
                *record.sessionExpires > now) {
                record.sessionExpires = now;
            }
        }
    }
    changed_.notify_all();
}

void CaptureBook::promptShown(std::string_view promptId) {
    {
        std::lock_guard lock(mutex_);
        for (CaptureRecord& record : records_) {
            if (record.promptId == promptId) record.promptShown = true;
        }
    }
    changed_.notify_all();
}

CaptureBook::Answer CaptureBook::answer(std::string_view requestId, bool allow,
                                        std::chrono::milliseconds session) {
    Answer reply;
    {
        std::lock_guard lock(mutex_);
        CaptureRecord& record = recordFor(requestId);
        reply.status = allow ? respondStatus_ : "Denied";
        if (allow && record.mode == "PerSession") {
            const auto until = std::chrono::system_clock::now() + session;
            reply.sessionExpiresAt = isoUtc(until);
            record.sessionExpires = until;
        }
        record.answer = allow;
        record.sessionExpiresAt = reply.sessionExpiresAt;
    }
    changed_.notify_all();
    return reply;
}

void CaptureBook::setRespondStatus(std::string status) {
    std::lock_guard lock(mutex_);
    respondStatus_ = std::move(status);
}

Attempt<std::string> CaptureBook::store(std::string_view requestId, std::string png,
                                        std::string contentType, std::string fileName,
                                        std::string_view linkPrefix) {
    Attempt<std::string> attempt;
    {
        std::lock_guard lock(mutex_);
        const CaptureRecord* known = lookup(requestId);
        std::string why;
        if (known == nullptr || !known->answer || !*known->answer) {
            why = "the customer has not allowed it";
        } else if (known->mode == "PerSession") {
            if (!known->sessionExpires ||
                std::chrono::system_clock::now() >= *known->sessionExpires) {
                why = "its call has ended";
            }
        } else if (!known->captureIds.empty()) {
            why = "it was allowed once, and used";
        }
        if (!why.empty()) {
            attempt.refusal = Refusal{"not_allowed", std::move(why)};
            return attempt;
        }
        std::string captureId;
        // Random, so that no other page can name an image it was not given the link of.
        do {
            captureId = "cap_" + randomHex(16);
        } while (images_.contains(captureId));
        images_[captureId] = png;
        CaptureRecord& record = recordFor(requestId);
        record.captureId = captureId;
        record.captureIds.push_back(captureId);
        record.imageUrl = std::string(linkPrefix) + captureId + ".png";
        record.png = std::move(png);
        record.uploadContentType = std::move(contentType);
        record.uploadFileName = std::move(fileName);
        attempt.value = std::move(captureId);
    }
    changed_.notify_all();
    return attempt;
}

std::optional<std::string> CaptureBook::image(std::string_view captureId) const {
    std::lock_guard lock(mutex_);
    auto it = images_.find(captureId);
    if (it == images_.end()) return std::nullopt;
    return it->second;
}

std::optional<CaptureRecord> CaptureBook::find(std::string_view requestId) const {
    std::lock_guard lock(mutex_);
    if (const CaptureRecord* record = lookup(requestId)) return *record;
    return std::nullopt;
}

std::vector<CaptureRecord> CaptureBook::all(bool images) const {
    std::lock_guard lock(mutex_);
    if (images) return records_;
    std::vector<CaptureRecord> records;
    records.reserve(records_.size());
    for (const CaptureRecord& record : records_) {
        CaptureRecord& copy = records.emplace_back();
        copy.requestId = record.requestId;
        copy.deviceId = record.deviceId;
        copy.mode = record.mode;
        copy.promptId = record.promptId;
        copy.promptShown = record.promptShown;
        copy.answer = record.answer;
        copy.sessionExpiresAt = record.sessionExpiresAt;
        copy.promptExpires = record.promptExpires;
        copy.sessionExpires = record.sessionExpires;
        copy.captureId = record.captureId;
        copy.captureIds = record.captureIds;
        copy.imageUrl = record.imageUrl;
    }
    return records;
}

bool CaptureBook::waitFor(std::string_view requestId, std::chrono::milliseconds timeout,
                          bool (*done)(const CaptureRecord&)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        const CaptureRecord* record = lookup(requestId);
        return record != nullptr && done(*record);
    });
}

CaptureRecord& CaptureBook::recordFor(std::string_view requestId) {
    auto it = std::find_if(records_.begin(), records_.end(),
                           [&](const CaptureRecord& r) { return r.requestId == requestId; });
    if (it != records_.end()) return *it;
    CaptureRecord& created = records_.emplace_back();
    created.requestId = requestId;
    return created;
}

const CaptureRecord* CaptureBook::lookup(std::string_view requestId) const {
    auto it = std::find_if(records_.begin(), records_.end(),
                           [&](const CaptureRecord& r) { return r.requestId == requestId; });
    return it != records_.end() ? &*it : nullptr;
}

}  // namespace virela::devserver
