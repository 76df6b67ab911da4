#pragma once

// The agent's side of the demo session, played by the embedded local backend: Dana from Acme
// asks for screenshots, pushes a few other actions, and the backend restarts under the device.

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>

#include "apps/demo/customer.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace demo {

// What the host's callbacks reported, so that the script can wait for the customer's answer.
class HostOutcomes {
  public:
    void add();
    int current();
    // Waits for an outcome after the `seen`-th; false on time-out.
    bool waitBeyond(int seen, std::chrono::seconds limit);

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

// A screenshot once, then screenshots for the rest of the call: the countdown banner, a second
// screenshot without a prompt, and the end of the call. Received images go to `outDir`.
void playScreenshots(virela::devserver::Server& backend, HostOutcomes& outcomes,
                     const std::string& deviceId, const std::filesystem::path& outDir,
                     ConsentPolicy policy);

// Other pushes (one malformed), the app's background and foreground, and a backend restart.
void playAgent(virela::devserver::Server& backend, virela::headless::Runtime& runtime,
               const std::string& deviceId);

}  // namespace demo
