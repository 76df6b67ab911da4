#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "tools/devserver/device_report.hpp"
#include "tools/devserver/exchange.hpp"

namespace virela::devserver {

class Agent;
class CaptureBook;
class ConsoleJournal;
class DeviceRegistry;
class LiveBook;
class Router;

// The console's JSON API under "/console/api/": the state the page polls, and the agent's
// actions, each checked against where the device and session stand and carried out through the
// Agent. Sessions the console asked for are activated, and control in them granted, as soon as
// the customer allows, as a real backend does. Thread-safe; like the books it outlives server
// runs.
class ConsoleApi {
  public:
    ConsoleApi(Agent& agent, const DeviceRegistry& registry, const CaptureBook& captures,
               LiveBook& live, ConsoleJournal& journal);

    void addRoutes(Router& router);
    // Acts on a customer's answer to a session or control the console asked for; after the
    // journal has noted the report, so that the log reads answer, then start.
    void react(const DeviceReport& report);

  private:
    std::string state(std::uint64_t since) const;
    std::string nextGeneration(std::string_view prefix);
    // Journals the refusal of `what` and makes its 409.
    Reply refused(const std::string& deviceId, const std::string& sessionId,
                  const std::string& what, const Refusal& refusal);
    bool own(std::string_view sessionId) const;

    Agent& agent_;
    const DeviceRegistry& registry_;
    const CaptureBook& captures_;
    LiveBook& live_;
    ConsoleJournal& journal_;

    mutable std::mutex mutex_;
    std::set<std::string, std::less<>> ownSessions_;  // asked for by the console
    std::map<std::string, bool, std::less<>> refusing_;
    std::map<std::string, std::uint64_t, std::less<>> generations_;  // by prefix
};

}  // namespace virela::devserver
