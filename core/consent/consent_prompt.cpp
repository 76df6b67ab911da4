#include "core/consent/consent_prompt.hpp"

#include "core/ports/clock.hpp"
#include "core/ports/http_client.hpp"
#include "core/ports/platform.hpp"

namespace virela {

namespace {
constexpr double kLogoTimeoutSeconds = 30;
}

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
}

void ConsentPrompt::showConsent(HostHandle window, const ConsentSheet& sheet, Showing showing,
                                ChoiceCallback onChoice) {
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
