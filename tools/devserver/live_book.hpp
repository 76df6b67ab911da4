#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

// The live sessions the agent side opened and what each device sent for them: answers, frames,
// indicator confirmations, prompts shown. Thread-safe; outlives server runs like the devices do.
class LiveBook {
  public:
    std::string freshSessionId();

    // Records what a push did to a session once `deliver` succeeds, under the book's lock, so
    // that a reply racing in from the device finds it. Lock order: the book, then whatever
    // `deliver` takes (the socket hub).
    // A request starts the session's record afresh; an activation keeps it (creating it when
    // the session was never requested) and sets the generation.
    bool request(const std::string& sessionId, const std::string& deviceId, std::string promptId,
                 const std::function<bool()>& deliver);
    bool activate(const std::string& sessionId, const std::string& deviceId,
                  std::optional<std::string> generation, const std::function<bool()>& deliver);
    // The backend's decision stands whether or not the device heard it.
    void end(std::string_view sessionId, const std::string& deviceId);
    // Remembers a note's prompt, so that its report lands on the session.
    void notePrompt(std::string_view sessionId, std::string promptId);

    void promptShown(std::string_view promptId);

    enum class Standing { unknown, ended, open };
    // How the session stands for the device; another device's session counts as unknown.
    Standing standing(std::string_view sessionId, std::string_view deviceId) const;

    // A refusal ends the session, as the customer's stop or "Not now" does for the real backend.
    void answer(std::string_view sessionId, bool allow);
    // Stores the frame as the session's latest.
    void storeFrame(std::string_view sessionId, std::string jpeg, std::string url);
    std::optional<std::string> latestFrame(std::string_view sessionId) const;

    void refuseIndicator(std::string kind, bool refuse);
    // Records the confirmation; false when its kind is being refused.
    bool confirmIndicator(std::string_view sessionId, std::string kind, std::string generation);
    // A kind's lease lapses when its latest confirmation was refused, until one is accepted.
    bool lapsed(std::string_view sessionId, std::string_view kind) const;
    // While set, a session whose sharing lease lapsed has its frames refused, as a real backend
    // drops them; the bare test backend keeps every frame.
    void enforceLeases(bool enforce);
    bool refusesFrames(std::string_view sessionId) const;

    // Control within a session. The pushes are recorded like request() does, and only on the
    // session's record: they never make a session known to a device, so the control endpoints
    // of a session that was never live answer 404. A request keeps the earlier answers and
    // feedback and clears the generation; a grant sets it.
    std::string freshControlRequestId();
    bool pushControl(std::string_view sessionId, std::string state,
                     std::optional<std::string> requestId, std::optional<std::string> generation,
                     const std::function<bool()>& deliver);
    // The backend's decision stands whether or not the device heard it.
    void endControl(std::string_view sessionId);
    bool pushInput(std::string_view sessionId, const std::function<bool()>& deliver);
    // A refusal or a take-back ends control.
    void answerControl(std::string_view sessionId, bool allow,
                       std::optional<std::string> requestId);
    void controlFeedback(std::string_view sessionId, std::string kind);

    // With `frames` false the record leaves latestFrame empty, as all() does.
    std::optional<LiveRecord> find(std::string_view sessionId, bool frames = true) const;
    // With `frames` false the records leave latestFrame empty, for callers that poll.
    std::vector<LiveRecord> all(bool frames = true) const;
    bool waitFor(std::string_view sessionId, std::chrono::milliseconds timeout,
                 const std::function<bool(const LiveRecord&)>& done) const;

  private:
    struct Entry {
        LiveRecord record;  // its latestFrame stays empty; the frame is kept beside it
        std::string latestFrame;
        // Arrival times of the frames of the last kRateWindow, oldest first.
        std::deque<std::chrono::steady_clock::time_point> recentFrames;
        std::optional<std::chrono::steady_clock::time_point> lastFrame, activated;
    };

    Entry& entryFor(std::string_view sessionId);  // caller holds mutex_
    const Entry* lookup(std::string_view sessionId) const;
    LiveRecord snapshot(const Entry& entry, bool frames = true) const;
    bool lapsedLocked(std::string_view sessionId, std::string_view kind) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Entry> entries_;
    // Which session each prompt of a request or a note belongs to.
    std::map<std::string, std::string, std::less<>> promptSessions_;
    std::set<std::string, std::less<>> refusedKinds_;
    bool enforceLeases_ = false;
    std::uint64_t nextControlRequest_ = 1;
};

}  // namespace virela::devserver
