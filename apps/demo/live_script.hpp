#pragma once

// The agent watches live, played by the embedded local backend: Dana asks to see the screen,
// frames flow, she points and marks, a snapshot and a recording are announced, the customer
// scrolls the marks away and finally stops sharing.

#include <filesystem>
#include <memory>
#include <string>

#include "apps/demo/customer.hpp"
#include "apps/demo/sample_app.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace demo {

// Writes live-frame.jpg (the latest frame the agent received) and customer-view.png (what the
// customer sees, overlay included) to `outDir`.
void playLive(virela::devserver::Server& backend, virela::headless::Runtime& runtime,
              const std::shared_ptr<SampleApp>& app, const std::string& deviceId,
              const std::filesystem::path& outDir, ConsentPolicy policy);

}  // namespace demo
