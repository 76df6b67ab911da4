#pragma once

// The device's side while a person plays the agent in the local backend's console.

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "platform/headless/runtime.hpp"

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

}  // namespace demo
