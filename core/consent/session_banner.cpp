#include "core/consent/session_banner.hpp"

#include <cmath>

#include "core/ports/clock.hpp"

namespace virela {

std::string sessionBannerText(double remainingSeconds) {
    const auto minutes = static_cast<long long>(std::ceil(remainingSeconds / 60));
    return "Screenshots allowed · " + std::to_string(minutes) + " min left";
}

std::shared_ptr<SessionBanner> SessionBanner::create(std::shared_ptr<BannerPresenter> presenter,
                                                     std::shared_ptr<VirelaClock> clock) {
    return std::shared_ptr<SessionBanner>(
        new SessionBanner(std::move(presenter), std::move(clock)));
}

SessionBanner::SessionBanner(std::shared_ptr<BannerPresenter> presenter,
                             std::shared_ptr<VirelaClock> clock)
    : presenter_(std::move(presenter)), clock_(std::move(clock)) {}

SessionBanner::~SessionBanner() {
    if (timer_) timer_->cancel();
}

void SessionBanner::show(HostHandle window, double expiresAt) {
    hide();
    const double remaining = expiresAt - clock_->now();
    if (!(remaining > 0)) return;
    expiresAt_ = expiresAt;
    text_ = sessionBannerText(remaining);
    if (presenter_) presenter_->show(window, text_);
    std::weak_ptr<SessionBanner> weak = weak_from_this();
    timer_ = clock_->every(TimerId::bannerRefresh, sessionBannerRefreshSeconds, [weak] {
        if (auto self = weak.lock()) self->refresh();
    });
}

void SessionBanner::hide() {
    if (timer_) timer_->cancel();
    timer_.reset();
    const bool wasVisible = expiresAt_.has_value();
    expiresAt_.reset();
    text_.clear();
    if (wasVisible && presenter_) presenter_->hide();
}

bool SessionBanner::countingDown() const {
    return presenter_ && expiresAt_ && *expiresAt_ > clock_->now();
}

void SessionBanner::refresh() {
    if (!expiresAt_) return;
    const double remaining = *expiresAt_ - clock_->now();
    if (!(remaining > 0)) {
        hide();
        return;
    }
    text_ = sessionBannerText(remaining);
    if (presenter_) presenter_->setText(text_);
}

}  // namespace virela
