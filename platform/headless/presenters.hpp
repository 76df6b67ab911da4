#pragma once

// The headless screen's bottom sheet and session banner. They put real views and windows into
// the headless host and keep what is on screen as plain state that tests, and the customer at
// the demo's terminal, can read and press.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/ports/presenters.hpp"
#include "platform/headless/host/screen.hpp"

namespace virela::headless {

// What the sheet on screen shows.
struct SheetState {
    enum class Kind { consent, supportCode };
    enum class Logo { placeholder, image };
    Kind kind = Kind::consent;
    HostHandle window = noHandle;
    std::string title;
    std::string body;
    std::string requestLine;           // consent sheets
    std::string code;                  // the support-code sheet
    std::string note;                  // the support-code sheet
    std::vector<std::string> buttons;  // top to bottom
    Logo logo = Logo::placeholder;
    std::optional<Url> logoUrl;
    int logoWidth = 0;  // of the image that replaced the placeholder
    int logoHeight = 0;
};

class HeadlessPromptPresenter final : public PromptPresenter {
  public:
    // `appearance` says which side of the palette the views take.
    explicit HeadlessPromptPresenter(std::function<Appearance()> appearance);

    void presentConsent(HostHandle window, const ConsentSheet& sheet,
                        SheetActions actions) override;
    void presentSupportCode(HostHandle window, const SupportCodeSheet& sheet,
                            SheetActions actions) override;
    bool showLogo(std::string_view bytes) override;
    void dismiss() override;

    // Main thread only.
    const std::optional<SheetState>& sheet() const noexcept { return state_; }
    // The overlay view in the window while a sheet is shown.
    const std::shared_ptr<View>& overlay() const noexcept { return overlay_; }
    // Presses the button with that title, as a touch would; false when no such button is shown.
    bool press(std::string_view title);
    // Called after every change of what is shown (present, logo, dismiss).
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

  private:
    void build(Window& window, const std::vector<std::function<void()>>& buttonActions);
    void changed();

    std::function<Appearance()> appearance_;
    std::optional<SheetState> state_;
    std::vector<std::function<void()>> buttonActions_;
    std::shared_ptr<View> overlay_;
    std::shared_ptr<View> logoTile_;
    std::function<void()> onChange_;
};

class HeadlessBannerPresenter final : public BannerPresenter {
  public:
    explicit HeadlessBannerPresenter(std::function<Appearance()> appearance);
    ~HeadlessBannerPresenter() override;

    void show(HostHandle window, const std::string& text) override;
    void setText(const std::string& text) override;
    void hide() override;

    // Main thread only. The pill's text; nullopt while nothing is shown.
    std::optional<std::string> text() const;
    const std::shared_ptr<Window>& window() const noexcept { return window_; }
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

  private:
    std::function<Appearance()> appearance_;
    std::shared_ptr<Window> window_;
    std::shared_ptr<View> pill_;
    std::function<void()> onChange_;
};

}  // namespace virela::headless
