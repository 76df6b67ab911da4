#pragma once

// The customer in front of the demo's screen: reads every sheet the library shows and answers
// consent sheets as --consent says (allow, deny, or ask at the terminal).

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/headless/runtime.hpp"

namespace demo {

enum class ConsentPolicy { allow, deny, ask };
std::optional<ConsentPolicy> consentPolicy(const std::string& text);

class Customer {
  public:
    // `say` prints one whole line.
    Customer(virela::headless::Runtime& runtime, ConsentPolicy policy,
             std::function<void(const std::string&)> say);
    ~Customer();
    Customer(const Customer&) = delete;
    Customer& operator=(const Customer&) = delete;

    // Presses a button of the sheet on screen, from any thread but main.
    bool press(const std::string& title);

  private:
    void sheetChanged();   // main thread
    void bannerChanged();  // main thread
    void answerLoop();

    virela::headless::Runtime& runtime_;
    ConsentPolicy policy_;
    std::function<void(const std::string&)> say_;
    std::optional<std::string> lastBanner_;
    std::uint64_t shown_ = 0;  // consent sheets seen, on main

    std::mutex mutex_;
    std::condition_variable wake_;
    std::optional<std::uint64_t> pending_;  // the consent sheet waiting for an answer
    bool stopping_ = false;
    std::thread answerer_;
};

}  // namespace demo
