#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/device_report.hpp"
#include "tools/devserver/records.hpp"

namespace virela::devserver {

// The console's event log: what devices reported (prompts shown, answers, indicator
// confirmations, control feedback, view changes, connections) and what the agent did, newest
// last, for the page to poll. Also remembers the app state each device last reported.
// Thread-safe; like the books it outlives server runs.
class ConsoleJournal {
  public:
    struct Event {
        std::uint64_t seq = 0;
        std::string at;
        std::string deviceId;
        std::string sessionId;
        std::string kind;
        std::string text;
    };

    void record(std::string deviceId, std::string sessionId, std::string kind, std::string text);
    void note(const DeviceReport& report);
    void note(const SocketEvent& event);

    // The events from `since` on, and the seq the next one will get.
    std::vector<Event> since(std::uint64_t since, std::uint64_t& next) const;
    // "foreground" or "background", as the device last said since it connected.
    std::optional<std::string> appState(std::string_view deviceId) const;

  private:
    mutable std::mutex mutex_;
    std::deque<Event> events_;  // the latest kJournalSize
    std::uint64_t nextSeq_ = 1;
    std::map<std::string, std::string, std::less<>> appStates_;  // by device id
    std::set<std::string, std::less<>> framing_;         // sessions whose first frame was logged
    std::set<std::string, std::less<>> droppingFrames_;  // sessions whose drop was logged
};

}  // namespace virela::devserver
