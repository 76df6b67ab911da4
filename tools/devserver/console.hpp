#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "tools/devserver/exchange.hpp"
#include "tools/devserver/records.hpp"

namespace virela::devserver {

class Agent;
class CaptureBook;
class DeviceRegistry;
class LiveBook;
class Router;

// 128 random bits as 32 hex digits, for Options::consoleToken.
std::string freshConsoleToken();

// Paths the console's token guards while the console is on: the page, its API, and the images
// and frames devices sent, which only the agent may see.
bool consoleGuards(std::string_view path);
// The token given as "token" in the query, as a Bearer token, or in the console's cookie.
bool carriesConsoleToken(const RecordedRequest& request, std::string_view token,
                         std::uint16_t port);
// 401, saying nothing about what is behind the path.
Reply consoleRefusal();

// The agent's console: a page at "/console" and the JSON API behind it. Its journal records
// what devices report (prompts shown, answers, indicator confirmations, control feedback, view
// changes, connections) and what the agent did, for the page's event log. Sessions the console
// asked for are activated, and control in them granted, as soon as the customer allows, as a
// real backend does. Thread-safe; like the books it outlives server runs.
class Console {
  public:
    // `port` gives the server's current port, which names the console's cookie.
    Console(Agent& agent, const DeviceRegistry& registry, const CaptureBook& captures,
            LiveBook& live, std::function<std::uint16_t()> port);

    // `directory` empty: the files built into the program.
    void addRoutes(Router& router, const std::string& token, const std::string& directory);

    // On the server thread, after the request's reply is decided; no lock of the server held.
    void observe(const RecordedRequest& request, int status);
    void observe(const SocketEvent& event);

  private:
    struct Event {
        std::uint64_t seq = 0;
        std::string at;
        std::string deviceId;
        std::string sessionId;
        std::string kind;
        std::string text;
    };

    void record(std::string deviceId, std::string sessionId, std::string kind, std::string text);
    std::string state(std::uint64_t since) const;
    std::string nextGeneration(std::string_view prefix);
    void observeLive(std::string_view deviceId, std::string_view sessionId, std::string_view what,
                     const RecordedRequest& request, int status);

    Agent& agent_;
    const DeviceRegistry& registry_;
    const CaptureBook& captures_;
    LiveBook& live_;
    const std::function<std::uint16_t()> port_;

    mutable std::mutex mutex_;
    std::deque<Event> events_;  // the latest kJournalSize
    std::uint64_t nextSeq_ = 1;
    std::map<std::string, std::string, std::less<>> appStates_;  // by device id
    std::set<std::string, std::less<>> ownSessions_;             // asked for by the console
    std::set<std::string, std::less<>> framing_;  // sessions whose first frame was logged
    std::map<std::string, bool, std::less<>> refusing_;
    std::set<std::string, std::less<>> droppingFrames_;  // sessions whose drop was logged
    std::map<std::string, std::uint64_t, std::less<>> generations_;  // by prefix
};

}  // namespace virela::devserver
