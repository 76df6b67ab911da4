#pragma once

// The pill at the top of the screen that counts down while screenshots are allowed for the
// whole call. It lives in a passthrough window of its own, so it never blocks the app and is
// never captured.

#include <memory>
#include <optional>
#include <string>

#include "core/ports/host.hpp"
#include "core/ports/presenters.hpp"

namespace virela {

class VirelaClock;
class VirelaCancellable;

inline constexpr double sessionBannerRefreshSeconds = 15;

// "Screenshots allowed · 12 min left" for `remainingSeconds` > 0, minutes rounded up.
std::string sessionBannerText(double remainingSeconds);

class SessionBanner : public std::enable_shared_from_this<SessionBanner> {
  public:
    // `presenter` may be empty: the model still counts down.
    static std::shared_ptr<SessionBanner> create(std::shared_ptr<BannerPresenter> presenter,
                                                 std::shared_ptr<VirelaClock> clock);
    ~SessionBanner();
    SessionBanner(const SessionBanner&) = delete;
    SessionBanner& operator=(const SessionBanner&) = delete;

    // Replaces any banner shown now. An `expiresAt` (seconds since 1970) that is not in the
    // future shows nothing.
    void show(HostHandle window, double expiresAt);
    // Safe when nothing is shown.
    void hide();
    // Recomputes the text; hides the banner once the time is up.
    void refresh();

    bool visible() const noexcept { return expiresAt_.has_value(); }
    // The customer sees the countdown now and its time is not up (a refresh takes the banner
    // down up to 15 s late). Never without a presenter: a banner nobody sees allows nothing.
    bool countingDown() const;
    const std::optional<double>& expiresAt() const noexcept { return expiresAt_; }
    const std::string& text() const noexcept { return text_; }

  private:
    SessionBanner(std::shared_ptr<BannerPresenter> presenter, std::shared_ptr<VirelaClock> clock);

    std::shared_ptr<BannerPresenter> presenter_;
    std::shared_ptr<VirelaClock> clock_;
    std::shared_ptr<VirelaCancellable> timer_;
    std::optional<double> expiresAt_;
    std::string text_;
};

}  // namespace virela
