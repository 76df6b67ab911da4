#include "core/flow/consent_prompt.hpp"

#include <algorithm>

#include "core/ports/clock.hpp"
#include "core/ports/http_client.hpp"
#include "core/ports/platform.hpp"
#include "core/wire/date_time.hpp"

namespace virela {

namespace {
constexpr double kLogoTimeoutSeconds = 30;
constexpr double kExpiryGraceSeconds = 2;
constexpr double kMinimumExpirySeconds = 1;
}  // namespace

std::shared_ptr<ConsentPrompt> ConsentPrompt::create(std::shared_ptr<PromptPresenter> presenter,
                                                     std::shared_ptr<HttpClient> http,
                                                     std::shared_ptr<MainExecutor> main) {
    return std::shared_ptr<ConsentPrompt>(
        new ConsentPrompt(std::move(presenter), std::move(http), std::move(main)));
}

ConsentPrompt::ConsentPrompt(std::shared_ptr<PromptPresenter> presenter,
                             std::shared_ptr<HttpClient> http, std::shared_ptr<MainExecutor> main)
    : presenter_(std::move(presenter)), http_(std::move(http)), main_(std::move(main)) {}

ConsentPrompt::~ConsentPrompt() {
    if (logoFetch_) logoFetch_->cancel();
    cancelExpiry();
}

void ConsentPrompt::showConsent(HostHandle window, const ConsentSheet& sheet, Showing showing,
                                ChoiceCallback onChoice) {
    // A newer request replaces an older one, expiry and all.
    cancelExpiry();
    dismiss();
    showing_ = showing;
    onChoice_ = std::move(onChoice);
    if (!presenter_) return;
    presenter_->presentConsent(window, sheet, actions());
    if (sheet.logo) fetchLogo(*sheet.logo);
}

void ConsentPrompt::showSupportCode(HostHandle window, const std::string& code) {
    dismiss();
    showing_ = Showing::supportCode;
    if (!presenter_) return;
    SupportCodeSheet sheet;
    sheet.code = code;
    presenter_->presentSupportCode(window, sheet, actions());
}

void ConsentPrompt::dismiss() {
    ++sheet_;
    if (logoFetch_) logoFetch_->cancel();
    logoFetch_.reset();
    const bool wasShowing = showing_.has_value();
    onChoice_ = nullptr;
    showing_.reset();
    if (wasShowing && presenter_) presenter_->dismiss();
}

void ConsentPrompt::armExpiry(VirelaClock& clock, const std::string& expiresAt,
                              std::function<void()> onExpired) {
    cancelExpiry();
    const std::optional<double> deadline = parseInternetDateTime(expiresAt);
    if (!deadline) return;  // the sheet then stays until answered or replaced
    const double delay =
        std::max(*deadline - clock.now() + kExpiryGraceSeconds, kMinimumExpirySeconds);
    std::weak_ptr<ConsentPrompt> weak = weak_from_this();
    // Cancelling the task is what keeps a stale expiry from closing a newer sheet.
    expiry_ = clock.after(TimerId::promptExpiry, delay, [weak, onExpired = std::move(onExpired)] {
        auto self = weak.lock();
        if (!self) return;
        self->expiry_.reset();
        self->dismiss();
        if (onExpired) onExpired();
    });
}

void ConsentPrompt::cancelExpiry() {
    if (expiry_) expiry_->cancel();
    expiry_.reset();
}

void ConsentPrompt::choose(Choice choice) {
    // The sheet is gone before the caller hears of the choice; a second tap finds nothing.
    ChoiceCallback callback = std::move(onChoice_);
    dismiss();
    if (callback) callback(choice);
}

SheetActions ConsentPrompt::actions() {
    // Buttons of an older sheet must not act on a newer one.
    std::weak_ptr<ConsentPrompt> weak = weak_from_this();
    const std::uint64_t sheet = sheet_;
    auto guarded = [weak, sheet](void (ConsentPrompt::*action)()) {
        return [weak, sheet, action] {
            auto self = weak.lock();
            if (self && self->sheet_ == sheet) (self.get()->*action)();
        };
    };
    return SheetActions{guarded(&ConsentPrompt::allowTapped), guarded(&ConsentPrompt::denyTapped),
                        guarded(&ConsentPrompt::doneTapped)};
}

void ConsentPrompt::fetchLogo(const Url& url) {
    if (!http_ || !main_) return;
    HttpRequest request;
    request.method = "GET";
    request.url = url;
    request.timeoutSeconds = kLogoTimeoutSeconds;
    std::weak_ptr<ConsentPrompt> weak = weak_from_this();
    const std::uint64_t sheet = sheet_;
    std::shared_ptr<MainExecutor> main = main_;
    logoFetch_ = http_->send(std::move(request), [weak, sheet, main](HttpOutcome outcome) {
        // Anything but a successful reply keeps the placeholder.
        if (!outcome.response || outcome.response->status < 200 || outcome.response->status > 299 ||
            outcome.response->body.empty()) {
            return;
        }
        main->post([weak, sheet, body = std::move(outcome.response->body)] {
            auto self = weak.lock();
            if (!self || self->sheet_ != sheet || !self->presenter_) return;
            self->logoFetch_.reset();
            self->presenter_->showLogo(body);
        });
    });
}

}  // namespace virela
