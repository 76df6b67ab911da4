#pragma once

// The demo's sample app: a checkout form under a navigation controller, with an "Order details"
// screen pushed from its list, and the extra windows a real app has (a toast, the keyboard, the
// delivery menu while it is open). Sensitive views are the kinds a real app has: a password, a
// card number the app marks, a security code marked by its accessibility identifier.
//
// The app prints what a driver needs to play the customer: the layout of every screen that
// becomes the top one, and each event it observes, as `app: ...` lines. Main thread only.

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "platform/headless/host/builder.hpp"
#include "platform/headless/runtime.hpp"

namespace demo {

class SampleApp : public std::enable_shared_from_this<SampleApp> {
  public:
    // Builds the app in `host`, shows its first screen and prints its layout.
    static std::shared_ptr<SampleApp> show(virela::headless::HeadlessHost& host);

    // The app's window (390 × 844) and the windows above it.
    const std::shared_ptr<virela::headless::Window>& window() const { return window_; }
    const std::shared_ptr<virela::headless::Window>& toast() const { return toast_; }
    const std::shared_ptr<virela::headless::Window>& keyboard() const { return keyboard_; }
    const std::shared_ptr<virela::headless::Window>& menu() const { return menu_; }

    // The window's root controller (navigation) and its two screens.
    const std::shared_ptr<virela::headless::ViewController>& navigation() const {
        return navigation_;
    }
    const std::shared_ptr<virela::headless::ViewController>& checkout() const { return checkout_; }
    const std::shared_ptr<virela::headless::ViewController>& orderDetails() const {
        return orderDetails_;
    }

    // The view with this accessibility label on the top screen, else on the other screen, else
    // in the delivery menu while it is open; null if there is none. The checkout's scroll area
    // is "Checkout".
    std::shared_ptr<virela::headless::View> find(std::string_view label) const;

    // What the row "Order details" and the button "Back" do: push or pop, then print the new
    // top screen and its layout. back() is false on the first screen.
    void openOrderDetails();
    bool back();

  private:
    SampleApp() = default;
    void build(virela::headless::HeadlessHost& host);
    std::shared_ptr<virela::headless::View> buildCheckout();
    std::shared_ptr<virela::headless::View> buildOrderDetails();
    void buildMenuWindow();
    void openMenu();
    void choose(const std::string& title);
    void screenShown() const;

    std::shared_ptr<virela::headless::Window> window_;
    std::shared_ptr<virela::headless::Window> toast_;
    std::shared_ptr<virela::headless::Window> keyboard_;
    std::shared_ptr<virela::headless::Window> menu_;
    std::shared_ptr<virela::headless::ViewController> navigation_;
    std::shared_ptr<virela::headless::ViewController> checkout_;
    std::shared_ptr<virela::headless::ViewController> orderDetails_;
    std::shared_ptr<virela::headless::View> delivery_;
};

// Shows the app and writes a JPEG live frame of it to `outDir`, as live sharing will send it,
// with every sensitive view painted over. Call from any thread but main.
std::shared_ptr<SampleApp> showAndCaptureSampleApp(virela::headless::Runtime& runtime,
                                                   const std::filesystem::path& outDir);

}  // namespace demo
