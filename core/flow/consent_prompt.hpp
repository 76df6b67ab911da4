#pragma once

// The one bottom sheet through which the library asks the customer anything. One sheet at a
// time: showing a new one removes the old one without calling its choice.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/flow/sheets.hpp"
#include "core/ports/host.hpp"
#include "core/ports/presenters.hpp"

namespace virela {

class HttpClient;
class MainExecutor;
class VirelaCancellable;
class VirelaClock;

class ConsentPrompt : public std::enable_shared_from_this<ConsentPrompt> {
  public:
    enum class Choice { allow, deny };
    enum class Showing { consent, control, supportCode };
    using ChoiceCallback = std::function<void(Choice)>;

    // `presenter` may be empty (a platform without a screen): the model still keeps its state.
    // `http` fetches logos; completions hop to `main`.
    static std::shared_ptr<ConsentPrompt> create(std::shared_ptr<PromptPresenter> presenter,
                                                 std::shared_ptr<HttpClient> http,
                                                 std::shared_ptr<MainExecutor> main);
    ~ConsentPrompt();
    ConsentPrompt(const ConsentPrompt&) = delete;
    ConsentPrompt& operator=(const ConsentPrompt&) = delete;

    // Removes what is shown, then presents a consent (or control) sheet over `window`.
    void showConsent(HostHandle window, const ConsentSheet& sheet, Showing showing,
                     ChoiceCallback onChoice);
    void showSupportCode(HostHandle window, const std::string& code);
    // Safe when nothing is shown.
    void dismiss();

    // The consent sheet's expiry: two seconds after `expiresAt` (and at least one second from
    // now) whatever is shown is dismissed and `onExpired` runs; nothing is armed for a date that
    // cannot be read. One expiry at a time, whichever flow showed the sheet: arming, a newer
    // consent sheet and cancelExpiry() end the previous one.
    void armExpiry(VirelaClock& clock, const std::string& expiresAt,
                   std::function<void()> onExpired);
    void cancelExpiry();

    void allowTapped() { choose(Choice::allow); }
    void denyTapped() { choose(Choice::deny); }
    void doneTapped() { dismiss(); }

    const std::optional<Showing>& showing() const noexcept { return showing_; }
    bool awaitingChoice() const noexcept { return static_cast<bool>(onChoice_); }

  private:
    ConsentPrompt(std::shared_ptr<PromptPresenter> presenter, std::shared_ptr<HttpClient> http,
                  std::shared_ptr<MainExecutor> main);
    void choose(Choice choice);
    SheetActions actions();
    void fetchLogo(const Url& url);

    std::shared_ptr<PromptPresenter> presenter_;
    std::shared_ptr<HttpClient> http_;
    std::shared_ptr<MainExecutor> main_;
    ChoiceCallback onChoice_;
    std::optional<Showing> showing_;
    std::shared_ptr<VirelaCancellable> logoFetch_;
    std::shared_ptr<VirelaCancellable> expiry_;
    // Bumped by every present and dismiss, so that a late logo or a stale button finds nothing.
    std::uint64_t sheet_ = 0;
};

}  // namespace virela
