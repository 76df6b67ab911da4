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

    // Leases: the backend issues "sharing" when it activates a session, "recording" while the
    // agent records and "control" when it grants control, each with a generation. The device
    // must confirm each with exactly that generation, first within `grace` of the issue and then
    // at least every `timeout`; until it does again, the lease has lapsed and frames or input of
    // its kind are refused. An issue without a generation is a lease the device cannot confirm:
    // sharing then goes unchecked, control admits nothing.
    void setLeaseTimes(std::chrono::milliseconds grace, std::chrono::milliseconds timeout);
    void issueLease(std::string_view sessionId, std::string kind,
                    std::optional<std::string> generation);
    void withdrawLease(std::string_view sessionId, std::string_view kind);
    // While set, confirmations of that kind are refused, as if the backend had lost the lease.
    void refuseIndicator(std::string kind, bool refuse);
    // Records the confirmation and accepts it, or says why not.
    std::optional<Refusal> confirmIndicator(std::string_view sessionId, std::string kind,
                                            std::string generation);
    bool lapsed(std::string_view sessionId, std::string_view kind) const;
    // A frame needs a session the customer allowed or the backend started, and a sharing lease
    // that has not lapsed.
    std::optional<Refusal> admitFrame(std::string_view sessionId) const;
    // Input needs granted control whose lease the device confirmed and keeps confirming.
    std::optional<Refusal> admitInput(std::string_view sessionId) const;

    // Control within a session. The pushes are recorded like request() does, and only on the
    // session's record: they never make a session known to a device, so the control endpoints
    // of a session that was never live answer 404. A request keeps the earlier answers and
    // feedback and clears the generation.
    std::string freshControlRequestId();
    bool requestControl(std::string_view sessionId, std::string requestId,
                        const std::function<bool()>& deliver);
    // A grant answers the customer's allowing of the pending request, once; it sets the
    // generation and issues the control lease.
    Attempt<Done> grantControl(std::string_view sessionId, std::optional<std::string> generation,
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
    struct Lease {
        std::string generation;  // empty: issued without one
        std::chrono::steady_clock::time_point issued;
        std::optional<std::chrono::steady_clock::time_point> confirmed;  // the latest accepted
        bool refused = false;  // the latest confirmation was refused
    };
    struct Entry {
        LiveRecord record;  // its latestFrame stays empty; the frame is kept beside it
        std::string latestFrame;
        // Arrival times of the frames of the last kRateWindow, oldest first.
        std::deque<std::chrono::steady_clock::time_point> recentFrames;
        std::optional<std::chrono::steady_clock::time_point> lastFrame, activated;
        // The leases in force, by kind.
        std::map<std::string, Lease, std::less<>> leases;
        // The customer allowed the pending control request, and no grant has answered it yet.
        bool controlAllowed = false;
    };

    Entry& entryFor(std::string_view sessionId);  // caller holds mutex_
    static void endSessionOf(Entry& entry);       // caller holds mutex_
    // No control lease, and no allowance waiting for a grant; caller holds mutex_.
    static void withdrawControl(Entry& entry);
    const Entry* lookup(std::string_view sessionId) const;
    LiveRecord snapshot(const Entry& entry, bool frames = true) const;
    bool lapsedLocked(const Entry& entry, std::string_view kind) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Entry> entries_;
    // Which session each prompt of a request or a note belongs to.
    std::map<std::string, std::string, std::less<>> promptSessions_;
    std::set<std::string, std::less<>> refusedKinds_;
    std::chrono::milliseconds leaseGrace_{5000};
    std::chrono::milliseconds leaseTimeout_{15000};
    std::uint64_t nextControlRequest_ = 1;
};

}  // namespace virela::devserver
