#pragma once

// The agent watches live and then takes control, played by the embedded local backend: Dana asks
// to see the screen, frames flow, she points and marks, a snapshot and a recording are
// announced, the customer scrolls the marks away; she operates the app under the control lease
// until the customer takes it back, and the customer finally stops sharing.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "apps/demo/customer.hpp"
#include "apps/demo/sample_app.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace demo {

// Up to the customer's scroll; the session id while sharing still runs, nothing otherwise.
// Writes live-frame.jpg (the latest frame the agent received) and customer-view.png (what the
// customer sees, overlay included) to `outDir`.
std::optional<std::string> playLive(virela::devserver::Server& backend,
                                    virela::headless::Runtime& runtime,
                                    const std::shared_ptr<SampleApp>& app,
                                    const std::string& deviceId,
                                    const std::filesystem::path& outDir, ConsentPolicy policy);

// Within live session `sessionId`: Dana asks for control, operates the app (the switch, the
// name, the password she cannot reach, the delivery menu, a scroll, the order details and
// back), and the customer takes control back.
void playControl(virela::devserver::Server& backend, virela::headless::Runtime& runtime,
                 const std::shared_ptr<SampleApp>& app, const std::string& deviceId,
                 const std::string& sessionId, ConsentPolicy policy);

// The customer taps Stop on the pill.
void stopSharing(virela::devserver::Server& backend, virela::headless::Runtime& runtime,
                 const std::string& sessionId);

}  // namespace demo
