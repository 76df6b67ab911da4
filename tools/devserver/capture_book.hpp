#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

// "2026-11-21T10:00:00.123Z".
std::string isoUtc(std::chrono::system_clock::time_point at);

// The screenshot requests the agent side made and what the device did with each: the prompt
// shown, the answer, the upload. Also keeps every uploaded image for its link. Thread-safe;
// outlives server runs like the devices do.
class CaptureBook {
  public:
    std::string freshRequestId();
    std::string freshPromptId();

    // Records an ask once `deliver` succeeds, under the book's lock, so that an answer racing
    // in from the device always finds it. Asking again for a known id starts its record afresh
    // in the same place. Lock order: the book, then whatever `deliver` takes (the socket hub).
    // Refused ("pending") while an earlier request of the device waits for the customer.
    Attempt<Done> ask(const std::string& requestId, std::string deviceId, std::string mode,
                      std::string promptId,
                      std::optional<std::chrono::system_clock::time_point> promptExpires,
                      const std::function<bool()>& deliver);
    // Delivers the push for another image of an allowed call that still runs; refused
    // ("not_allowed"), delivering nothing, for any other request.
    Attempt<Done> another(std::string_view requestId, std::string_view deviceId,
                          const std::function<bool()>& deliver);

    // Ends every allowed call of the device now: no further image without asking again.
    void endCalls(std::string_view deviceId);

    void promptShown(std::string_view promptId);

    struct Answer {
        std::string status;
        std::optional<std::string> sessionExpiresAt;
    };
    // An allow of a PerSession request gets a session ending `session` from now.
    Answer answer(std::string_view requestId, bool allow, std::chrono::milliseconds session);
    void setRespondStatus(std::string status);

    // Stores an upload and returns its capture id; its link is `linkPrefix` + id + ".png". An
    // image needs the customer's allowance: once for a request allowed once, any number while
    // an allowed call runs; anything else is refused ("not_allowed") and not kept.
    Attempt<std::string> store(std::string_view requestId, std::string png, std::string contentType,
                               std::string fileName, std::string_view linkPrefix);
    std::optional<std::string> image(std::string_view captureId) const;

    std::optional<CaptureRecord> find(std::string_view requestId) const;
    // With `images` false the records leave out the uploaded file, for callers that poll.
    std::vector<CaptureRecord> all(bool images = true) const;
    bool waitFor(std::string_view requestId, std::chrono::milliseconds timeout,
                 bool (*done)(const CaptureRecord&)) const;

  private:
    CaptureRecord& recordFor(std::string_view requestId);  // caller holds mutex_
    const CaptureRecord* lookup(std::string_view requestId) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<CaptureRecord> records_;
    std::map<std::string, std::string, std::less<>> images_;
    std::string respondStatus_ = "Allowed";
    std::uint64_t nextRequest_ = 1;
    std::uint64_t nextPrompt_ = 1;
};

}  // namespace virela::devserver
