#include "apps/demo/customer.hpp"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <span>
#include <string_view>

namespace demo {

using virela::headless::SheetState;

std::optional<ConsentPolicy> consentPolicy(const std::string& text) {
    if (text == "allow") return ConsentPolicy::allow;
    if (text == "deny") return ConsentPolicy::deny;
    if (text == "ask") return ConsentPolicy::ask;
    return std::nullopt;
}

namespace {

// The allowing and the refusing button of every consent sheet the library shows: a screenshot,
// screenshots for a call, live sharing, remote control.
constexpr std::string_view allowTitles[] = {"Allow once", "Allow for this call", "Start sharing",
                                            "Allow control"};
constexpr std::string_view denyTitles[] = {"Don’t allow", "Not now"};

// The button to press on `sheet`; a sheet with other titles is answered by position, the
// allowing button first.
std::string answer(const SheetState& sheet, bool allow) {
    const std::span<const std::string_view> known =
        allow ? std::span<const std::string_view>(allowTitles) : denyTitles;
    for (const auto& title : sheet.buttons) {
        if (std::find(known.begin(), known.end(), title) != known.end()) return title;
    }
    return sheet.buttons.at(allow ? 0 : 1);
}

bool asksConsent(const SheetState& sheet) {
    return sheet.kind != SheetState::Kind::supportCode && sheet.buttons.size() >= 2;
}

}  // namespace

Customer::Customer(virela::headless::Runtime& runtime, ConsentPolicy policy,
                   std::function<void(const std::string&)> say)
    : runtime_(runtime), policy_(policy), say_(std::move(say)) {
    answerer_ = std::thread([this] { answerLoop(); });
    runtime_.runOnMain([this] {
        runtime_.prompts()->setOnChange([this] { sheetChanged(); });
        runtime_.banner()->setOnChange([this] { bannerChanged(); });
    });
}

Customer::~Customer() {
    runtime_.runOnMain([this] {
        runtime_.prompts()->setOnChange(nullptr);
        runtime_.banner()->setOnChange(nullptr);
    });
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    answerer_.join();
}

bool Customer::press(const std::string& title) {
    return runtime_.runOnMain([&] { return runtime_.prompts()->press(title); });
}

void Customer::sheetChanged() {
    const auto& sheet = runtime_.prompts()->sheet();
    if (!sheet) return;
    if (sheet->logo == SheetState::Logo::image) {
        say_("screen: the sheet's logo arrived (" + std::to_string(sheet->logoWidth) + " × " +
             std::to_string(sheet->logoHeight) + ")");
        return;
    }
    say_("screen: ┌ " + sheet->title);
    if (sheet->kind == SheetState::Kind::supportCode) {
        say_("screen: │ [ " + sheet->code + " ]");
        say_("screen: │ " + sheet->body);
        say_("screen: │ " + sheet->note);
    } else {
        say_("screen: │ " + sheet->body);
        say_("screen: │ " + sheet->requestLine);
    }
    std::string buttons;
    for (const auto& title : sheet->buttons) buttons += "[" + title + "] ";
    say_("screen: └ " + buttons);
    if (asksConsent(*sheet)) {
        {
            std::lock_guard lock(mutex_);
            pending_ = ++shown_;
        }
        wake_.notify_all();
    }
}

void Customer::bannerChanged() {
    auto text = runtime_.banner()->text();
    if (text == lastBanner_) return;
    lastBanner_ = text;
    say_(text ? "screen: banner «" + *text + "»" : "screen: the banner is gone");
}

void Customer::answerLoop() {
    for (;;) {
        std::uint64_t sheet = 0;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || pending_; });
            if (stopping_) return;
            sheet = *pending_;
            pending_.reset();
        }
        bool allow = policy_ == ConsentPolicy::allow;
        if (policy_ == ConsentPolicy::ask) {
            say_("customer: allow? [y/N] ");
            // Wait for a line without blocking the demo's exit.
            pollfd input{STDIN_FILENO, POLLIN, 0};
            int ready = 0;
            while (ready == 0) {
                ready = ::poll(&input, 1, 200);
                std::lock_guard lock(mutex_);
                if (stopping_) return;
            }
            std::string line;
            allow = ready > 0 && std::getline(std::cin, line) &&
                    (line == "y" || line == "Y" || line == "yes");
        }
        // Answer only the sheet that was asked about; a newer one waits for its own answer.
        runtime_.runOnMain([&] {
            const auto& shown = runtime_.prompts()->sheet();
            if (sheet != shown_ || !shown || !asksConsent(*shown)) return;
            const std::string title = answer(*shown, allow);
            say_("customer: taps [" + title + "]");
            runtime_.prompts()->press(title);
        });
    }
}

}  // namespace demo
