#pragma once

// The device's side while a person plays the agent in the local backend's console.

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "apps/demo/sample_app.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

namespace demo {

// Keeps `outDir`/customer-view.png showing what the customer sees: the app with the overlay,
// the pill and the agent's marks, which the frames the agent receives never carry. The file is
// rewritten (whole, by rename) whenever the overlay changes, until destruction.
class CustomerViewWriter {
  public:
    CustomerViewWriter(virela::headless::Runtime& runtime, std::filesystem::path outDir);
    ~CustomerViewWriter();
    CustomerViewWriter(const CustomerViewWriter&) = delete;
    CustomerViewWriter& operator=(const CustomerViewWriter&) = delete;

    std::filesystem::path path() const { return outDir_ / "customer-view.png"; }

  private:
    void run();

    virela::headless::Runtime& runtime_;
    std::filesystem::path outDir_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// The customer's own actions, typed at the terminal one a line, until `interrupted`: "scroll",
// "background", "foreground", "stop" (the pill's Stop), "take back" (the control banner's
// button), "offline" (the connection drops; the device reconnects by itself) and "help". A
// closed standard input leaves only the interrupt to wait for.
void playCustomerAtTerminal(virela::headless::Runtime& runtime,
                            const std::shared_ptr<SampleApp>& app,
                            virela::devserver::Server& backend, const std::string& deviceId,
                            const std::atomic<bool>& interrupted);

}  // namespace demo
